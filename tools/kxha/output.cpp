#include "output.h"

#include <io.h>

#include <cstdio>
#include <cwchar>

namespace kxha {

std::wstring JsonString(const std::wstring& s) {
    std::wstring o = L"\"";
    for (wchar_t c : s) {
        switch (c) {
        case L'\\': o += L"\\\\"; break;
        case L'"': o += L"\\\""; break;
        case L'\n': o += L"\\n"; break;
        case L'\r': o += L"\\r"; break;
        case L'\t': o += L"\\t"; break;
        default:
            if (c < 0x20) {
                wchar_t b[8];
                _snwprintf(b, 8, L"\\u%04x", c);
                o += b;
            } else {
                o += c;
            }
        }
    }
    return o + L"\"";
}

std::wstring JsonList(const std::vector<std::wstring>& items) {
    std::wstring o = L"[";
    for (size_t i = 0; i < items.size(); ++i) o += (i ? L", " : L"") + JsonString(items[i]);
    return o + L"]";
}

std::wstring Num(unsigned long long v) { return std::to_wstring(v); }

bool StdoutIsTerminal() {
    DWORD mode = 0;
    return _isatty(_fileno(stdout)) && ::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode);
}

std::wstring Option(const std::vector<std::wstring>& args, const wchar_t* flag, const std::wstring& fallback) {
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == flag) return args[i + 1];
    return fallback;
}

std::vector<std::wstring> Positionals(const std::vector<std::wstring>& args,
                                      std::initializer_list<const wchar_t*> flagsWithValue) {
    std::vector<std::wstring> out;
    for (size_t i = 0; i < args.size(); ++i) {
        bool takesValue = false;
        for (const wchar_t* f : flagsWithValue) takesValue = takesValue || args[i] == f;
        if (takesValue) {
            ++i;
            continue;
        }
        if (args[i].rfind(L"--", 0) == 0) continue;
        out.push_back(args[i]);
    }
    return out;
}

}  // namespace kxha
