// Exported VMware guest support: VDDK version, guest identifier, .NET
// versions, VMware Tools state and the silent installers.
#include "KestrixHA/vmware.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/dotnet_version.h"
#include "guestfix/guest_id.h"
#include "host/vmware_support.h"

namespace g = kx::guestfix;
namespace h = kx::host;

KXHA_API DWORD GetVddkVersion(std::wstring& version, std::wstring* libraryPath) {
    return h::GetVddkVersion(&version, libraryPath);
}

KXHA_API DWORD GetGuestID(DWORD major, DWORD minor, DWORD build, bool server, DWORD architecture,
                          std::wstring& guestId) {
    return g::GetGuestID({major, minor, build, server, architecture}, &guestId);
}

KXHA_API DWORD GetGuestIDEx(const std::wstring& systemDir, RegistryHiveLoader* software, RegistryHiveLoader* system,
                            std::wstring& guestId, KxWindowsRelease* release) {
    g::WindowsRelease r;
    const DWORD rc = g::GetGuestIDEx(systemDir, kx::exports::Inner(software), kx::exports::Inner(system), &guestId, &r);
    if (release) *release = {r.major, r.minor, r.build, r.server, r.architecture};
    return rc;
}

KXHA_API DWORD getDotNetVersion(std::wstring& highest, std::vector<std::wstring>* installed) {
    return g::GetDotNetVersion(L"", nullptr, false, &highest, installed);
}

KXHA_API DWORD getDotNetVersionEx(const std::wstring& systemDir, RegistryHiveLoader* software, std::wstring& highest,
                                  std::vector<std::wstring>* installed) {
    return g::GetDotNetVersion(systemDir, kx::exports::Inner(software), true, &highest, installed);
}

KXHA_API DWORD CheckVMToolStatus(DWORD* status) { return h::CheckVMToolStatus(status); }

KXHA_API DWORD InstallVMwareTools(const std::wstring& setup, DWORD* exitCode) {
    return h::InstallVMwareTools(setup, exitCode);
}

KXHA_API DWORD InstallIntegrationService(const std::wstring& setup, DWORD* exitCode) {
    return h::InstallIntegrationService(setup, exitCode);
}
