// Boot storage drivers for a converted guest that is not running, and the
// preparation of a guest for a start on EC2 (Xen).
//
// Injection writes into the guest's system hive the service entries of the
// generic IDE and SCSI drivers and the critical-device entries that bind
// the common IDE controllers to them, and extracts driver files the guest
// lacks into <Windows>\System32\Drivers: from the guest's driver store
// (System32\DriverStore\FileRepository, searched depth first) for Windows 6.x,
// from its driver cabinets (driver cache\<i386|amd64>\sp<n>.cab down to
// driver.cab, the architecture taken from system32\hal.dll) for older ones.
// Guests of Windows 6.2 and later are left alone.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// A boot-start driver service entry. `file` is the driver file checked for
// and extracted when missing (null: not checked).
struct DriverService {
    const wchar_t* name;
    DWORD errorControl;
    const wchar_t* group;
    DWORD tag;
    const wchar_t* imagePath;
    const wchar_t* file;
};

// The entries in the order they are treated. The symmpi entry's group
// "SCSI mimiport" and its ErrorControl 0 are as the guests expect them.
inline constexpr DriverService kAtapi{L"atapi", 1, L"SCSI miniport", 25, L"System32\\DRIVERS\\atapi.sys", nullptr};
inline constexpr DriverService kIntelIde{L"IntelIde", 1, L"System Bus Extender", 4, L"System32\\DRIVERS\\intelide.sys",
                                         L"IntelIde.sys"};
inline constexpr DriverService kPciIde{L"PCIIde", 1, L"System Bus Extender", 3, L"System32\\DRIVERS\\pciide.sys",
                                       nullptr};
inline constexpr DriverService kLsiScsi{L"LSI_SCSI", 1, L"SCSI miniport", 22, L"System32\\DRIVERS\\lsi_scsi.sys",
                                        L"lsi_scsi.sys"};
inline constexpr DriverService kSymmpi{L"symmpi", 0, L"SCSI mimiport", 21, L"System32\\DRIVERS\\symmpi.sys",
                                       L"symmpi.sys"};

inline constexpr const wchar_t* kHdcClass = L"{4D36E96A-E325-11CE-BFC1-08002BE10318}";
inline constexpr const wchar_t* kDiskClass = L"{4D36E967-E325-11CE-BFC1-08002BE10318}";
inline constexpr const wchar_t* kSystemClass = L"{4D36E97D-E325-11CE-BFC1-08002BE10318}";

struct CriticalDevice {
    const wchar_t* id;       // the key name below CriticalDeviceDatabase
    const wchar_t* service;  // null: no "Service" value
    const wchar_t* classGuid;
};

// The critical-device entries, written in this order.
inline constexpr CriticalDevice kCriticalDevices[] = {
    {L"primary_ide_channel", L"atapi", kHdcClass},
    {L"secondary_ide_channel", L"atapi", kHdcClass},
    {L"*pnp0600", L"atapi", kHdcClass},
    {L"*azt0502", L"atapi", kHdcClass},
    {L"gendisk", L"disk", kDiskClass},
    {L"pci#cc_0101", L"pciide", kHdcClass},
    {L"pci#ven_0e11&dev_ae33", L"pciide", kHdcClass},
    {L"pci#ven_1039&dev_0601", L"pciide", kHdcClass},
    {L"pci#ven_1039&dev_5513", L"pciide", kHdcClass},
    {L"pci#ven_1042&dev_1000", L"pciide", kHdcClass},
    {L"pci#ven_105a&dev_4d33", L"pciide", kHdcClass},
    {L"pci#ven_1095&dev_0640", L"pciide", kHdcClass},
    {L"pci#ven_1095&dev_0646", L"pciide", kHdcClass},
    {L"pci#ven_1095&dev_0646&REV_05", L"pciide", kHdcClass},
    {L"pci#ven_1095&dev_0646&REV_07", L"pciide", kHdcClass},
    {L"pci#ven_1095&dev_0648", L"pciide", kHdcClass},
    {L"pci#ven_1095&dev_0649", L"pciide", kHdcClass},
    {L"pci#ven_1097&dev_0038", L"pciide", kHdcClass},
    {L"pci#ven_10ad&dev_0001", L"pciide", kHdcClass},
    {L"pci#ven_10ad&dev_0150", L"pciide", kHdcClass},
    {L"pci#ven_10b9&dev_5215", L"pciide", kHdcClass},
    {L"pci#ven_10b9&dev_5219", L"pciide", kHdcClass},
    {L"pci#ven_10b9&dev_5229", L"pciide", kHdcClass},
    {L"pci#ven_1106&dev_0571", L"pciide", kHdcClass},
    {L"pci#ven_8086&dev_1222", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_1230", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_2411", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_2421", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_7010", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_7111", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_7199", L"intelide", kHdcClass},
    {L"*pnp0000", nullptr, kSystemClass},
    {L"*pnp0c01", nullptr, kSystemClass},
    {L"*pnp0c04", nullptr, kSystemClass},
    {L"*pnp0c0c", nullptr, kSystemClass},
    {L"pci#ven_8086&dev_244e", L"pci", kSystemClass},
    {L"pci#ven_8086&dev_24c3", nullptr, kSystemClass},
    {L"pci#ven_8086&dev_24cb", L"intelide", kHdcClass},
    {L"pci#ven_8086&dev_2560", nullptr, kSystemClass},
    {L"pci#ven_8086&dev_24c0", L"isapnp", kSystemClass},
};

