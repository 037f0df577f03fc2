// VMware guest support: what a conversion to a VMware VM needs to know of
// the proxy and of the guest, and the installers it runs.
//
// Every call is synchronous, logs a start and an end line with its result,
// and returns 0 or a Win32 code. "Not installed" is an answer with a code
// of its own, never a silent empty string.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// ---- VDDK -------------------------------------------------------------------
// The file version ("major.minor.build.revision", from the version
// resource's fixed file version, not its text) of the VDDK library
// vixDiskLib.dll. Looked for, first found wins:
//   1. the REG_SZ "VddkPath" under HKLM\SOFTWARE\Veltrana\Quillon\Engine:
//      the library file itself, or a folder that holds it directly or in
//      its "bin" sub-folder (a value naming nothing is logged and skipped);
//   2. the product's install folder: "<install>\VDDK\bin\vixDiskLib.dll";
//   3. "<Program Files>\VMware\VMware Virtual Disk Development Kit\bin\"
//      and the same below "Program Files (x86)".
// `libraryPath` (optional) gets the file that was read.
// 0; 1614 (ERROR_PRODUCT_UNINSTALLED) when no library is found anywhere;
// the system's code when the file has no readable version resource
// (1812 or 1813 for a PE without one, 193 ERROR_BAD_EXE_FORMAT, ...).
KXHA_API DWORD GetVddkVersion(std::wstring& version, std::wstring* libraryPath);

// ---- guest OS identifier ----------------------------------------------------
// The identifier a VMware VM's configuration uses for a Windows guest
// ("guestOS"), from the guest's version, build, edition and architecture
// (`architecture`: 0 x86, 9 x64, as GetHostCPUArchitecture). Known:
//   5.0        2000 Professional / Server         win2000ProGuest, win2000ServGuest (x86)
//   5.1        XP                                  winXPProGuest (x86)
//   5.2 client XP x64                              winXPPro64Guest (x64)
//   5.2 server Server 2003 (R2)                    winNetStandardGuest, winNetStandard64Guest
//   6.0        Vista / Server 2008                 winVista[64]Guest, winLonghorn[64]Guest
//   6.1        7 / Server 2008 R2                  windows7Guest, windows7_64Guest, windows7Server64Guest
//   6.2, 6.3   8, 8.1 / Server 2012 (R2)           windows8Guest, windows8_64Guest, windows8Server64Guest
//   10.0 client build <  22000: 10                 windows9Guest, windows9_64Guest
//               build >= 22000: 11                 windows11_64Guest (x64)
//   10.0 server build <  17763: 2016               windows9Server64Guest
//               17763 .. 20347: 2019               windows2019srv_64Guest
//               20348 .. 26099: 2022               windows2019srvNext_64Guest
//               build >= 26100: 2025               windows2022srvNext_64Guest
// A 10.0 build below its first release (0 when unknown) counts as the
// first. Server releases from 2008 R2 on, Windows 11, and 2000, XP and
// 2003 in the architectures they never shipped in are not known.
// 0 with the identifier; for anything not known 1168 (ERROR_NOT_FOUND) with
// the fallback "otherGuest64" (x64 and other architectures) or "otherGuest"
// (x86) in `guestId`, which a VM can still be made with.
KXHA_API DWORD GetGuestID(DWORD major, DWORD minor, DWORD build, bool server, DWORD architecture,
                          std::wstring& guestId);

// What GetGuestIDEx read of a guest.
struct KxWindowsRelease {
    DWORD major, minor, build;
    bool server;
    DWORD architecture;  // 0 x86, 9 x64, 12 Arm64, 6 Itanium, 0xFFFF not known
};
// The same for an offline guest, from its hives (`software` and `system`
// from GetSoftwareHiveKeyEx / GetSystemHiveKeyEx stay loaded; a null one is
// loaded from <systemDir> and unloaded before the return):
// - version: "CurrentMajorVersionNumber" and "CurrentMinorVersionNumber" of
//   the software hive's Microsoft\Windows NT\CurrentVersion where present
//   (10.0 and later keep "CurrentVersion" at "6.3"), else "CurrentVersion";
//   build: "CurrentBuildNumber";
// - edition: the system hive's Control\ProductOptions "ProductType" (WinNT
//   a client; ServerNT, LanmanNT a server), else "InstallationType"
//   ("Client" or a server kind), else client;
// - architecture: Control\Session Manager\Environment
//   "PROCESSOR_ARCHITECTURE" (x86, AMD64, ARM64, IA64; absent: not known).
// `release` (optional) gets what was read. Results as GetGuestID, and the
// hive load's code (10 for a missing hive file); 87 for an empty
// `systemDir` without both hives.
KXHA_API DWORD GetGuestIDEx(const std::wstring& systemDir, RegistryHiveLoader* software, RegistryHiveLoader* system,
                            std::wstring& guestId, KxWindowsRelease* release);

