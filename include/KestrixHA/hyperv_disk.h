// Disk geometry and boot sector repair of a virtual disk that is to boot on
// Hyper-V.
//
// A disk converted from a backup carries the CHS geometry of the machine it
// came from. A BIOS boot reads it in two places: the boot volume's boot
// sector (sectors per track at 0x18, number of heads at 0x1A, hidden sectors
// at 0x1C) and the CHS addresses of the MBR's first active entry. The repair
// rewrites both in the disk file itself.
//
// Format: by the path's last ".": ".vhd" and ".avhd" (any case) open the
// file as VHD, anything else (".vhdx", ".avhdx", ...) as VHDX. An empty or
// null path, or one without a ".", is 0 and opens nothing. The file is opened
// for reading and writing, shared only for reading: a file another program
// holds open gives 32, a missing one 2, a file that is not a disk of its
// format the disk library's code (0xC03Axxxx). A disk without an active MBR
// entry is left as it is and the result is 0.
//
// Geometry Hyper-V presents: 1024 cylinders, 63 sectors per track, and 128
// heads for a disk of at most bytes-per-sector x 1024 x 128 x 63 bytes, else
// 255. Hidden sectors: the volume's byte offset divided by the disk's sector
// size.
// - VHDX: a boot sector that already has 63, the heads and the hidden
//   sectors is left as it is, and so is the MBR. Otherwise the fields that
//   differ are written (the hidden sectors only while they fit below
//   0xFFFFFFFF) and the active entry gets the CHS addresses of its first
//   sector and of the sector just past it in the 1024-cylinder geometry.
// - VHD: a boot sector that has 63 and the heads but other hidden sectors is
//   left as it is, and so is the MBR (result 0). Otherwise the fields that
//   differ are written, and the active entry is rewritten in the geometry
//   the VHD footer gives the disk, whether the boot sector changed or not.
// In both, an entry that starts past the geometry's last sector gets that
// sector as its start and end, one that ends past it gets it as its end;
// cylinders above 1023 keep their low ten bits.
//
// Results: 0, or the code of the open, position, read or write that failed;
// 13 when the disk reports a geometry without heads or sectors per track.
//
// The class: stateless, without data members, so its layout is no part of
// the interface; a caller may keep it anywhere, on the stack too. The
// library keeps nothing between calls. Its one operation also says whether
// the MBR has an active entry. No exception leaves it.
#pragma once

#include "KestrixHA/api.h"

class KXHA_CLASS CAdjustBootCfg_HyperV {
public:
    // `path`: the disk file; `volumeName`: printed in the log only;
    // `volumeOffset`: the boot volume's byte offset in the disk;
    // `foundBootable` (may be null): true when the MBR has an active entry.
    DWORD AdjustDiskVolumeCHS(const wchar_t* path, const wchar_t* volumeName, ULONGLONG volumeOffset,
                              bool* foundBootable);
};

// The repair as a plain call (start and end lines in the debug log).
KXHA_API DWORD AdjustVirtualDiskVolumeCHS(const wchar_t* diskPath, const wchar_t* volumeName,
                                          ULONGLONG volumeOffset);
