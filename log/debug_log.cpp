// PLACEHOLDER: replaced by the real log facility.
#include "log/debug_log.h"

#include <cstdio>
#include <cwchar>

namespace kx::log {
namespace {
std::wstring Path() {
    wchar_t buf[MAX_PATH] = {};
    DWORD size = sizeof buf;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Veltrana\\Quillon\\Engine\\InstallPath", L"Path", RRF_RT_REG_SZ,
                     nullptr, buf, &size) != 0)
        return L"C:\\KestrixHA.Log";
    std::wstring p = buf;
    CreateDirectoryW((p + L"\\Logs").c_str(), nullptr);
    return p + L"\\Logs\\KestrixHA.Log";
}
}  // namespace
void WriteV(int level, DWORD error, const wchar_t* format, va_list args) noexcept {
    if (level > 4) return;
    wchar_t msg[1024];
    _vsnwprintf(msg, 1023, format, args);
    msg[1023] = 0;
    wchar_t line[1200];
    int n = _snwprintf(line, 1199, L"[2026/01/01 00:00:00:000   %02d   %05ld   %05ld             ] %s\r\n", level,
                       GetCurrentProcessId(), GetCurrentThreadId(), msg);
    HANDLE h = CreateFileW(Path().c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                           0, nullptr);
    if (h == INVALID_HANDLE_VALUE) return;
    LARGE_INTEGER sz{};
    GetFileSizeEx(h, &sz);
    DWORD w;
    if (sz.QuadPart == 0) {
        wchar_t bom = 0xFEFF;
        WriteFile(h, &bom, 2, &w, nullptr);
    }
    WriteFile(h, line, n * 2, &w, nullptr);
    CloseHandle(h);
}
void Write(int level, DWORD error, const wchar_t* format, ...) noexcept {
    va_list a;
    va_start(a, format);
    WriteV(level, error, format, a);
    va_end(a);
}
std::wstring CurrentFile() { return Path(); }
std::wstring Folder() { return Path(); }
int Threshold() noexcept { return 4; }
namespace testing {
void SetRotationLimit(uint64_t) noexcept {}
}  // namespace testing
}  // namespace kx::log
