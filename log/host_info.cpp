#include "log/host_info.h"

#include <cwchar>
#include <vector>

#include "common/proc_address.h"
#include "kx_version.h"

namespace kx::log {

namespace {

// Any object of this file identifies the module the log code was linked into.
const int kModuleAnchor = 0;

void Copy(wchar_t (&to)[64], const wchar_t* from) noexcept {
    wcsncpy(to, from, 63);
    to[63] = 0;
}

bool ReadVersionResource(HostInfo* info) {
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              reinterpret_cast<LPCWSTR>(&kModuleAnchor), &module))
        return false;
    wchar_t path[MAX_PATH];
    const DWORD n = ::GetModuleFileNameW(module, path, MAX_PATH);
    if (n == 0 || n >= MAX_PATH) return false;
    DWORD ignored = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(path, &ignored);
    if (size == 0) return false;
    std::vector<BYTE> block(size);
    if (!::GetFileVersionInfoW(path, 0, size, block.data())) return false;

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT len = 0;
    if (!::VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &len) || len < sizeof *fixed)
        return false;
    info->major = HIWORD(fixed->dwFileVersionMS);
    info->minor = LOWORD(fixed->dwFileVersionMS);
    info->build = HIWORD(fixed->dwFileVersionLS);
    info->update = LOWORD(fixed->dwFileVersionLS);

    struct Translation {
        WORD language, codePage;
    };
    Translation* t = nullptr;
    wchar_t key[64];
    const wchar_t* fields[2] = {L"CompanyName", L"ProductName"};
    wchar_t(*targets[2])[64] = {&info->maker, &info->product};
    const bool translated =
        ::VerQueryValueW(block.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&t), &len) &&
        len >= sizeof *t;
    for (int i = 0; i < 2; ++i) {
        if (translated)
            _snwprintf(key, 63, L"\\StringFileInfo\\%04x%04x\\%s", t->language, t->codePage, fields[i]);
        else
            _snwprintf(key, 63, L"\\StringFileInfo\\040904b0\\%s", fields[i]);
        key[63] = 0;
        wchar_t* value = nullptr;
        if (::VerQueryValueW(block.data(), key, reinterpret_cast<void**>(&value), &len) && value && len > 0)
            Copy(*targets[i], value);
    }
    return true;
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
    try {
        ReadVersionResource(info);
    } catch (...) {
        // The build constants stand.
    }

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
