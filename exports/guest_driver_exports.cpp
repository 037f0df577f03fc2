// Exported boot driver injection and EC2 preparation of a guest.
#include "KestrixHA/guest_drivers.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/driver_injection.h"

using kx::exports::Inner;

KXHA_API DWORD InjectIDEDriver(const std::wstring& systemDir) { return kx::guestfix::InjectIDEDriver(systemDir); }

KXHA_API DWORD InjectIDEDriverEx(const std::wstring& systemDir, RegistryHiveLoader* systemHive,
                                 RegistryHiveLoader* softwareHive) {
    return kx::guestfix::InjectIDEDriverEx(systemDir, Inner(systemHive), Inner(softwareHive));
}

KXHA_API DWORD InjectSCSIDriver() { return kx::guestfix::InjectSCSIDriver(); }

KXHA_API DWORD InjectDriverForEC2Ex(const std::wstring& systemDir, RegistryHiveLoader* systemHive) {
    return kx::guestfix::InjectDriverForEC2Ex(systemDir, Inner(systemHive));
}
