// Exported fix-ups: virtual platform services and system switches.
#include "KestrixHA/guest_switches.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/platform_services.h"
#include "guestfix/system_switches.h"

using kx::exports::Inner;
namespace g = kx::guestfix;

KXHA_API DWORD RVCM_EnableVirtualPlatformServices(const std::wstring& systemDir, DWORD targetType) {
    return g::RVCM_EnableVirtualPlatformServices(systemDir, targetType);
}

KXHA_API DWORD RVCM_EnableVirtualPlatformServicesEx(const std::wstring& systemDir, DWORD targetType, const void*,
                                                    RegistryHiveLoader* system, RegistryHiveLoader* software) {
    return g::RVCM_EnableVirtualPlatformServicesEx(systemDir, targetType, Inner(system), Inner(software));
}

KXHA_API DWORD DisableZekAgentService(const std::wstring& systemDir, BYTE* existed) {
    return g::DisableZekAgentService(systemDir, existed);
}

KXHA_API DWORD DisableZekAgentServiceEx(const std::wstring& systemDir, BYTE* existed, RegistryHiveLoader* system) {
    return g::DisableZekAgentServiceEx(systemDir, existed, Inner(system));
}

KXHA_API DWORD SetZekServiceStart(const std::wstring& systemDir, const std::wstring& service) {
    return g::SetZekServiceStart(systemDir, service);
}

KXHA_API DWORD ChangeProductionHostName(const std::wstring& systemDir, const std::wstring& hostName) {
    return g::ChangeProductionHostName(systemDir, hostName);
}

KXHA_API DWORD PrepareZekForFailover(const std::wstring& systemDir, const std::wstring& vmType) {
    return g::PrepareZekForFailover(systemDir, vmType);
}

KXHA_API DWORD DeleteDynamicDiskGroup(const std::wstring& systemDir) { return g::DeleteDynamicDiskGroup(systemDir); }

KXHA_API DWORD DeleteDynamicDiskGroupEx(const std::wstring& systemDir, RegistryHiveLoader* system) {
    return g::DeleteDynamicDiskGroupEx(systemDir, Inner(system));
}

KXHA_API DWORD DisableShutDownEventTracker(const std::wstring& systemDir) {
    return g::DisableShutDownEventTracker(systemDir);
}

KXHA_API DWORD DisableShutDownEventTrackerEx(const std::wstring& systemDir, RegistryHiveLoader* software) {
    return g::DisableShutDownEventTrackerEx(systemDir, Inner(software));
}

KXHA_API DWORD EnableTerminalService(const std::wstring& systemDir, RegistryHiveLoader* system,
                                     RegistryHiveLoader* software) {
    return g::EnableTerminalService(systemDir, Inner(system), Inner(software));
}

KXHA_API DWORD DisableDynamicUpdate(const std::wstring& systemDir, RegistryHiveLoader* system, BYTE* changed) {
    return g::DisableDynamicUpdate(systemDir, Inner(system), changed);
}
