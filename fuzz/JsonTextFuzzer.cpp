// The text writer of the bulk bodies against serialize() on arbitrary input: a string of any code
// units, by length and up to its first NUL, and the same bytes as 32-bit integers. Any difference
// in bytes, or in whether and how they fail, aborts. The attribute document is
// fuzz_attribute_definitions' part.
#include "FuzzInput.h"
#include "client/JsonText.h"
#include "client/TextConversion.h"

#include <cpprest/json.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

std::string Utf8Of(const web::json::value& value) {
    return utility::conversions::to_utf8string(value.serialize());
}

std::string Written(const std::wstring& text) {
    std::string out;
    AppendJsonString(out, text.data(), text.size());
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Three input bytes per code unit, so every value up to 0xFFFFFF can appear: surrogates, units
    // beyond Unicode, and the control characters.
    std::wstring text;
    for (std::size_t i = 0; i + 3 <= size; i += 3) {
        text.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8 | data[i + 2] << 16));
    }
    Check(Outcome([&] { return Written(text); }) ==
          Outcome([&] { return Utf8Of(web::json::value::string(ToStringT(text))); }));
    // Up to the NUL: the same as by length for the text before it.
    Check(Outcome([&] {
              std::string out;
              AppendJsonString(out, text.c_str());
              return out;
          }) == Outcome([&] { return Written(text.substr(0, text.find(L'\0'))); }));

    std::vector<std::int32_t> numbers(size / 4);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        std::memcpy(&numbers[i], data + 4 * i, 4);
    }
    const std::vector<web::json::value> elements(numbers.begin(), numbers.end());
    const std::unique_ptr<char[]> room(new char[JsonIntArrayCapacity(numbers.size())]);
    char* const end = WriteJsonIntArray(room.get(), numbers.data(), numbers.size());
    Check(std::string(room.get(), end) == Utf8Of(web::json::value::array(elements)));
    return 0;
}
