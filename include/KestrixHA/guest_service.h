// Services of an offline Windows guest: a general service registration and
// the helper service that finishes a converted guest on its first start.
//
// A service is written the way the service manager keeps one: in
// <set>\Services\<name> of every control set the guest boots from (the
// non-zero "Current", "Default", "LastKnownGood" and "Failed" of \Select;
// a named set the hive lacks is logged and passed over) with Type 0x10
// (own process), Start, ErrorControl 1, ImagePath (REG_EXPAND_SZ, quoted
// when it holds a blank), ObjectName "LocalSystem", DisplayName,
// Description, FailureActions (restart after 60 s on the first two
// failures, nothing later, count reset after a day) and Security\Security
// (a self-relative descriptor: owner and group LocalSystem, full control
// for LocalSystem and Administrators, query/start/stop for interactive and
// service users). Existing values are overwritten with the same data, so a
// second call leaves the hive as the first left it.
//
// Hive load failures return the load's code (10 for a missing hive, 1009
// for a file that is not a hive). 87 for bad arguments.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// Any service, registered only: no file is copied and no safe-boot entry is
// made. Over the helper family it adds the choice of name (no backslash),
// display name (empty: the name), binary path as the guest sees it
// ("%SystemRoot%\..." or "C:\..."), start type 0..4 and "DependOnService"
// (empty: the value is removed). `system` may be null (loaded here).
// ERROR_FILE_NOT_FOUND (2) when the hive has none of its boot control sets.
KXHA_API DWORD RVCM_InjectServiceToHive(const std::wstring& systemDir, const std::wstring& name,
                                        const std::wstring& displayName, const std::wstring& imagePath,
                                        DWORD startType, const std::vector<std::wstring>& dependencies,
                                        RegistryHiveLoader* system);

// The helper service "qlnvmhelpersvc": the top-level files of `sourceDir`
// (sub-folders are not copied; it must hold qlnvmhelpersvc.exe) copied to
// <systemDir>\System32\qlnvmhelpersvc\, files already there with the same
// bytes left alone; then the service registered as above, automatic start,
// binary "%SystemRoot%\System32\qlnvmhelpersvc\qlnvmhelpersvc.exe", and
// allowed in safe boot with networking (the key qlnvmhelpersvc under
// <set>\Control\SafeBoot\Network, default value "Service") in every boot
// control set.
// Codes: 3 (ERROR_PATH_NOT_FOUND) for a missing source folder, 2 when it
// has no qlnvmhelpersvc.exe, the copy's code (5 for a guest folder that
// cannot be written), the hive's or the registry's code. The hive is
// loaded before any file is copied; when the registry step fails, the
// files copied are deleted again, files replaced get their old bytes back
// and a folder created is removed.
KXHA_API DWORD Ivm_InjectHelperServiceToHive(const std::wstring& systemDir, const std::wstring& sourceDir);
// The same on a system hive loaded by GetSystemHiveKeyEx (null: loaded here).
KXHA_API DWORD Ivm_InjectHelperServiceToHiveEx(const std::wstring& systemDir, const std::wstring& sourceDir,
                                               RegistryHiveLoader* system);
// The injection, then, logged between "Try to enable Terminal Service and
// firewall rules." and "Finish enabling Terminal Service and firewall
// rules.", EnableTerminalService on the same hives (null: loaded there).
// The injection's code when it fails, else EnableTerminalService's.
KXHA_API DWORD Ivm_InjectHelperServiceToHiveForVsb(const std::wstring& systemDir, const std::wstring& sourceDir,
                                                   RegistryHiveLoader* system, RegistryHiveLoader* software);
