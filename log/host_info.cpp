#include "log/host_info.h"

#include <cwchar>

#include "common/proc_address.h"
#include "kx_version.h"

namespace kx::log {

namespace {

void Copy(wchar_t (&to)[64], const wchar_t* from) noexcept {
    wcsncpy(to, from, 63);
    to[63] = 0;
}

void ReadOsVersion(HostInfo* info) noexcept {
    // The real version: GetVersionEx reports what the program's manifest
    // claims to support.
    using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOW*);
    OSVERSIONINFOW v{};
    v.dwOSVersionInfoSize = sizeof v;
    if (auto fn = ProcAddress<RtlGetVersionFn>(::GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion"))
        if (fn(&v) == 0) {
            info->osMajor = v.dwMajorVersion;
            info->osMinor = v.dwMinorVersion;
        }
}

}  // namespace

void ReadHostInfo(HostInfo* info) noexcept {
    Copy(info->maker, KX_COMPANY_NAME);
    Copy(info->product, KX_PRODUCT_NAME);
    info->major = KX_VERSION_MAJOR;
    info->minor = KX_VERSION_MINOR;
    info->build = KX_VERSION_PATCH;
    info->update = KX_UPDATE_NUMBER;

    DWORD n = 63;
    if (!::GetComputerNameW(info->computer, &n)) Copy(info->computer, L"");
    ReadOsVersion(info);
    SYSTEM_INFO si{};
    ::GetNativeSystemInfo(&si);
    switch (si.wProcessorArchitecture) {
        case PROCESSOR_ARCHITECTURE_INTEL: info->platform = L"X86"; break;
        case PROCESSOR_ARCHITECTURE_AMD64: info->platform = L"X64"; break;
        case PROCESSOR_ARCHITECTURE_IA64: info->platform = L"IA64"; break;
        default: info->platform = L"Unknown"; break;
    }
}

}  // namespace kx::log
