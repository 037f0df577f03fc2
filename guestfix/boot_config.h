// Boot configuration of a converted guest: its BCD store put in place from
// the backup's recovery information, one start in safe mode with
// networking (with the guest helper service allowed to run then), the boot
// device a Windows Server 2003 guest records, and the markers a recovery
// test leaves in a guest.
#pragma once

#include <windows.h>

#include <string>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// The guest helper service, its safe-boot entry and the flag it reads.
inline constexpr const wchar_t* kHelperService = L"qlnvmhelpersvc";
inline constexpr const wchar_t* kSafeBootFirst = L"SetSafeBootFirst";

// A BCD store's boot manager object, the element that names its default
// entry (a GUID string in "Element") and the safe-boot element of a Windows
// boot loader (an 8-byte little-endian integer in "Element": 0 minimal,
// 1 network, 2 directory repair).
inline constexpr const wchar_t* kBootManagerObject = L"{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
inline constexpr const wchar_t* kDefaultObjectElement = L"23000003";
inline constexpr const wchar_t* kSafeBootElement = L"25000080";
inline constexpr ULONGLONG kSafeBootNetwork = 1;

// Unpacks "<recoveryFolder>\AdrInfoC.drz" with the recovery core library
// into "<recoveryFolder>\ADRINFOC", copies the "BCD" found there over
// bootDir + "EFI\Microsoft\Boot\BCD" (bootDir must end in a backslash: none
// is put in), repairs the copy's header like a guest hive's, and removes the
// unpack folder. 0 or the failing step's code.
[[nodiscard]] DWORD InjectBCDFile(const std::wstring& bootDir, const std::wstring& recoveryFolder);

// Makes the guest start once in safe mode with networking. 87 on a host
// older than Vista or for an empty boot volume, 110 when the BCD store's
// edit fails (the guest's hive is not touched then), else SetSafeBootFirst's
// result. With bcdedit.exe on the PATH the store is edited by it and its
// status alone decides; without it the store, a registry hive, is edited
// through the hive loader (the default entry of the boot manager gets its
// safe-boot element set to network).
[[nodiscard]] DWORD EnableVMBootInSafeBoot(const std::wstring& bootVolume, const std::wstring& systemDir, BYTE uefi);

// The store of a boot volume: "<volume>\EFI\Microsoft\Boot\BCD" (UEFI) or
// "<volume>\Boot\BCD"; a backslash is put in only where the volume lacks one.
std::wstring BcdStorePath(const std::wstring& bootVolume, bool uefi);

// The offline form of "bcdedit /store <store> /set {default} safeboot
// network". 0 or the code of the step that failed (the store not loaded,
// no default entry, the write or the store's write-back refused).
[[nodiscard]] DWORD SetBcdSafeBootOffline(const std::wstring& storePath);

// Registers the helper service for safe mode with networking (its sub-key
// of Control\SafeBoot\Network, default value "Service", made only when
// absent) and sets its "SetSafeBootFirst" to 1 (every time). Works on
// `system` when given, else loads the guest's system hive. Returns the
// result of the last step, the flag's write (a failed safe-boot entry is
// logged and the flag is still written).
[[nodiscard]] DWORD SetSafeBootFirst(HiveLoader* system, const std::wstring& systemDir);

// Deletes the files of `folder` and then the folder. Sub-folders are not
// entered: a folder holding one is left and the removal's code returned.
[[nodiscard]] DWORD RemoveFolder(const std::wstring& folder);

// The string "SystemBootDevice" of the current control set's Control key.
// 87 for a null hive; the open's code when the key does not open; else the
// read's code (`*device` empty unless it succeeds).
[[nodiscard]] DWORD GetWin2003BootDevice(HiveLoader* system, std::wstring* device);

// Deletes the seven recovery-test markers: kind 0 from the guest's
// environment (system hive, current control set read strictly), kind 1 from
// its Hyper-V guest data (software hive, Microsoft\Virtual Machine\Guest).
// 87 for a null hive or another kind. Absent markers are not failures; the
// last other failure is the result and the remaining markers are still
// deleted. A key that does not open fails each deletion with its open code
// (so an absent key, like absent values, is a success).
[[nodiscard]] DWORD ResetPRTag(HiveLoader* hive, DWORD kind);

// The markers, in the order they are deleted.
inline constexpr const wchar_t* kRecoveryTestMarkers[] = {
    L"IVM_NETWORK_READY", L"IVM_PR_SCRIPT",     L"IVM_PR_EXIT_CODE", L"IVM_PR_ERROR_CODE",
    L"IVM_PR_PROCESS_ID", L"IVM_PR_START_TIME", L"IVM_PR_END_TIME"};

}  // namespace kx::guestfix
