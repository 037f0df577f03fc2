// Exported guest boot configuration.
#include "KestrixHA/guest_boot.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/boot_config.h"

KXHA_API DWORD InjectBCDFile(const std::wstring& bootDir, const std::wstring& recoveryFolder) {
    return kx::guestfix::InjectBCDFile(bootDir, recoveryFolder);
}

KXHA_API DWORD EnableVMBootInSafeBoot(const std::wstring& bootVolume, const std::wstring& systemDir, BYTE uefi) {
    return kx::guestfix::EnableVMBootInSafeBoot(bootVolume, systemDir, uefi);
}

KXHA_API DWORD GetWin2003BootDevice(RegistryHiveLoader* systemHive, std::wstring& device) {
    return kx::guestfix::GetWin2003BootDevice(kx::exports::Inner(systemHive), &device);
}

KXHA_API DWORD ResetPRTag(RegistryHiveLoader* hive, DWORD kind) {
    return kx::guestfix::ResetPRTag(kx::exports::Inner(hive), kind);
}
