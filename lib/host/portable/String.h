#pragma once

#include "host/portable/Types.h"

#include <string>
#include <utility>

// The framework's wide string: a counted run of wchar_t code units that may hold embedded NULs,
// handed to C APIs as a NUL-terminated pointer.
class HOST_FRAMEWORK_API CString {
public:
    CString() = default;
    CString(const wchar_t* text) : m_text(text ? text : L"") {}
    CString(const wchar_t* text, int length) : m_text(text, static_cast<std::size_t>(length)) {}
    CString(wchar_t ch, int repeat = 1) : m_text(static_cast<std::size_t>(repeat), ch) {}
    // 8-bit text is taken as UTF-8 (the framework converts through the active code page).
    CString(const char* text) : m_text(Widen(text, text ? std::char_traits<char>::length(text) : 0)) {}
    CString(const char* text, int length) : m_text(Widen(text, static_cast<std::size_t>(length))) {}
    CString(const CString&) = default;
    CString(CString&&) noexcept = default;
    CString& operator=(const CString&) = default;
    CString& operator=(CString&&) noexcept = default;
    CString& operator=(const wchar_t* text) { return *this = CString(text); }
    CString& operator=(const char* text) { return *this = CString(text); }

    operator const wchar_t*() const { return m_text.c_str(); }
    const wchar_t* GetString() const { return m_text.c_str(); }
    int GetLength() const { return static_cast<int>(m_text.size()); }
    BOOL IsEmpty() const { return m_text.empty(); }
    void Empty() { m_text.clear(); }
    wchar_t GetAt(int index) const { return m_text.at(static_cast<std::size_t>(index)); }
    wchar_t operator[](int index) const { return GetAt(index); }
    void SetAt(int index, wchar_t ch) { m_text.at(static_cast<std::size_t>(index)) = ch; }

    CString Mid(int first) const { return Mid(first, GetLength()); }
    CString Mid(int first, int count) const {
        const int length = GetLength();
        first = first < 0 ? 0 : (first > length ? length : first);
        count = count < 0 ? 0 : (count > length - first ? length - first : count);
        return CString(m_text.c_str() + first, count);
    }
    CString Left(int count) const { return Mid(0, count); }
    CString Right(int count) const {
        count = count < 0 ? 0 : (count > GetLength() ? GetLength() : count);
        return Mid(GetLength() - count, count);
    }

    CString& operator+=(const CString& other) {
        m_text += other.m_text;
        return *this;
    }
    CString& operator+=(const wchar_t* text) { return *this += CString(text); }
    CString& operator+=(wchar_t ch) {
        m_text += ch;
        return *this;
    }
    friend CString operator+(CString left, const CString& right) { return left += right; }
    friend CString operator+(CString left, const wchar_t* right) { return left += right; }
    friend CString operator+(const wchar_t* left, const CString& right) {
        return CString(left) += right;
    }

    int Compare(const wchar_t* other) const { return m_text.compare(other ? other : L""); }
    friend bool operator==(const CString& a, const CString& b) { return a.m_text == b.m_text; }
    friend bool operator!=(const CString& a, const CString& b) { return !(a == b); }
    friend bool operator==(const CString& a, const wchar_t* b) { return a.Compare(b) == 0; }
    friend bool operator!=(const CString& a, const wchar_t* b) { return !(a == b); }

private:
    static std::wstring Widen(const char* text, std::size_t length);

    std::wstring m_text;
};

// UTF-8 to wide code units; a malformed sequence becomes U+FFFD. Code points above the BMP take
// a surrogate pair where wchar_t has 16 bits.
inline std::wstring CString::Widen(const char* text, std::size_t length) {
    std::wstring out;
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    const auto* end = p + length;
    while (p < end) {
        unsigned int cp = *p;
        int extra = cp < 0x80 ? 0 : (cp >> 5) == 0x6 ? 1 : (cp >> 4) == 0xE ? 2 : (cp >> 3) == 0x1E ? 3 : -1;
        ++p;
        if (extra < 0) {
            out += wchar_t(0xFFFD);
            continue;
        }
        cp &= extra == 0 ? 0x7Fu : (0x3Fu >> extra);
        bool ok = true;
        for (int i = 0; i < extra; ++i, ++p) {
            if (p == end || (*p & 0xC0) != 0x80) {
                ok = false;
                break;
            }
            cp = (cp << 6) | (*p & 0x3Fu);
        }
        if (!ok) {
            out += wchar_t(0xFFFD);
            continue;
        }
        if (sizeof(wchar_t) == 2 && cp > 0xFFFF) {
            cp -= 0x10000;
            out += static_cast<wchar_t>(0xD800 + (cp >> 10));
            out += static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out += static_cast<wchar_t>(cp);
        }
    }
    return out;
}
