// A VHD disk: fixed, dynamic or differencing, opened over a positioned file.
// Reads of a differencing disk fall through to its parent chain; writes to
// a dynamic or differencing disk allocate blocks and keep their sector
// bitmaps right. Every structure read from the file is checked before use:
// a damaged or hostile file gives a status, never an access out of bounds.
//
// One disk object may be used from several threads; calls are serialised.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/vhd/positioned_io.h"
#include "platform/vhd/vhd_format.h"

namespace kx::vhd {

struct DiskGeometry {
    uint64_t cylinders = 0;
    uint32_t heads = 0;
    uint32_t sectorsPerTrack = 0;
    uint32_t bytesPerSector = kSectorSize;
};

struct CreateParams {
    DiskType type = DiskType::kDynamic;
    uint64_t size = 0;  // bytes, rounded up to whole sectors; ignored for differencing
    uint32_t blockSize = kDefaultBlockSize;
    std::u16string parentPath;  // differencing only
};

class VhdDisk {
public:
    // Opens the disk in `file`, found at `path` (used to resolve the parent
    // locators of a differencing disk, whose parents `fs` opens read-only).
    static Status Open(std::unique_ptr<PositionedFile> file, const std::u16string& path, bool writable, FileSystem& fs,
                       std::unique_ptr<VhdDisk>* disk);
    // Creates a new disk file at `path` and opens it for writing. A creation
    // that fails removes the half-written file.
    static Status Create(FileSystem& fs, const std::u16string& path, const CreateParams& params,
                         std::unique_ptr<VhdDisk>* disk);

    ~VhdDisk();
    VhdDisk(const VhdDisk&) = delete;
    VhdDisk& operator=(const VhdDisk&) = delete;

    uint64_t Size() const { return footer_.currentSize; }
    uint64_t SectorCount() const { return footer_.currentSize / kSectorSize; }
    DiskType Type() const { return static_cast<DiskType>(footer_.diskType); }
    DiskGeometry Geometry() const;
    uint32_t BlockSize() const { return header_.blockSize; }
    const Guid& UniqueId() const { return footer_.uniqueId; }
    const VhdDisk* Parent() const { return parent_.get(); }
    const std::u16string& Path() const { return path_; }

    Status Read(uint64_t firstSector, uint32_t count, void* data);
    Status Write(uint64_t firstSector, uint32_t count, const void* data);

    // The sectors present in this file alone, least significant bit first,
    // from the byte that holds `startSector`: *alignedStart is the start
    // rounded down to a multiple of 8, *validSectors how many of the bits
    // in `bits` (at most byteCount * 8) belong to the disk; 0 at its end.
    // Bits past the valid ones are cleared.
    Status GetBitmap(uint64_t startSector, uint32_t byteCount, uint64_t* alignedStart, uint64_t* validSectors,
                     uint8_t* bits);

    // The disk signature: the 32-bit little-endian value at byte 440 of
    // the first sector.
    Status Signature(uint32_t* signature);

    Status Flush();

private:
    VhdDisk() = default;
    static Status OpenChain(std::unique_ptr<PositionedFile> file, const std::u16string& path, bool writable,
                            FileSystem& fs, std::vector<Guid>* chain, std::unique_ptr<VhdDisk>* disk);
    Status LoadFooter();
    Status LoadDynamic();
    Status LoadParent(FileSystem& fs, std::vector<Guid>* chain);
    Status ReadLocked(uint64_t firstSector, uint32_t count, uint8_t* data);
    Status ReadBlockBitmap(uint32_t block, uint32_t firstByte, uint32_t bytes, uint8_t* out);
    Status AllocateBlock(uint32_t block);
    Status FillFromBelow(uint64_t firstSector, uint32_t count, uint8_t* data);
    uint64_t BlockDataOffset(uint32_t block) const;

    std::mutex mutex_;
    std::unique_ptr<PositionedFile> file_;
    std::u16string path_;
    bool writable_ = false;
    uint64_t fileSize_ = 0;
    uint64_t dataLimit_ = 0;  // where block data must end: the trailing footer
    Footer footer_;
    DynamicHeader header_;
    uint32_t sectorsPerBlock_ = 0;
    uint32_t bitmapBytes_ = 0;  // the on-disk bitmap of a block, whole sectors
    std::vector<uint32_t> bat_;
    std::unique_ptr<VhdDisk> parent_;
    // The last block bitmap read, as on disk (most significant bit first).
    uint32_t cachedBlock_ = kUnallocated;
    std::vector<uint8_t> cachedBitmap_;
};

}  // namespace kx::vhd
