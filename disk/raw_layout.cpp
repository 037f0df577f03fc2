#include "disk/raw_layout.h"

#include "log/debug_log.h"
#include "platform/disk_devices.h"

namespace kx::disk {

DWORD WriteNewPartitionTable(const std::wstring& devicePath, uint32_t partitionStyle, uint32_t signature,
                             const GUID& diskGuid) {
    if (devicePath.empty() || (partitionStyle != kStyleMbr && partitionStyle != kStyleGpt))
        return ERROR_INVALID_PARAMETER;
    platform::TableStep step = platform::TableStep::kOpen;
    const DWORD rc =
        platform::WriteEmptyPartitionTable(devicePath, partitionStyle == kStyleGpt, signature, diskGuid, &step);
    if (rc == 0) {
        Log(2, L"New %s partition table written to %s.", partitionStyle == kStyleMbr ? L"MBR" : L"GPT",
            devicePath.c_str());
        return 0;
    }
    switch (step) {
        case platform::TableStep::kOpen:
            Log(0, L"Failed to open disk %s, error %d", devicePath.c_str(), rc);
            break;
        case platform::TableStep::kGeometry:
            Log(0, L"Failed to get the geometry of disk %s, error %d", devicePath.c_str(), rc);
            break;
        case platform::TableStep::kCreate:
            Log(0, L"Failed to create disk, Error %d.", rc);
            break;
        case platform::TableStep::kLayout:
            LogErr(0, rc, L"Failed to set disk layout for %s.", devicePath.c_str());
            break;
    }
    return rc;
}

}  // namespace kx::disk
