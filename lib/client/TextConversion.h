#pragma once

#include "host/Framework.h"

#include <cpprest/details/basic_types.h>

#include <string>

// The host speaks wide text, the wire UTF-8, and cpprestsdk its own string_t (UTF-8 here, UTF-16
// on Windows). Every crossing goes through these.

// UTF-8 of wide code units: surrogate pairs combine, a lone high surrogate is an error
// (std::range_error) as in cpprestsdk's own UTF-16 conversion.
std::string ToUtf8(const wchar_t* text, std::size_t length);
// The same conversion, appended to out.
void AppendUtf8(std::string& out, const wchar_t* text, std::size_t length);
inline std::string ToUtf8(const std::wstring& text) { return ToUtf8(text.data(), text.size()); }

std::wstring FromUtf8(const std::string& text);

// A CString as the host hands it to a C API: up to its first NUL.
utility::string_t ToStringT(const CString& text);
utility::string_t ToStringT(const std::wstring& text);
std::wstring ToWide(const utility::string_t& text);
CString ToCString(const utility::string_t& text);
