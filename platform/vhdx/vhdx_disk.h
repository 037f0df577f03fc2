// A VHDX disk: fixed, dynamic or differencing, opened over a positioned file
// (the same file layer as the VHD library). Reads of a differencing disk
// fall through to its parent chain; writes stay inside the file's blocks,
// allocating a block at the end of the file when it is first written, with
// the change to the block allocation table made crash-safe through the
// file's log. A file whose log holds entries is replayed before any read:
// in memory when opened read-only, into the file when opened for writing.
// Every structure read from the file is checked before use: a damaged or
// hostile file gives a status, never an access out of bounds.
//
// Status codes are those of the VHD library (platform/vhd/vhd_status.h):
// kNotVirtualDisk (no file identifier), kInvalidFileSize (shorter than its
// fixed structures or than its log says it was), kFooterChecksumMismatch /
// kFooterCorrupt / kFormatUnsupportedVersion (headers), kSparseHeader*
// (region table), kMetadataReadFailure (metadata, or a log that cannot be
// replayed), kInvalidBlockSize, kInvalidSize (sector sizes, virtual size),
// kBlockAllocationTableCorrupt (entries past the file's end, overlapping or
// in impossible states), kParentNotFound, kChildParentIdMismatch,
// kChildParentSizeMismatch, kChainCycleDetected, kChainErrorInParent; the
// file layer's own failures pass through unchanged.
// One disk object may be used from several threads; calls are serialised.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/vhd/positioned_io.h"
#include "platform/vhd/vhd_status.h"

namespace kx::vhdx {

using vhd::FileSystem;
using vhd::PositionedFile;
using vhd::Status;
using Guid = std::array<uint8_t, 16>;

enum class DiskKind : uint32_t { kFixed = 2, kDynamic = 3, kDifferencing = 4 };

// The geometry a VHDX disk reports. The format stores none: it is the VHD
// rule for CHS applied to the disk's logical sectors, with the logical
// sector size as bytes per sector.
struct Geometry {
    uint64_t cylinders = 0;
    uint32_t heads = 0;
    uint32_t sectorsPerTrack = 0;
    uint32_t bytesPerSector = 512;
};

struct CreateParams {
    DiskKind kind = DiskKind::kDynamic;
    uint64_t size = 0;                  // bytes, a multiple of the logical sector size; ignored for differencing
    uint32_t blockSize = 32u << 20;     // 1 MiB .. 256 MiB, a power of two
    uint32_t logicalSectorSize = 512;   // 512 or 4096; differencing disks take the parent's
    uint32_t physicalSectorSize = 4096; // 512 or 4096
    std::u16string parentPath;          // differencing only
};

class VhdxDisk {
public:
    // Opens the disk in `file`, found at `path` (used to resolve the parent
    // locator of a differencing disk, whose parents `fs` opens read-only).
    static Status Open(std::unique_ptr<PositionedFile> file, const std::u16string& path, bool writable, FileSystem& fs,
                       std::unique_ptr<VhdxDisk>* disk);
    // Creates a new disk file at `path` and opens it for writing. A creation
    // that fails removes the half-written file.
    static Status Create(FileSystem& fs, const std::u16string& path, const CreateParams& params,
                         std::unique_ptr<VhdxDisk>* disk);

    ~VhdxDisk();
    VhdxDisk(const VhdxDisk&) = delete;
    VhdxDisk& operator=(const VhdxDisk&) = delete;

    uint64_t Size() const;                // virtual size in bytes
    uint32_t LogicalSectorSize() const;   // 512 or 4096
    uint32_t PhysicalSectorSize() const;  // 512 or 4096
    uint32_t BlockSize() const;
    DiskKind Kind() const;
    Geometry GetGeometry() const;
    const Guid& DiskId() const;           // the metadata's virtual disk identifier
    const Guid& DataWriteGuid() const;
    const VhdxDisk* Parent() const;       // null unless differencing
    const std::u16string& Path() const;

    // Any byte range inside the disk; kInvalidParameter past its end.
    Status Read(uint64_t offset, size_t bytes, void* data);
    // Any byte range inside the disk. The first write of an open updates the
    // headers (sequence number, new file and data write identifiers).
    Status Write(uint64_t offset, size_t bytes, const void* data);

    // The disk signature: the 32-bit little-endian value at byte 440 of the
    // first sector.
    Status Signature(uint32_t* signature);

    Status Flush();

private:
    VhdxDisk();
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kx::vhdx
