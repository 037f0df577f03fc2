// Boot configuration and safe boot of an offline Windows guest.
//
// Paths are wide strings; a boot volume or boot directory is a folder of
// the host where the guest's boot volume is mounted, and the system
// directory is the guest's Windows folder (see KestrixHA/guest.h for how a
// guest's hives are loaded).
//
// Choices made here:
// - The recovery core library is loaded by its file name "RecoveryCore.DLL"
//   with the system's search order, and only for the call. Its export
//   DrUnCompressFile is taken as
//       DWORD WINAPI DrUnCompressFile(const wchar_t* compressedFile,
//                                     const wchar_t* destinationFolder);
//   returning 0 or an error code (WINAPI is the natural convention of a
//   Windows DLL's export; on x64 there is only one).
// - EnableVMBootInSafeBoot edits the guest's BCD store with bcdedit.exe
//   when the host's command interpreter finds it (current folder, then the
//   PATH); the command is "bcdedit.exe /store <store> /set {default}
//   safeboot network" with the store path unquoted, and its status alone
//   decides. When bcdedit.exe cannot be found (a stripped host image), the
//   store, itself a registry hive, is edited directly: the boot manager's
//   default entry gets its safe-boot element (25000080) set to network (1)
//   as an 8-byte little-endian REG_BINARY. Either way a failed edit
//   returns 110 and the guest's system hive is left alone; the direct edit
//   is never a second try after a failed bcdedit run.
// - GetWin2003BootDevice answers 87 for a null hive and the registry's
//   code (2 when absent) when the control set's Control key does not open.
// - ResetPRTag counts a marker key that does not exist like markers that
//   do not: nothing to reset, 0.
#pragma once

#include <string>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// Unpacks "<recoveryFolder>\AdrInfoC.drz" into "<recoveryFolder>\ADRINFOC"
// with the recovery core, copies its "BCD" over
// bootDir + "EFI\Microsoft\Boot\BCD" (bootDir must end in a backslash:
// none is put in), repairs the copy's header when its last write did not
// complete, and removes the unpack folder (files only: a sub-folder in it
// makes the removal fail, with its code). 0 or the failing step's code.
KXHA_API DWORD InjectBCDFile(const std::wstring& bootDir, const std::wstring& recoveryFolder);

// Makes the guest start once in safe mode with networking: edits the BCD
// store of `bootVolume` ("EFI\Microsoft\Boot\BCD" when `uefi` is non-zero,
// else "Boot\BCD"), then registers the guest helper service for safe mode
// and sets its "SetSafeBootFirst" flag in the guest's system hive. 87 on a
// host older than Vista or for an empty boot volume, 110 when the store's
// edit fails, else the hive step's result.
KXHA_API DWORD EnableVMBootInSafeBoot(const std::wstring& bootVolume, const std::wstring& systemDir, BYTE uefi);

// The "SystemBootDevice" string of a Windows Server 2003 guest's current
// control set, from its loaded system hive (required).
KXHA_API DWORD GetWin2003BootDevice(RegistryHiveLoader* systemHive, std::wstring& device);

// Deletes the seven markers a recovery test leaves ("IVM_NETWORK_READY",
// "IVM_PR_SCRIPT", ...): kind 0 from the guest's environment (the loaded
// system hive), kind 1 from its Hyper-V guest data (the loaded software
// hive). 87 for a null hive or another kind; absent markers are no failure.
KXHA_API DWORD ResetPRTag(RegistryHiveLoader* hive, DWORD kind);
