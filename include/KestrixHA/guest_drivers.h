// Boot storage drivers for an offline Windows guest, and its preparation for
// a start on EC2 (Xen).
//
// `systemDir` is the guest's Windows folder on the mounted disk (with or
// without a trailing backslash; spaces and any Unicode characters are fine
// in it, in the install path and in the cabinet folders: every path is
// passed as a whole, quoted on the expand command line).
//
// What InjectIDEDriver writes, in the guest's current control set of its
// system hive, for guests older than Windows 6.2 (6.2 and later: nothing,
// 0):
//   - 40 keys below Control\CriticalDeviceDatabase binding the common IDE
//     controllers and system devices to their drivers (created when absent,
//     their "Service" and "ClassGUID" values overwritten);
//   - the boot-start services atapi and PCIIde; IntelIde when intelide.sys is
//     in System32\Drivers or could be extracted; LSI_SCSI (6.x) or symmpi
//     (older) when its file is there or could be extracted. Existing service
//     keys keep their other values.
// Missing driver files are taken from the guest's driver store (6.x) or from
// its driver cabinets, expanded with the expand.exe the host finds for the
// calling program (its own folder first, then the system's). A copy into
// the guest that fails is retried for about a minute.
//
// Results: 0; 10 when the guest's system hive is missing; a load's or
// privilege's code; the engine's code for a hive file that neither the
// system nor the library's hive engine accepts (then nothing is written and
// the file stays as it was); 87 when the control set has no Services key;
// the registry's code of a service entry that could not be written. A
// dirty hive the engine holds read-only gives 5 (access denied).
#pragma once

#include <string>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// Loads the guest's software hive (its version) and system hive itself and
// unloads them before returning.
KXHA_API DWORD InjectIDEDriver(const std::wstring& systemDir);
// The same on hives the caller loaded with GetSystemHiveKeyEx /
// GetSoftwareHiveKeyEx (either may be null: it is then loaded here). Given
// hives stay loaded; with the engine, the changes reach the file when the
// caller deletes the loader.
KXHA_API DWORD InjectIDEDriverEx(const std::wstring& systemDir, RegistryHiveLoader* systemHive,
                                 RegistryHiveLoader* softwareHive);
// Kept for callers of older versions: does nothing and returns 0.
KXHA_API DWORD InjectSCSIDriver();
// For a guest to be started on EC2: where the keys exist, sets
// Services\rhelscsi "EnumerateDevices" = 0, Control\TimeZoneInformation
// "RealTimeIsUniversal" = 1 (and "Start" = 2 on that same key), and
// Services\W32Time "DelayedAutostart" = 1. Those writes are only logged; 0
// once the hive is loaded, else the load's code as for InjectIDEDriver.
KXHA_API DWORD InjectDriverForEC2Ex(const std::wstring& systemDir, RegistryHiveLoader* systemHive);
