#include "common/wstring_format.h"

#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <vector>

namespace kx {

std::wstring FormatV(const wchar_t* format, va_list args) {
    std::vector<wchar_t> buf(256);
    for (;;) {
        va_list copy;
        va_copy(copy, args);
        int n = _vsnwprintf(buf.data(), buf.size(), format, copy);
        va_end(copy);
        if (n >= 0 && static_cast<size_t>(n) < buf.size()) return std::wstring(buf.data(), n);
        buf.resize(buf.size() * 2);
    }
}

std::wstring Format(const wchar_t* format, ...) {
    va_list args;
    va_start(args, format);
    std::wstring s = FormatV(format, args);
    va_end(args);
    return s;
}

bool EqualsNoCase(const std::wstring& a, const std::wstring& b) noexcept {
    return a.size() == b.size() &&
           ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()), TRUE) ==
               CSTR_EQUAL;
}

bool EndsWithNoCase(const std::wstring& s, const std::wstring& suffix) noexcept {
    if (s.size() < suffix.size()) return false;
    return ::CompareStringOrdinal(s.data() + (s.size() - suffix.size()), static_cast<int>(suffix.size()), suffix.data(),
                                  static_cast<int>(suffix.size()), TRUE) == CSTR_EQUAL;
}

std::wstring JoinPath(const std::wstring& a, const std::wstring& b) {
    if (!a.empty() && a.back() == L'\\') return a + b;
    return a + L'\\' + b;
}

}  // namespace kx
