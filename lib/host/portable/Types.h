#pragma once

#include <cwchar>
#include <cwctype>

// Portable stand-ins for the Windows types hosts write their records with.
typedef int BOOL;
typedef const wchar_t* LPCWSTR;
typedef wchar_t* LPWSTR;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

// The framework's visibility: its classes cross the boundary between the library and its host
// (exceptions are caught by type there), so they are never hidden.
#define HOST_FRAMEWORK_API __attribute__((visibility("default")))

// Leading blanks, an optional sign, then decimal digits; anything else ends the number. Overflow
// wraps like the runtime's 32-bit arithmetic instead of being undefined.
inline int _wtoi(const wchar_t* text) {
    if (text == nullptr) {
        return 0;
    }
    while (std::iswspace(static_cast<wint_t>(*text))) {
        ++text;
    }
    bool negative = false;
    if (*text == L'-' || *text == L'+') {
        negative = *text == L'-';
        ++text;
    }
    unsigned int value = 0;
    for (; *text >= L'0' && *text <= L'9'; ++text) {
        value = value * 10u + static_cast<unsigned int>(*text - L'0');
    }
    return static_cast<int>(negative ? 0u - value : value);
}
