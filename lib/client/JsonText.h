#pragma once

#include "host/Framework.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// JSON written straight to UTF-8 text, for the bodies sent in bulk (value ids, distinct values,
// the attribute document). Holding those as web::json::value costs tens of bytes and two
// allocations per element before serialize() copies everything once more; the text is what goes
// on the wire anyway. The output is byte for byte what serialize() gives for the same value:
// the same escapes (\" \\ \b \f \n \r \t, \u00XX with upper-case hex for the other control
// characters, nothing else escaped), integers in plain decimal, members of an object in the
// byte order of their names as the default object keeps them.

// A request body that is already JSON text and goes out unchanged. The text is either owned
// (utf8, moved into the request) or borrowed: written into a buffer of the sender's that stays
// alive, unchanged, until the response has arrived, and sent from where it lies.
struct JsonText {
    std::string utf8;
    std::string_view borrowed{};

    static JsonText Borrowing(const char* text, std::size_t length) {
        return JsonText{std::string(), std::string_view(text, length)};
    }
    bool IsBorrowed() const { return borrowed.data() != nullptr; }
    std::string_view Text() const { return IsBorrowed() ? borrowed : std::string_view(utf8); }
};

// Appends text as a JSON string. Wide text is converted as ToUtf8 converts it, with the same
// errors, so a value that cannot be sent fails here exactly where building a JSON value would.
void AppendJsonString(std::string& out, const wchar_t* text, std::size_t length);
// Text up to its first NUL, as the host hands it to a C API.
void AppendJsonString(std::string& out, const wchar_t* text);
void AppendJsonString(std::string& out, const CString& text);
void AppendJsonInt(std::string& out, std::int32_t number);
inline void AppendJsonBool(std::string& out, bool flag) { out += flag ? "true" : "false"; }

// A JSON array of 32-bit integers, written at out, which must have room for
// JsonIntArrayCapacity(count) bytes; returns the end of the text.
constexpr std::size_t JsonIntArrayCapacity(std::size_t count) {
    return 2 + count * sizeof "-2147483648,";
}
char* WriteJsonIntArray(char* out, const std::int32_t* numbers, std::size_t count);
