// Repair of a virtual disk's CHS geometry before it boots on Hyper-V.
//
// A disk converted from a backup keeps the geometry of the machine it came
// from in two places that a BIOS boot still reads: the boot volume's boot
// sector (sectors per track, number of heads, hidden sectors) and the CHS
// addresses of the MBR's active entry. These calls rewrite both inside the
// disk file (VHD or VHDX) to what Hyper-V presents.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>

#include "platform/vdisk.h"
#include "platform/vhdx_reader.h"

namespace kx::hyperv {

// The geometry the repair writes.
struct ChsGeometry {
    int64_t cylinders = 0;
    uint32_t heads = 0;
    uint32_t sectorsPerTrack = 0;
    uint32_t bytesPerSector = 0;
};

// What Hyper-V presents for a disk of `size` bytes: 1024 cylinders, 63
// sectors per track, and 128 heads up to 1024 x 128 x 63 sectors (a size of
// 0 excepted), 255 above.
ChsGeometry TargetGeometry(uint64_t size, uint32_t bytesPerSector);

// Repairs the boot sector of the volume at byte `volumeOffset` of the disk
// file `path` and the MBR's active entry. The extension picks the format:
// ".vhd" and ".avhd" (any case) open the file as VHD, any other as VHDX; an
// empty path or one without a "." is 0 and opens nothing. `volumeName` is
// only printed. `foundBootable` (optional) tells whether the MBR has an
// active entry; without one the disk is left as it is and the result is 0.
// Otherwise 0 or the code of the open, position, read or write that failed.
DWORD AdjustDiskVolumeCHS(const wchar_t* path, const wchar_t* volumeName, uint64_t volumeOffset,
                          bool* foundBootable);

// The exported call: the same inside the export's frame.
DWORD AdjustVirtualDiskVolumeCHS(const wchar_t* path, const wchar_t* volumeName, uint64_t volumeOffset);

namespace testing {
// Puts other opens of the two formats in place (null restores the
// platform's own), so that tests can put failing disks behind them.
using VhdOpen = DWORD (*)(const wchar_t* path, bool writable, std::unique_ptr<vdisk::IVDisk>* disk);
using VhdxOpen = DWORD (*)(const wchar_t* path, bool writable, std::unique_ptr<vdisk::IVhdxDisk>* disk);
void SetDiskOpens(VhdOpen vhd, VhdxOpen vhdx) noexcept;
}  // namespace testing

}  // namespace kx::hyperv
