#include "disk/raw_layout.h"

#include <winioctl.h>

#include <cstddef>
#include <vector>

#include "log/debug_log.h"
#include "platform/disk_devices.h"

namespace kx::disk {

namespace {

constexpr DWORD kGptEntryBytes = 128;

// The empty layout of `style` for a disk of `geometry`, as the bytes
// IOCTL_DISK_SET_DRIVE_LAYOUT_EX takes.
std::vector<BYTE> EmptyLayout(uint32_t style, DWORD signature, const GUID& diskGuid,
                              const DISK_GEOMETRY_EX& geometry) {
    // An MBR layout always lists its four primary entries, unused or not.
    const DWORD count = style == kStyleMbr ? 4 : 0;
    const size_t bytes =
        offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry) + (count ? count : 1) * sizeof(PARTITION_INFORMATION_EX);
    std::vector<BYTE> buffer(bytes, 0);
    auto* layout = reinterpret_cast<DRIVE_LAYOUT_INFORMATION_EX*>(buffer.data());
    layout->PartitionCount = count;
    if (style == kStyleMbr) {
        layout->PartitionStyle = PARTITION_STYLE_MBR;
        layout->Mbr.Signature = signature;
        for (DWORD i = 0; i < count; ++i) {
            PARTITION_INFORMATION_EX& entry = layout->PartitionEntry[i];
            entry.PartitionStyle = PARTITION_STYLE_MBR;
            entry.RewritePartition = TRUE;
            entry.Mbr.PartitionType = PARTITION_ENTRY_UNUSED;
        }
        return buffer;
    }
    const ULONGLONG sector = geometry.Geometry.BytesPerSector;
    const ULONGLONG sectors = static_cast<ULONGLONG>(geometry.DiskSize.QuadPart) / sector;
    const ULONGLONG arraySectors = (kGptEntries * kGptEntryBytes + sector - 1) / sector;
    const ULONGLONG first = 2 + arraySectors;            // after the MBR, header and entry array
    const ULONGLONG last = sectors - 2 - arraySectors;   // before the backup array and header
    layout->PartitionStyle = PARTITION_STYLE_GPT;
    layout->Gpt.DiskId = diskGuid;
    layout->Gpt.StartingUsableOffset.QuadPart = static_cast<LONGLONG>(first * sector);
    layout->Gpt.UsableLength.QuadPart = static_cast<LONGLONG>((last - first + 1) * sector);
    layout->Gpt.MaxPartitionCount = kGptEntries;
    return buffer;
}

}  // namespace

DWORD WriteNewPartitionTable(const std::wstring& devicePath, uint32_t partitionStyle, uint32_t signature,
                             const GUID& diskGuid) {
    if (devicePath.empty() || (partitionStyle != kStyleMbr && partitionStyle != kStyleGpt))
        return ERROR_INVALID_PARAMETER;
    const platform::unique_device disk =
        platform::OpenDevice(devicePath, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (!disk) {
        const DWORD rc = LastErrorOr();
        Log(0, L"Failed to open disk %s, error %d", devicePath.c_str(), rc);
        return rc;
    }
    // The geometry first: a GPT's usable area depends on the sector size.
    DISK_GEOMETRY_EX geometry{};
    if (const DWORD rc = platform::DeviceControl(disk.get(), IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry,
                                                 sizeof(geometry))) {
        Log(0, L"Failed to get the geometry of disk %s, error %d", devicePath.c_str(), rc);
        return rc;
    }
    const ULONGLONG sector = geometry.Geometry.BytesPerSector;
    const ULONGLONG arraySectors = sector ? (kGptEntries * kGptEntryBytes + sector - 1) / sector : 0;
    if (sector < 512 || static_cast<ULONGLONG>(geometry.DiskSize.QuadPart) / sector < 2 * arraySectors + 4) {
        Log(0, L"Failed to get the geometry of disk %s, error %d", devicePath.c_str(),
            static_cast<DWORD>(ERROR_INVALID_DATA));
        return ERROR_INVALID_DATA;
    }
    CREATE_DISK create{};
    if (partitionStyle == kStyleMbr) {
        create.PartitionStyle = PARTITION_STYLE_MBR;
        create.Mbr.Signature = signature;
    } else {
        create.PartitionStyle = PARTITION_STYLE_GPT;
        create.Gpt.DiskId = diskGuid;
        create.Gpt.MaxPartitionCount = kGptEntries;
    }
    if (const DWORD rc = platform::DeviceControl(disk.get(), IOCTL_DISK_CREATE_DISK, &create, sizeof(create), nullptr, 0)) {
        Log(0, L"Failed to create disk, Error %d.", rc);
        return rc;
    }
    std::vector<BYTE> layout = EmptyLayout(partitionStyle, signature, diskGuid, geometry);
    if (const DWORD rc = platform::DeviceControl(disk.get(), IOCTL_DISK_SET_DRIVE_LAYOUT_EX, layout.data(),
                                                 static_cast<DWORD>(layout.size()), nullptr, 0)) {
        LogErr(0, rc, L"Failed to set disk layout for %s.", devicePath.c_str());
        return rc;
    }
    Log(2, L"New %s partition table written to %s.", partitionStyle == kStyleMbr ? L"MBR" : L"GPT", devicePath.c_str());
    return 0;
}

}  // namespace kx::disk
