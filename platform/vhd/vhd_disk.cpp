#include "platform/vhd/vhd_disk.h"

#include <algorithm>
#include <cstring>

#include "platform/vhd/vhd_paths.h"

namespace kx::vhd {
namespace {

// A chain deeper than this is treated as damaged.
constexpr size_t kMaxChainDepth = 256;
// A locator longer than this holds no path.
constexpr uint32_t kMaxLocatorBytes = 64 * 1024;

uint8_t ReverseBits(uint8_t b) {
    b = static_cast<uint8_t>((b & 0xF0) >> 4 | (b & 0x0F) << 4);
    b = static_cast<uint8_t>((b & 0xCC) >> 2 | (b & 0x33) << 2);
    b = static_cast<uint8_t>((b & 0xAA) >> 1 | (b & 0x55) << 1);
    return b;
}

bool BitSet(const uint8_t* msbFirst, uint32_t sector) { return (msbFirst[sector / 8] >> (7 - sector % 8)) & 1; }

bool IsNotFound(Status s) { return s == kFileNotFound || s == 3 /* path not found */; }

}  // namespace

VhdDisk::~VhdDisk() = default;

DiskGeometry VhdDisk::Geometry() const {
    DiskGeometry g;
    g.cylinders = footer_.geometry.cylinders;
    g.heads = footer_.geometry.heads;
    g.sectorsPerTrack = footer_.geometry.sectorsPerTrack;
    return g;
}

Status VhdDisk::Open(std::unique_ptr<PositionedFile> file, const std::u16string& path, bool writable, FileSystem& fs,
                     std::unique_ptr<VhdDisk>* disk) {
    std::vector<Guid> chain;
    return OpenChain(std::move(file), path, writable, fs, &chain, disk);
}

Status VhdDisk::OpenChain(std::unique_ptr<PositionedFile> file, const std::u16string& path, bool writable,
                          FileSystem& fs, std::vector<Guid>* chain, std::unique_ptr<VhdDisk>* disk) {
    disk->reset();
    if (!file) return kInvalidParameter;
    std::unique_ptr<VhdDisk> d(new VhdDisk());
    d->file_ = std::move(file);
    d->path_ = path;
    d->writable_ = writable;
    if (Status s = d->LoadFooter()) return s;
    if (d->Type() != DiskType::kFixed) {
        if (Status s = d->LoadDynamic()) return s;
    }
    if (d->Type() == DiskType::kDifferencing) {
        if (std::find(chain->begin(), chain->end(), d->footer_.uniqueId) != chain->end()) return kChainCycleDetected;
        if (chain->size() >= kMaxChainDepth) return kChainCycleDetected;
        chain->push_back(d->footer_.uniqueId);
        if (Status s = d->LoadParent(fs, chain)) return s;
    }
    *disk = std::move(d);
    return kOk;
}

Status VhdDisk::LoadFooter() {
    if (Status s = file_->Size(&fileSize_)) return s;
    if (fileSize_ < kFooterSize) return kFooterMissing;
    uint8_t raw[kFooterSize];
    if (Status s = file_->ReadAt(fileSize_ - kFooterSize, raw, kFooterSize)) return s;
    Status s = DecodeFooter(raw, &footer_);
    dataLimit_ = fileSize_ - kFooterSize;
    if (s) {
        // A dynamic disk keeps a copy of its footer at the front; a file
        // whose trailing footer was lost can still be read through it.
        uint8_t copy[kFooterSize];
        Footer front;
        if (fileSize_ < kFooterSize + kDynamicHeaderSize || file_->ReadAt(0, copy, kFooterSize) ||
            DecodeFooter(copy, &front) || front.diskType == static_cast<uint32_t>(DiskType::kFixed))
            return s;
        footer_ = front;
        dataLimit_ = fileSize_;
    }
    if (footer_.diskType < 2 || footer_.diskType > 4) return kInvalidType;
    if (footer_.currentSize == 0 || footer_.currentSize % kSectorSize || footer_.currentSize > kMaxDiskSize)
        return kInvalidSize;
    if (Type() == DiskType::kFixed && fileSize_ - kFooterSize < footer_.currentSize) return kInvalidFileSize;
    return kOk;
}

Status VhdDisk::LoadDynamic() {
    const uint64_t at = footer_.dataOffset;
    if (at < kFooterSize || at > dataLimit_ || dataLimit_ - at < kDynamicHeaderSize) return kFooterCorrupt;
    uint8_t raw[kDynamicHeaderSize];
    if (Status s = file_->ReadAt(at, raw, kDynamicHeaderSize)) return s;
    if (Status s = DecodeDynamicHeader(raw, &header_)) return s;

    const uint32_t bs = header_.blockSize;
    if (bs < 4096 || bs > (256u << 20) || (bs & (bs - 1))) return kInvalidBlockSize;
    sectorsPerBlock_ = bs / kSectorSize;
    bitmapBytes_ = (sectorsPerBlock_ / 8 + kSectorSize - 1) / kSectorSize * kSectorSize;
    const uint64_t blocks = (footer_.currentSize + bs - 1) / bs;
    if (header_.maxTableEntries < blocks) return kBlockAllocationTableCorrupt;
    const uint64_t table = header_.tableOffset;
    if (table < kFooterSize || table > dataLimit_ || (dataLimit_ - table) / 4 < blocks)
        return kBlockAllocationTableCorrupt;

    std::vector<Be32> raw_bat;
    try {
        raw_bat.resize(static_cast<size_t>(blocks));
        bat_.resize(static_cast<size_t>(blocks));
    } catch (...) {
        return kOutOfMemory;
    }
    if (Status s = file_->ReadAt(table, raw_bat.data(), raw_bat.size() * sizeof(Be32))) return s;

    // Every allocated block lies after the header and the table, inside the
    // data area, and no two blocks share a byte.
    const uint64_t blockBytes = uint64_t{bitmapBytes_} + bs;
    const uint64_t metadataEnd = std::max(at + kDynamicHeaderSize, table + blocks * 4);
    std::vector<uint32_t> starts;
    for (size_t i = 0; i < bat_.size(); ++i) {
        const uint32_t e = raw_bat[i].get();
        bat_[i] = e;
        if (e == kUnallocated) continue;
        const uint64_t start = uint64_t{e} * kSectorSize;
        if (start < metadataEnd || start > dataLimit_ || dataLimit_ - start < blockBytes)
            return kBlockAllocationTableCorrupt;
        starts.push_back(e);
    }
    std::sort(starts.begin(), starts.end());
    for (size_t i = 1; i < starts.size(); ++i)
        if ((uint64_t{starts[i]} - starts[i - 1]) * kSectorSize < blockBytes) return kBlockAllocationTableCorrupt;
    cachedBitmap_.assign(bitmapBytes_, 0);
    return kOk;
}

Status VhdDisk::LoadParent(FileSystem& fs, std::vector<Guid>* chain) {
    // Where the parent may be: the relative locators first (a chain that was
    // moved as a whole still opens), then the absolute ones, then the name
    // recorded in the header beside this file.
    std::vector<std::u16string> candidates;
    const std::u16string folder = DirectoryOf(path_);
    for (uint32_t code : {kLocatorW2ru, kLocatorW2ku}) {
        for (const ParentLocator& loc : header_.locators) {
            if (loc.platformCode != code || loc.dataLength == 0) continue;
            if (loc.dataLength > kMaxLocatorBytes || loc.dataOffset > fileSize_ ||
                fileSize_ - loc.dataOffset < loc.dataLength)
                return kSparseHeaderCorrupt;
            std::vector<uint8_t> raw(loc.dataLength);
            if (Status s = file_->ReadAt(loc.dataOffset, raw.data(), raw.size())) return s;
            std::u16string p = DecodeUtf16Le(raw.data(), raw.size());
            if (p.empty()) continue;
            candidates.push_back(code == kLocatorW2ru ? JoinRelative(folder, p) : p);
        }
    }
    std::u16string name(header_.parentName.data(), header_.parentName.size());
    name.resize(std::min(name.size(), name.find(u'\0')));
    if (!name.empty()) candidates.push_back(JoinRelative(folder, FileNameOf(name)));

    // A candidate that turns out not to be the parent leaves no trace in
    // the chain, or a later candidate sharing its ancestors would look like
    // a loop.
    const size_t depth = chain->size();
    Status failure = kParentNotFound;
    for (const std::u16string& candidate : candidates) {
        chain->resize(depth);
        std::unique_ptr<PositionedFile> file;
        Status s = fs.OpenParent(candidate, &file);
        if (IsNotFound(s)) continue;
        if (s) {
            failure = s;
            continue;
        }
        std::unique_ptr<VhdDisk> parent;
        if ((s = OpenChain(std::move(file), candidate, false, fs, chain, &parent))) return s;
        if (parent->footer_.uniqueId != header_.parentUniqueId) {
            failure = kChildParentIdMismatch;
            continue;
        }
        if (parent->footer_.currentSize != footer_.currentSize) return kChildParentSizeMismatch;
        parent_ = std::move(parent);
        return kOk;
    }
    return failure;
}

uint64_t VhdDisk::BlockDataOffset(uint32_t block) const { return uint64_t{bat_[block]} * kSectorSize + bitmapBytes_; }

Status VhdDisk::ReadBlockBitmap(uint32_t block, uint32_t firstByte, uint32_t bytes, uint8_t* out) {
    if (cachedBlock_ != block) {
        if (Status s = file_->ReadAt(uint64_t{bat_[block]} * kSectorSize, cachedBitmap_.data(), bitmapBytes_)) {
            cachedBlock_ = kUnallocated;
            return s;
        }
        cachedBlock_ = block;
    }
    std::memcpy(out, cachedBitmap_.data() + firstByte, bytes);
    return kOk;
}

Status VhdDisk::FillFromBelow(uint64_t firstSector, uint32_t count, uint8_t* data) {
    if (parent_) return parent_->Read(firstSector, count, data);
    std::memset(data, 0, size_t{count} * kSectorSize);
    return kOk;
}

Status VhdDisk::Read(uint64_t firstSector, uint32_t count, void* data) {
    std::lock_guard<std::mutex> lock(mutex_);
    return ReadLocked(firstSector, count, static_cast<uint8_t*>(data));
}

Status VhdDisk::ReadLocked(uint64_t firstSector, uint32_t count, uint8_t* out) {
    if (!out || firstSector > SectorCount() || SectorCount() - firstSector < count) return kInvalidParameter;
    if (Type() == DiskType::kFixed) return file_->ReadAt(firstSector * kSectorSize, out, size_t{count} * kSectorSize);

    while (count) {
        const uint32_t block = static_cast<uint32_t>(firstSector / sectorsPerBlock_);
        const uint32_t offset = static_cast<uint32_t>(firstSector % sectorsPerBlock_);
        const uint32_t n = std::min(count, sectorsPerBlock_ - offset);
        if (bat_[block] == kUnallocated) {
            if (Status s = FillFromBelow(firstSector, n, out)) return s;
        } else {
            if (cachedBlock_ != block) {
                uint8_t probe;
                if (Status s = ReadBlockBitmap(block, 0, 1, &probe)) return s;
            }
            // Runs of sectors that are present here, or not.
            uint32_t i = 0;
            while (i < n) {
                const bool present = BitSet(cachedBitmap_.data(), offset + i);
                uint32_t run = 1;
                while (i + run < n && BitSet(cachedBitmap_.data(), offset + i + run) == present) ++run;
                uint8_t* dst = out + size_t{i} * kSectorSize;
                Status s = present ? file_->ReadAt(BlockDataOffset(block) + uint64_t{offset + i} * kSectorSize, dst,
                                                   size_t{run} * kSectorSize)
                                   : FillFromBelow(firstSector + i, run, dst);
                if (s) return s;
                i += run;
            }
        }
        firstSector += n;
        count -= n;
        out += size_t{n} * kSectorSize;
    }
    return kOk;
}

Status VhdDisk::AllocateBlock(uint32_t block) {
    // The new block goes where the trailing footer was; the footer follows it.
    const uint64_t start = (dataLimit_ + kSectorSize - 1) / kSectorSize * kSectorSize;
    const uint64_t end = start + bitmapBytes_ + header_.blockSize;
    if (start / kSectorSize >= kUnallocated) return kBlockAllocationFailure;
    std::vector<uint8_t> zeros(bitmapBytes_, 0);
    if (Status s = file_->WriteAt(start, zeros.data(), zeros.size())) return s;
    uint8_t footer[kFooterSize];
    EncodeFooter(&footer_, footer);
    if (Status s = file_->WriteAt(end, footer, kFooterSize)) return s;
    Be32 entry;
    entry.set(static_cast<uint32_t>(start / kSectorSize));
    if (Status s = file_->WriteAt(header_.tableOffset + uint64_t{block} * sizeof entry, &entry, sizeof entry)) return s;
    bat_[block] = static_cast<uint32_t>(start / kSectorSize);
    dataLimit_ = end;
    fileSize_ = end + kFooterSize;
    return kOk;
}

Status VhdDisk::Write(uint64_t firstSector, uint32_t count, const void* data) {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint8_t* in = static_cast<const uint8_t*>(data);
    if (!in || firstSector > SectorCount() || SectorCount() - firstSector < count) return kInvalidParameter;
    if (!writable_) return kAccessDenied;
    if (Type() == DiskType::kFixed) return file_->WriteAt(firstSector * kSectorSize, in, size_t{count} * kSectorSize);

    while (count) {
        const uint32_t block = static_cast<uint32_t>(firstSector / sectorsPerBlock_);
        const uint32_t offset = static_cast<uint32_t>(firstSector % sectorsPerBlock_);
        const uint32_t n = std::min(count, sectorsPerBlock_ - offset);
        if (bat_[block] == kUnallocated) {
            if (Status s = AllocateBlock(block)) return s;
        }
        if (Status s = file_->WriteAt(BlockDataOffset(block) + uint64_t{offset} * kSectorSize, in,
                                      size_t{n} * kSectorSize))
            return s;
        // Mark the sectors present: data first, then the bitmap that
        // declares it.
        uint8_t probe;
        if (Status s = ReadBlockBitmap(block, 0, 1, &probe)) return s;
        for (uint32_t i = offset; i < offset + n; ++i)
            cachedBitmap_[i / 8] = static_cast<uint8_t>(cachedBitmap_[i / 8] | (0x80 >> (i % 8)));
        const uint32_t firstByte = offset / 8 / kSectorSize * kSectorSize;
        const uint32_t lastByte = ((offset + n - 1) / 8 / kSectorSize + 1) * kSectorSize;
        if (Status s = file_->WriteAt(uint64_t{bat_[block]} * kSectorSize + firstByte,
                                      cachedBitmap_.data() + firstByte, lastByte - firstByte)) {
            cachedBlock_ = kUnallocated;
            return s;
        }
        firstSector += n;
        count -= n;
        in += size_t{n} * kSectorSize;
    }
    return kOk;
}

Status VhdDisk::GetBitmap(uint64_t startSector, uint32_t byteCount, uint64_t* alignedStart, uint64_t* validSectors,
                          uint8_t* bits) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!alignedStart || !validSectors || (byteCount && !bits)) return kInvalidParameter;
    const uint64_t total = SectorCount();
    const uint64_t start = startSector / 8 * 8;
    *alignedStart = start;
    *validSectors = 0;
    if (byteCount) std::memset(bits, 0, byteCount);
    if (start >= total || byteCount == 0) return kOk;
    const uint64_t valid = std::min<uint64_t>(uint64_t{byteCount} * 8, total - start);
    *validSectors = valid;
    const size_t validBytes = static_cast<size_t>((valid + 7) / 8);

    if (Type() == DiskType::kFixed) {
        std::memset(bits, 0xFF, validBytes);
    } else {
        // Blocks hold a multiple of 8 sectors and the start is a multiple of
        // 8, so every block's part of the answer starts on a byte.
        uint64_t sector = start;
        size_t outByte = 0;
        while (outByte < validBytes) {
            const uint32_t block = static_cast<uint32_t>(sector / sectorsPerBlock_);
            const uint32_t firstByte = static_cast<uint32_t>(sector % sectorsPerBlock_) / 8;
            const uint32_t bytes = static_cast<uint32_t>(
                std::min<uint64_t>(sectorsPerBlock_ / 8 - firstByte, validBytes - outByte));
            if (bat_[block] != kUnallocated) {
                if (Status s = ReadBlockBitmap(block, firstByte, bytes, bits + outByte)) return s;
                for (uint32_t i = 0; i < bytes; ++i) bits[outByte + i] = ReverseBits(bits[outByte + i]);
            }
            outByte += bytes;
            sector += uint64_t{bytes} * 8;
        }
    }
    if (valid % 8) bits[validBytes - 1] &= static_cast<uint8_t>((1u << (valid % 8)) - 1);
    return kOk;
}

Status VhdDisk::Signature(uint32_t* signature) {
    if (!signature) return kInvalidParameter;
    uint8_t sector[kSectorSize];
    if (Status s = Read(0, 1, sector)) return s;
    *signature = uint32_t{sector[440]} | uint32_t{sector[441]} << 8 | uint32_t{sector[442]} << 16 |
                 uint32_t{sector[443]} << 24;
    return kOk;
}

Status VhdDisk::Flush() {
    std::lock_guard<std::mutex> lock(mutex_);
    return writable_ ? file_->Flush() : kOk;
}

}  // namespace kx::vhd
