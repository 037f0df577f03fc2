// kxha log: where the library's debug log is, and its last lines.
#include <windows.h>

#include <cwchar>
#include <vector>

#include "KestrixHA.h"
#include "commands.h"
#include "common/unique_resource.h"

namespace kxha {

namespace {
std::vector<std::wstring> LastLines(const std::wstring& file, size_t count) {
    std::vector<std::wstring> lines;
    kx::unique_hfile h(::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                     OPEN_EXISTING, 0, nullptr));
    if (!h) return lines;
    LARGE_INTEGER size{};
    ::GetFileSizeEx(h.get(), &size);
    // The tail is enough: a line is at most ~1100 characters.
    const LONGLONG want = std::min<LONGLONG>(size.QuadPart, static_cast<LONGLONG>(count + 1) * 2400);
    LARGE_INTEGER at;
    at.QuadPart = (size.QuadPart - want) & ~1LL;
    ::SetFilePointerEx(h.get(), at, nullptr, FILE_BEGIN);
    std::vector<wchar_t> buf(static_cast<size_t>(want / 2) + 1);
    DWORD got = 0;
    ::ReadFile(h.get(), buf.data(), static_cast<DWORD>(want), &got, nullptr);
    std::wstring all(buf.data(), got / 2);
    if (!all.empty() && all[0] == 0xFEFF) all.erase(0, 1);
    size_t start = 0, end;
    while ((end = all.find(L"\r\n", start)) != std::wstring::npos) {
        lines.push_back(all.substr(start, end - start));
        start = end + 2;
    }
    if (at.QuadPart > 0 && !lines.empty()) lines.erase(lines.begin());  // cut in the middle
    if (lines.size() > count) lines.erase(lines.begin(), lines.end() - count);
    return lines;
}
}  // namespace

int CmdLog(const Args& args) {
    size_t count = 20;
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == L"--lines") count = wcstoul(args[i + 1].c_str(), nullptr, 10);
    wchar_t path[1024] = {};
    DWORD chars = 1024;
    if (DWORD rc = KxGetDebugLogFile(path, &chars)) return Fail(L"KxGetDebugLogFile", rc);
    const auto lines = LastLines(path, count);
    if (HasFlag(args, L"--json")) {
        std::wstring json = L"{\"file\": \"";
        auto esc = [](const std::wstring& s) {
            std::wstring o;
            for (wchar_t c : s) {
                if (c == L'\\' || c == L'"') o += L'\\';
                if (c >= 0x20) o += c;
            }
            return o;
        };
        json += esc(path) + L"\", \"lines\": [";
        for (size_t i = 0; i < lines.size(); ++i) json += (i ? L", \"" : L"\"") + esc(lines[i]) + L"\"";
        Out(json + L"]}\n");
        return 0;
    }
    Out(std::wstring(L"Debug log: ") + path + L"\n");
    for (const auto& l : lines) Out(l + L"\n");
    return 0;
}

}  // namespace kxha
