// printf-style formatting into std::wstring with the Windows runtime's wide
// conventions (%s is a wide string).
#pragma once

#include <cstdarg>
#include <string>

namespace kx {

std::wstring FormatV(const wchar_t* format, va_list args);
std::wstring Format(const wchar_t* format, ...);

// Case-insensitive comparison of whole strings and of a suffix.
bool EqualsNoCase(const std::wstring& a, const std::wstring& b) noexcept;
bool EndsWithNoCase(const std::wstring& s, const std::wstring& suffix) noexcept;

// "a" + "\" + "b", with no second separator when "a" already ends in one.
std::wstring JoinPath(const std::wstring& a, const std::wstring& b);

}  // namespace kx
