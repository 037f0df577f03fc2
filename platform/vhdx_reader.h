// The VHDX port: a .vhdx or .avhdx file opened as a disk through the VHDX
// library (platform/vhdx) over Win32 files. The disk object has a file
// position, as a file does: reads and writes move a byte run at it and
// advance it. The default behind it is kx::vhdx::VhdxDisk; tests may put
// their own disks behind the same interface.
#pragma once

#include <windows.h>

#include <cstdint>
#include <memory>

#include "platform/vdisk.h"

namespace kx::vdisk {

class IVhdxDisk {
public:
    virtual ~IVhdxDisk() = default;
    // Cylinders, heads and sectors per track as the disk reports them, with
    // its logical sector size as bytes per sector.
    virtual DWORD GetGeometry(Geometry* geometry) = 0;
    virtual DWORD GetSize(ULONGLONG* bytes) = 0;
    virtual DWORD GetSectorSize(DWORD* bytes) = 0;
    // Any position up to the disk's size; 87 beyond it.
    virtual DWORD SetFilePosition(ULONGLONG offset) = 0;
    // `bytes` bytes at the position, which then moves past them. A run that
    // would pass the end of the disk moves nothing and gives 87 (38 for a
    // read that starts at the end).
    virtual DWORD Read(void* data, DWORD bytes, DWORD* done) = 0;
    virtual DWORD Write(const void* data, DWORD bytes, DWORD* done) = 0;
    // The MBR's disk signature (the 32-bit value at byte 440).
    virtual DWORD GetSignature(DWORD* signature) = 0;
    // Flushes what was written; the file is closed when the object goes.
    virtual DWORD Close() = 0;
};

// Opens a VHDX file (its parents, for a differencing disk, read-only). With
// `writable` the file is opened for reading and writing and shared only for
// reading; without it for reading, shared for reading and writing. 0 and a
// disk, or the failing code: the file's own (2 missing, 32 held by another
// open without sharing) or the VHDX library's for a damaged file.
DWORD OpenVhdxDisk(const wchar_t* path, bool writable, std::unique_ptr<IVhdxDisk>* disk);

}  // namespace kx::vdisk
