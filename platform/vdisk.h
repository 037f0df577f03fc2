// The virtual-disk port: disk objects with size, geometry, type, sector I/O
// and the bitmap call. The default behind it is the VHD library
// (platform/vhd); tests may put their own disks behind it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>

#include "KestrixHA/bitmap.h"

namespace kx::vdisk {

// Type codes of a disk, as the VHD footer numbers them.
inline constexpr DWORD kTypeFixed = 2;
inline constexpr DWORD kTypeDynamic = 3;
inline constexpr DWORD kTypeDifferencing = 4;
// The library's own code for a differencing disk of other formats.
inline constexpr DWORD kTypeDifferencingOther = 0x80000001;

struct Geometry {
    LONGLONG cylinders = 0;
    int mediaType = 0;  // 12: fixed media
    DWORD tracksPerCylinder = 0;
    DWORD sectorsPerTrack = 0;
    DWORD bytesPerSector = 0;
};

// The geometry of a fixed disk with these values.
inline Geometry FixedDiskGeometry(uint64_t cylinders, uint32_t heads, uint32_t sectorsPerTrack,
                                  uint32_t bytesPerSector) {
    return Geometry{static_cast<LONGLONG>(cylinders), 12, heads, sectorsPerTrack, bytesPerSector};
}

class IVDisk {
public:
    virtual ~IVDisk() = default;
    virtual DWORD GetSize(ULONGLONG* bytes) = 0;
    virtual DWORD GetGeometry(Geometry* geometry) = 0;
    virtual DWORD GetType(DWORD* type) = 0;
    // The sectors present in this disk file alone, from the byte that holds
    // `startSector` (start rounded down to a multiple of 8), at most
    // `byteCount` bytes; sectorCount is what is valid (0 at the end).
    virtual DWORD GetBitmap(LONGLONG startSector, DWORD byteCount, DiskBitmapBuffer* buffer) = 0;
    virtual DWORD ReadSectors(ULONGLONG firstSector, DWORD count, void* data) = 0;
    virtual DWORD WriteSectors(ULONGLONG firstSector, DWORD count, const void* data) = 0;
    // The size of the sectors ReadSectors and WriteSectors move: the
    // geometry's bytes per sector unless a disk knows better.
    virtual DWORD GetSectorSize(DWORD* bytes) {
        if (!bytes) return ERROR_INVALID_PARAMETER;
        Geometry g;
        if (const DWORD rc = GetGeometry(&g)) return rc;
        *bytes = g.bytesPerSector;
        return 0;
    }
};

// The 64-byte password block handed to an open (zeroed, a wide password of
// at most 23 characters and its terminating null).
struct PasswordBlock {
    BYTE bytes[64] = {};
};

// Opens a disk file. `access` is GENERIC_READ and/or GENERIC_WRITE, `share`
// the FILE_SHARE_* bits; the password block may be null. 0 and a disk, or
// the failing code.
DWORD CreateVHDFileEx(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                      std::unique_ptr<IVDisk>* disk);

// Opens a VHD or AVHD file of a Hyper-V VM, for reading and writing when
// `writable` (other openers may then only read it), else for reading (others
// may read and write). 0 and a disk, or the failing code (the file's own:
// 2 missing, 32 held by another open; or the VHD library's for a file that
// is not a VHD disk).
DWORD OpenVDisk_HyperV(const wchar_t* path, bool writable, std::unique_ptr<IVDisk>* disk);

// Creates a VHD file and opens it for reading and writing: a fixed or
// dynamic disk of `bytes` (kTypeFixed, kTypeDynamic), or a differencing disk
// (kTypeDifferencing) over the disk file `parent`, which the new file names
// by a path relative to its own folder and by its absolute path.
DWORD CreateVhd(const wchar_t* path, DWORD type, ULONGLONG bytes, const wchar_t* parent,
                std::unique_ptr<IVDisk>* disk);

}  // namespace kx::vdisk