// ---- .NET Framework -----------------------------------------------------------
// The .NET Framework versions installed, from the keys below
// "SOFTWARE\Microsoft\NET Framework Setup\NDP":
//   v1.1.4322 "Install"=1 -> "1.1";  v2.0.50727 "Install"=1 -> "2.0";
//   v3.0\Setup "InstallSuccess"=1 (or v3.0 "Install"=1) -> "3.0";
//   v3.5 "Install"=1 -> "3.5";
//   v4\Full: "Release" against the smallest release number of each version
//   (378389 4.5, 378675 4.5.1, 379893 4.5.2, 393295 4.6, 394254 4.6.1,
//   394802 4.6.2, 460798 4.7, 461308 4.7.1, 461808 4.7.2, 528040 4.8,
//   533320 4.8.1; anything higher is 4.8.1, an update of it); without
//   "Release" but "Install"=1 -> "4.0"; v4\Client alone "Install"=1 -> "4.0".
// `highest` gets the newest ("" when none), `installed` (optional) all of
// them from oldest to newest. 0; 1614 (ERROR_PRODUCT_UNINSTALLED) when none
// is installed; the registry's code when the NDP key cannot be read for
// another reason than its absence.
// This form reads the host's registry.
KXHA_API DWORD getDotNetVersion(std::wstring& highest, std::vector<std::wstring>* installed);
// The same in an offline guest: its software hive, `software` when given
// (GetSoftwareHiveKeyEx; it stays loaded), otherwise loaded from
// <systemDir>\system32\config\software and unloaded before the return (10
// when that file is missing).
KXHA_API DWORD getDotNetVersionEx(const std::wstring& systemDir, RegistryHiveLoader* software, std::wstring& highest,
                                  std::vector<std::wstring>* installed);

// ---- VMware Tools in a running guest -------------------------------------------
// The state of the "VMTools" service through the service control manager:
// 0 (kVmToolsNotInstalled) when the service does not exist, otherwise the
// service's current state as the system reports it: 1 stopped, 2 start
// pending, 3 stop pending, 4 running, 5 continue pending, 6 pause pending,
// 7 paused (SERVICE_STOPPED ... SERVICE_PAUSED). 0, or the system's code
// when the service control manager or the service cannot be queried
// (then `*status` is 0).
enum : DWORD { kVmToolsNotInstalled = 0 };
KXHA_API DWORD CheckVMToolStatus(DWORD* status);

// ---- installers ---------------------------------------------------------------
// Run an installer silently on this machine, wait for it (at most 30
// minutes; one still running then is ended) and report how it ended.
//   InstallVMwareTools: `setup` is VMware Tools' setup program, or a folder
//     (the root of the tools' disc) holding setup64.exe or setup.exe, first
//     found; run as "<setup>" /S /v "/qn REBOOT=R" (no user interface, no
//     restart by the installer).
//   InstallIntegrationService: `setup` is the Hyper-V integration services'
//     setup program, or a folder (the root of their disc) holding
//     support\amd64\setup.exe or setup.exe; run as "<setup>" /quiet /norestart.
// `exitCode` (optional) gets the installer's exit code (0 when it did not
// run). Result:
//   0      installed;
//   3010   (ERROR_SUCCESS_REBOOT_REQUIRED) installed, a restart completes it;
//   1641   (ERROR_SUCCESS_REBOOT_INITIATED) installed, the installer started
//          a restart;
//   2      (ERROR_FILE_NOT_FOUND) no installer there; nothing was started;
//   87     an empty path;
//   1067   (ERROR_PROCESS_ABORTED) the installer could not be started, or
//          was ended at the time limit;
//   any other exit code of the installer, unchanged (1603 a failed
//   install, 1618 another installation in progress, ...).
KXHA_API DWORD InstallVMwareTools(const std::wstring& setup, DWORD* exitCode);
KXHA_API DWORD InstallIntegrationService(const std::wstring& setup, DWORD* exitCode);