// Writes the service entry `svc` below the open Services key: ErrorControl,
// Group, Start 0, Tag, Type 1, ImagePath (expandable), in this order, over
// whatever values of those names the key held (others are kept). 87 for an
// invalid key; otherwise 0 or the code of the first write that failed.
[[nodiscard]] DWORD AddDriverRegistryService(const hostutil::RegistryKey& services, const DriverService& svc);

// Writes the critical-device key `dev.id` below the open
// CriticalDeviceDatabase key: "Service" (when given), then "ClassGUID".
// 87 for an invalid key or a null id; the sub-key's code when it cannot be
// had; otherwise 0 or the first failed write's code.
[[nodiscard]] DWORD AddCriticalDevice(const hostutil::RegistryKey& database, const CriticalDevice& dev);

// True when <systemDir>\System32\Drivers holds a file (not a folder) named `file`.
bool DriverFilePresent(const std::wstring& systemDir, const std::wstring& file);

// The machine type of a PE image on disk: 0, ERROR_BAD_EXE_FORMAT for a
// file that is not a PE image, or the file's own open/read code.
[[nodiscard]] DWORD ReadImageMachine(const std::wstring& path, uint16_t* machine);

// Runs `expand.exe "<cab>" -F:<file> "<destFolder>"` and waits at most 30 s.
// 2 when it cannot be run or waited for (one still running at the timeout
// is terminated); otherwise expand's own exit code (0: extracted).
[[nodiscard]] DWORD RunExpand(const std::wstring& cab, const std::wstring& file, const std::wstring& destFolder);

// Puts `file` into <systemDir>\System32\Drivers from the guest's own
// sources (see the top of this file). 0 or the failing step's code. For
// guests older than 6.0 the cabinets are copied into the scratch folder
// <install path>\bin\temp (the host's temp folder when the install path is
// unknown), expanded there and the folder is removed with its content
// afterwards; cabinets are tried from the guest's service pack (at most 99)
// down to driver.cab. Expansion counts only when expand exits with 0 and
// the file is there. The copy into the guest is tried 6 times with a 10 s
// pause after each failure (platform::Pauses()). The scratch folder is one
// per installation: two extractions must not run at once.
[[nodiscard]] DWORD ExtractDriver(const std::wstring& systemDir, const std::wstring& file, DWORD major,
                                  DWORD servicePack);

// The exports' bodies, in the export frame. `system` / `software` are hives
// the caller loaded (null: loaded and unloaded here). A hive that neither
// the system nor the engine could open is reported like a failed load (the
// "Fail to load system registry hive" line) with the engine's code, and
// nothing is written.
[[nodiscard]] DWORD InjectIDEDriver(const std::wstring& systemDir);
[[nodiscard]] DWORD InjectIDEDriverEx(const std::wstring& systemDir, HiveLoader* system, HiveLoader* software);
[[nodiscard]] DWORD InjectSCSIDriver();
[[nodiscard]] DWORD InjectDriverForEC2Ex(const std::wstring& systemDir, HiveLoader* system);

}  // namespace kx::guestfix
