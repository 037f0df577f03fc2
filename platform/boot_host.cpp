#include "platform/boot_host.h"

#include <process.h>
#include <stdlib.h>

#include <atomic>
#include <vector>

namespace kx::platform {

namespace {
std::atomic<BootHost*> g_override{nullptr};
}  // namespace

unique_hmodule BootHost::LoadRecoveryCore(DWORD* error) {
    unique_hmodule module(::LoadLibraryW(kRecoveryCoreDll));
    *error = module ? ERROR_SUCCESS : ::GetLastError();
    if (!module && *error == ERROR_SUCCESS) *error = ERROR_MOD_NOT_FOUND;
    return module;
}

int BootHost::RunCommand(const std::wstring& command) { return ::_wsystem(command.c_str()); }

bool BootHost::CanFindProgram(const wchar_t* program) {
    // The interpreter looks in the current folder first, then along the PATH.
    std::wstring path = L".";
    if (const DWORD n = ::GetEnvironmentVariableW(L"PATH", nullptr, 0)) {
        std::vector<wchar_t> value(n);
        if (::GetEnvironmentVariableW(L"PATH", value.data(), n) < n) path += L";" + std::wstring(value.data());
    }
    wchar_t found[MAX_PATH];
    return ::SearchPathW(path.c_str(), program, nullptr, MAX_PATH, found, nullptr) != 0;
}

DWORD BootHost::HostMajorVersion() {
    OSVERSIONINFOW info{};
    info.dwOSVersionInfoSize = sizeof info;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    if (!::GetVersionExW(&info)) return 0;
#pragma GCC diagnostic pop
    return info.dwMajorVersion;
}

BootHost& CurrentBootHost() {
    static BootHost real;
    BootHost* host = g_override.load();
    return host ? *host : real;
}

namespace testing {
void SetBootHost(BootHost* host) noexcept { g_override.store(host); }
}  // namespace testing

}  // namespace kx::platform
