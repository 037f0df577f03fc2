// The boot volume of a Hyper-V VM made from a backup, found through the VM's
// disk chain, and the repair of its boot code before the VM first boots.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "hyperv/disk_chain.h"

namespace kx::hyperv {

// Where a disk's boot volume starts.
struct BootVolume {
    std::wstring disk;    // the disk file
    uint64_t offset = 0;  // byte offset of the volume in the disk
    int entry = -1;       // its MBR entry, 0..3
};

// Reads sector 0 of a ".vhd"/".avhd"/".vhdx"/".avhdx" file (read-only,
// sharing reads and writes, so a running VM does not stand in the way). A
// master boot record (0x55 0xAA at its end) whose first active entry (status
// 0x80) has a non-zero first LBA gives that volume: the LBA times the disk's
// logical sector size. 0 with volume->entry -1 when there is none; the
// open's or read's code otherwise.
DWORD FindActiveVolume(const std::wstring& disk, BootVolume* volume);

// The export: see include/KestrixHA/hyperv.h.
DWORD AdjustVolumeBootCode_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid, DWORD diskSignature);

}  // namespace kx::hyperv
