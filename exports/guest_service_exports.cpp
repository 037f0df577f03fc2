// Exported fix-ups: service registration and the helper service.
#include "KestrixHA/guest_service.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/helper_service.h"

using kx::exports::Inner;
namespace g = kx::guestfix;

KXHA_API DWORD RVCM_InjectServiceToHive(const std::wstring& systemDir, const std::wstring& name,
                                        const std::wstring& displayName, const std::wstring& imagePath,
                                        DWORD startType, const std::vector<std::wstring>& dependencies,
                                        RegistryHiveLoader* system) {
    return g::RVCM_InjectServiceToHive(systemDir, name, displayName, imagePath, startType, dependencies,
                                       Inner(system));
}

KXHA_API DWORD Ivm_InjectHelperServiceToHive(const std::wstring& systemDir, const std::wstring& sourceDir) {
    return g::Ivm_InjectHelperServiceToHive(systemDir, sourceDir);
}

KXHA_API DWORD Ivm_InjectHelperServiceToHiveEx(const std::wstring& systemDir, const std::wstring& sourceDir,
                                               RegistryHiveLoader* system) {
    return g::Ivm_InjectHelperServiceToHiveEx(systemDir, sourceDir, Inner(system));
}

KXHA_API DWORD Ivm_InjectHelperServiceToHiveForVsb(const std::wstring& systemDir, const std::wstring& sourceDir,
                                                   RegistryHiveLoader* system, RegistryHiveLoader* software) {
    return g::Ivm_InjectHelperServiceToHiveForVsb(systemDir, sourceDir, Inner(system), Inner(software));
}
