#include "platform/vhdx/vhdx_disk.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "platform/vhd/vhd_format.h"
#include "platform/vhd/vhd_paths.h"
#include "platform/vhdx/vhdx_format.h"

namespace kx::vhdx {

using namespace vhd;

namespace {

constexpr size_t kMaxChainDepth = 32;
const std::u16string kParentLinkage = u"parent_linkage";
const std::u16string kParentLinkage2 = u"parent_linkage2";
const std::u16string kRelativePath = u"relative_path";
const std::u16string kAbsolutePath = u"absolute_win32_path";

bool IsNotFound(Status s) { return s == kFileNotFound || s == 3 /* path not found */; }

// A read-only view of a file with its log's writes laid over it, for a disk
// opened read-only whose log still holds entries: the file itself is never
// touched, yet every structure reads as after the replay.
class ReplayedFile : public PositionedFile {
public:
    ReplayedFile(std::unique_ptr<PositionedFile> inner, uint64_t innerSize, LogReplay replay)
        : inner_(std::move(inner)), innerSize_(innerSize), replay_(std::move(replay)) {}

    Status ReadAt(uint64_t offset, void* data, size_t bytes) override {
        uint64_t size;
        Size(&size);
        if (offset > size || size - offset < bytes) return kHandleEof;
        auto* out = static_cast<uint8_t*>(data);
        const size_t fromInner = offset >= innerSize_ ? 0 : static_cast<size_t>(std::min<uint64_t>(bytes, innerSize_ - offset));
        if (fromInner)
            if (Status s = inner_->ReadAt(offset, out, fromInner)) return s;
        std::memset(out + fromInner, 0, bytes - fromInner);
        for (const LogWrite& w : replay_.writes) {
            const uint64_t length = w.sector.empty() ? w.zeroLength : kLogSector;
            const uint64_t from = std::max(offset, w.fileOffset), to = std::min(offset + bytes, w.fileOffset + length);
            if (from >= to) continue;
            if (w.sector.empty())
                std::memset(out + (from - offset), 0, to - from);
            else
                std::memcpy(out + (from - offset), w.sector.data() + (from - w.fileOffset), to - from);
        }
        return kOk;
    }
    Status WriteAt(uint64_t, const void*, size_t) override { return kAccessDenied; }
    Status Size(uint64_t* bytes) override {
        *bytes = std::max(innerSize_, replay_.lastFileOffset);
        return kOk;
    }
    Status Flush() override { return kOk; }

private:
    std::unique_ptr<PositionedFile> inner_;
    uint64_t innerSize_;
    LogReplay replay_;
};

bool Overlaps(uint64_t a, uint64_t aLen, uint64_t b, uint64_t bLen) { return a < b + bLen && b < a + aLen; }

}  // namespace

struct VhdxDisk::Impl {
    std::mutex mutex;
    std::unique_ptr<PositionedFile> file;
    std::u16string path;
    bool writable = false;
    uint64_t fileSize = 0;

    Header header;
    int headerSlot = 0;  // where the current header lives
    bool written = false;
    uint64_t logSequence = 1;
    uint32_t logHead = 0;

    uint64_t batOffset = 0, metaOffset = 0;
    uint32_t batLength = 0, metaLength = 0;

    uint32_t blockSize = 0;
    bool leaveAllocated = false;
    bool hasParent = false;
    uint64_t size = 0;
    uint32_t logicalSector = 512, physicalSector = 4096;
    Guid diskId{};
    std::map<std::u16string, std::u16string> locator;

    uint64_t chunkRatio = 0, dataBlocks = 0, bitmapBlocks = 0;
    std::vector<uint64_t> bat;
    std::unique_ptr<VhdxDisk> parent;

    Status Load(FileSystem& fs, std::vector<Guid>* chain);
    Status LoadHeaders();
    Status LoadLog();
    Status LoadRegions();
    Status LoadMetadata();
    Status LoadBat();
    Status LoadParent(FileSystem& fs, std::vector<Guid>* chain);

    Status WriteHeaders(const Header& next);
    Status BeginWriting();
    Status EnsureLog();
    Status CommitBat(const std::vector<std::pair<size_t, uint64_t>>& changes, uint64_t newFileSize);

    size_t PayloadIndex(uint64_t block) const { return static_cast<size_t>(block + block / chunkRatio); }
    size_t BitmapIndex(uint64_t block) const {
        return static_cast<size_t>((block / chunkRatio) * (chunkRatio + 1) + chunkRatio);
    }
    uint64_t SectorsPerBlock() const { return blockSize / logicalSector; }
    // The bit of a sector of `block` within its chunk's bitmap block.
    uint64_t BitmapBit(uint64_t block, uint64_t sectorInBlock) const {
        return (block % chunkRatio) * SectorsPerBlock() + sectorInBlock;
    }

    Status ReadLocked(uint64_t offset, size_t bytes, uint8_t* out);
    Status ReadPartial(uint64_t block, uint64_t inBlock, size_t bytes, uint8_t* out);
    Status ReadBits(uint64_t block, uint64_t firstSector, uint64_t count, std::vector<bool>* bits);
    Status WriteBits(uint64_t block, uint64_t firstSector, uint64_t count, bool clearRest);
    Status WriteLocked(uint64_t offset, size_t bytes, const uint8_t* data);
    Status WriteInBlock(uint64_t block, uint64_t inBlock, size_t bytes, const uint8_t* data);
    Status AllocateBlock(uint64_t block, uint64_t start, const std::vector<uint8_t>& buffer, bool partial, uint64_t end,
                         std::vector<std::pair<size_t, uint64_t>> changes);
    Status SectorAligned(uint64_t block, uint64_t inBlock, size_t bytes, const uint8_t* data, bool fromParent,
                         uint64_t* alignedStart, std::vector<uint8_t>* buffer);
};

VhdxDisk::VhdxDisk() : impl_(new Impl) {}

VhdxDisk::~VhdxDisk() {
    if (impl_ && impl_->writable) Flush();
}

Status VhdxDisk::Open(std::unique_ptr<PositionedFile> file, const std::u16string& path, bool writable, FileSystem& fs,
                      std::unique_ptr<VhdxDisk>* disk) {
    std::vector<Guid> chain;
    disk->reset();
    if (!file) return kInvalidParameter;
    std::unique_ptr<VhdxDisk> d(new VhdxDisk());
    d->impl_->file = std::move(file);
    d->impl_->path = path;
    d->impl_->writable = writable;
    if (Status s = d->impl_->Load(fs, &chain)) {
        d->impl_->writable = false;  // nothing to flush on the way out
        return s;
    }
    *disk = std::move(d);
    return kOk;
}

Status VhdxDisk::Impl::Load(FileSystem& fs, std::vector<Guid>* chain) {
    if (Status s = file->Size(&fileSize)) return s;
    uint8_t id[8] = {};
    if (fileSize < sizeof id) return kNotVirtualDisk;
    if (Status s = file->ReadAt(0, id, sizeof id)) return s;
    if (std::memcmp(id, "vhdxfile", 8) != 0) return kNotVirtualDisk;
    if (fileSize < kMiB) return kInvalidFileSize;
    if (Status s = LoadHeaders()) return s;
    if (Status s = LoadLog()) return s;
    if (Status s = LoadRegions()) return s;
    if (Status s = LoadMetadata()) return s;
    if (Status s = LoadBat()) return s;
    if (hasParent) {
        if (std::find(chain->begin(), chain->end(), header.dataWriteGuid) != chain->end() ||
            chain->size() >= kMaxChainDepth)
            return kChainCycleDetected;
        chain->push_back(header.dataWriteGuid);
        if (Status s = LoadParent(fs, chain)) return s;
    }
    return kOk;
}

Status VhdxDisk::Impl::LoadHeaders() {
    Header h[2];
    Status st[2];
    for (int i = 0; i < 2; ++i) {
        std::vector<uint8_t> raw(kHeaderSize);
        st[i] = file->ReadAt(kHeaderOffsets[i], raw.data(), raw.size());
        if (st[i] == kOk) st[i] = ParseHeader(raw.data(), &h[i]);
    }
    if (st[0] && st[1]) return st[0];
    headerSlot = st[0] ? 1 : st[1] ? 0 : (h[1].sequence > h[0].sequence ? 1 : 0);
    header = h[headerSlot];
    if (header.logOffset > fileSize || fileSize - header.logOffset < header.logLength) return kFooterCorrupt;
    return kOk;
}

Status VhdxDisk::Impl::LoadLog() {
    if (IsZero(header.logGuid)) return kOk;
    std::vector<uint8_t> log(header.logLength);
    if (Status s = file->ReadAt(header.logOffset, log.data(), log.size())) return s;
    LogReplay replay;
    if (Status s = ScanLog(log, header.logGuid, &replay)) return s;
    if (!replay.empty && replay.flushedFileOffset > fileSize) return kInvalidFileSize;
    for (const LogWrite& w : replay.writes)
        if (Overlaps(w.fileOffset, w.sector.empty() ? w.zeroLength : kLogSector, header.logOffset, header.logLength))
            return kMetadataReadFailure;
    if (!writable) {
        if (!replay.empty) {
            const uint64_t innerSize = fileSize;
            file = std::make_unique<ReplayedFile>(std::move(file), innerSize, std::move(replay));
            file->Size(&fileSize);
        }
        return kOk;
    }
    // Into the file: the writes in order, the file grown to the size the
    // log recorded, all of it durable before the log is let go.
    if (!replay.empty) {
        std::vector<uint8_t> zeros;
        for (const LogWrite& w : replay.writes) {
            if (!w.sector.empty()) {
                if (Status s = file->WriteAt(w.fileOffset, w.sector.data(), w.sector.size())) return s;
                continue;
            }
            zeros.assign(static_cast<size_t>(std::min<uint64_t>(w.zeroLength, kMiB)), 0);
            for (uint64_t done = 0; done < w.zeroLength;) {
                const size_t n = static_cast<size_t>(std::min<uint64_t>(zeros.size(), w.zeroLength - done));
                if (Status s = file->WriteAt(w.fileOffset + done, zeros.data(), n)) return s;
                done += n;
            }
        }
        if (replay.lastFileOffset > fileSize) {
            const uint8_t zero = 0;
            if (Status s = file->WriteAt(replay.lastFileOffset - 1, &zero, 1)) return s;
        }
        if (Status s = file->Flush()) return s;
        if (Status s = file->Size(&fileSize)) return s;
    }
    Header next = header;
    next.logGuid = Guid{};
    return WriteHeaders(next);
}

Status VhdxDisk::Impl::LoadRegions() {
    std::vector<Region> regions;
    Status first = kOk;
    for (uint64_t at : kRegionTableOffsets) {
        std::vector<uint8_t> raw(kRegionTableSize);
        Status s = file->ReadAt(at, raw.data(), raw.size());
        if (s == kOk) s = ParseRegionTable(raw.data(), &regions);
        if (s == kOk) break;
        if (first == kOk) first = s;
        regions.clear();
    }
    if (regions.empty()) return first ? first : kSparseHeaderCorrupt;
    bool haveBat = false, haveMeta = false;
    for (const Region& r : regions) {
        if (Overlaps(r.offset, r.length, header.logOffset, header.logLength)) return kSparseHeaderCorrupt;
        if (r.offset > fileSize || fileSize - r.offset < r.length) return kSparseHeaderCorrupt;
        if (r.id == kBatRegion) {
            haveBat = true;
            batOffset = r.offset;
            batLength = r.length;
        } else if (r.id == kMetadataRegion) {
            haveMeta = true;
            metaOffset = r.offset;
            metaLength = r.length;
        } else if (r.required) {
            return kFormatUnsupportedVersion;
        }
    }
    return haveBat && haveMeta ? kOk : kSparseHeaderCorrupt;
}

Status VhdxDisk::Impl::LoadMetadata() {
    if (metaLength < 64 * kKiB) return kMetadataReadFailure;
    std::vector<uint8_t> table(64 * kKiB);
    if (Status s = file->ReadAt(metaOffset, table.data(), table.size())) return s;
    std::vector<MetadataItem> items;
    if (Status s = ParseMetadataTable(table.data(), metaLength, &items)) return s;
    auto read = [&](const Guid& id, uint32_t minBytes, std::vector<uint8_t>* out) -> Status {
        for (const MetadataItem& m : items) {
            if (m.isUser || m.id != id) continue;
            if (m.length < minBytes) return kMetadataReadFailure;
            out->resize(m.length);
            return file->ReadAt(metaOffset + m.offset, out->data(), out->size());
        }
        return kMetadataReadFailure;
    };
    for (const MetadataItem& m : items) {
        if (m.isUser || !m.required) continue;
        const Guid known[] = {kFileParametersItem, kVirtualDiskSizeItem, kPage83Item,
                              kLogicalSectorItem, kPhysicalSectorItem, kParentLocatorItem};
        if (std::find(std::begin(known), std::end(known), m.id) == std::end(known)) return kFormatUnsupportedVersion;
    }
    std::vector<uint8_t> v;
    if (Status s = read(kFileParametersItem, 8, &v)) return s;
    blockSize = LoadLe<uint32_t>(v.data());
    leaveAllocated = LoadLe<uint32_t>(v.data() + 4) & 1;
    hasParent = LoadLe<uint32_t>(v.data() + 4) & 2;
    if (Status s = read(kVirtualDiskSizeItem, 8, &v)) return s;
    size = LoadLe<uint64_t>(v.data());
    if (Status s = read(kPage83Item, 16, &v)) return s;
    std::memcpy(diskId.data(), v.data(), 16);
    if (Status s = read(kLogicalSectorItem, 4, &v)) return s;
    logicalSector = LoadLe<uint32_t>(v.data());
    if (Status s = read(kPhysicalSectorItem, 4, &v)) return s;
    physicalSector = LoadLe<uint32_t>(v.data());

    if (blockSize < kMinBlockSize || blockSize > kMaxBlockSize || (blockSize & (blockSize - 1))) return kInvalidBlockSize;
    if ((logicalSector != 512 && logicalSector != 4096) || (physicalSector != 512 && physicalSector != 4096))
        return kInvalidSize;
    if (size == 0 || size > kMaxVirtualSize || size % logicalSector) return kInvalidSize;
    if (hasParent) {
        if (Status s = read(kParentLocatorItem, 20, &v)) return s;
        if (Status s = ParseParentLocator(v.data(), static_cast<uint32_t>(v.size()), &locator)) return s;
        Guid linkage;
        if (!locator.count(kParentLinkage) || !ParseGuid(locator[kParentLinkage], &linkage)) return kMetadataReadFailure;
    }
    return kOk;
}

Status VhdxDisk::Impl::LoadBat() {
    chunkRatio = (uint64_t{1} << 23) * logicalSector / blockSize;
    dataBlocks = (size + blockSize - 1) / blockSize;
    bitmapBlocks = (dataBlocks + chunkRatio - 1) / chunkRatio;
    const uint64_t entries = hasParent ? bitmapBlocks * (chunkRatio + 1) : dataBlocks + (dataBlocks - 1) / chunkRatio;
    if (uint64_t{batLength} / 8 < entries) return kBlockAllocationTableCorrupt;
    std::vector<uint8_t> raw(static_cast<size_t>(entries * 8));
    if (Status s = file->ReadAt(batOffset, raw.data(), raw.size())) return s;
    bat.resize(static_cast<size_t>(entries));
    for (size_t i = 0; i < bat.size(); ++i) bat[i] = LoadLe<uint64_t>(raw.data() + i * 8);

    // Every allocated extent inside the file, clear of the fixed structures
    // and of each other.
    std::vector<std::pair<uint64_t, uint64_t>> extents = {
        {0, kMiB}, {header.logOffset, header.logLength}, {batOffset, batLength}, {metaOffset, metaLength}};
    for (uint64_t c = 0; hasParent && c < bitmapBlocks; ++c) {
        const uint64_t e = bat[BitmapIndex(c * chunkRatio)];
        if (EntryState(e) == kBitmapNotPresent) continue;
        if (EntryState(e) != kBitmapPresent) return kBlockAllocationTableCorrupt;
        extents.emplace_back(EntryOffset(e), kMiB);
    }
    for (uint64_t b = 0; b < dataBlocks; ++b) {
        const uint64_t e = bat[PayloadIndex(b)];
        switch (EntryState(e)) {
            case kBlockNotPresent:
            case kBlockUndefined:
            case kBlockZero:
            case kBlockUnmapped:
                continue;
            case kBlockPartiallyPresent:
                if (!hasParent || EntryState(bat[BitmapIndex(b)]) != kBitmapPresent) return kBlockAllocationTableCorrupt;
                [[fallthrough]];
            case kBlockFullyPresent:
                extents.emplace_back(EntryOffset(e), std::min<uint64_t>(blockSize, size - b * blockSize));
                continue;
            default:
                return kBlockAllocationTableCorrupt;
        }
    }
    for (size_t i = 4; i < extents.size(); ++i) {
        const auto [at, length] = extents[i];
        if (at < kMiB || at > fileSize || fileSize - at < length) return kBlockAllocationTableCorrupt;
    }
    std::sort(extents.begin(), extents.end());
    for (size_t i = 1; i < extents.size(); ++i)
        if (extents[i - 1].first + extents[i - 1].second > extents[i].first) return kBlockAllocationTableCorrupt;
    return kOk;
}

Status VhdxDisk::Impl::LoadParent(FileSystem& fs, std::vector<Guid>* chain) {
    Guid linkage{}, linkage2{};
    ParseGuid(locator[kParentLinkage], &linkage);
    const bool hasLinkage2 = locator.count(kParentLinkage2) && ParseGuid(locator[kParentLinkage2], &linkage2);
    // The relative path first, so that a chain moved as a whole still opens;
    // then the absolute path recorded at creation.
    std::vector<std::u16string> candidates;
    if (locator.count(kRelativePath) && !locator[kRelativePath].empty())
        candidates.push_back(JoinRelative(DirectoryOf(path), locator[kRelativePath]));
    if (locator.count(kAbsolutePath) && !locator[kAbsolutePath].empty()) candidates.push_back(locator[kAbsolutePath]);

    const size_t depth = chain->size();
    Status failure = kParentNotFound;
    for (const std::u16string& candidate : candidates) {
        chain->resize(depth);
        std::unique_ptr<PositionedFile> f;
        Status s = fs.OpenParent(candidate, &f);
        if (IsNotFound(s)) continue;
        if (s) {
            failure = s;
            continue;
        }
        std::unique_ptr<VhdxDisk> p(new VhdxDisk());
        p->impl_->file = std::move(f);
        p->impl_->path = candidate;
        if ((s = p->impl_->Load(fs, chain))) return s == kChainCycleDetected ? s : kChainErrorInParent;
        const Guid& dw = p->impl_->header.dataWriteGuid;
        if (dw != linkage && !(hasLinkage2 && dw == linkage2)) {
            failure = kChildParentIdMismatch;
            continue;
        }
        if (p->impl_->size != size || p->impl_->logicalSector != logicalSector) return kChildParentSizeMismatch;
        parent = std::move(p);
        return kOk;
    }
    return failure;
}

// ---- reading ----

Status VhdxDisk::Impl::ReadBits(uint64_t block, uint64_t firstSector, uint64_t count, std::vector<bool>* bits) {
    const uint64_t first = BitmapBit(block, firstSector);
    const uint64_t firstByte = first / 8, lastByte = (first + count - 1) / 8;
    std::vector<uint8_t> raw(static_cast<size_t>(lastByte - firstByte + 1));
    if (Status s = file->ReadAt(EntryOffset(bat[BitmapIndex(block)]) + firstByte, raw.data(), raw.size())) return s;
    bits->resize(static_cast<size_t>(count));
    for (uint64_t i = 0; i < count; ++i) {
        const uint64_t bit = first + i - firstByte * 8;
        (*bits)[static_cast<size_t>(i)] = (raw[static_cast<size_t>(bit / 8)] >> (bit % 8)) & 1;
    }
    return kOk;
}

Status VhdxDisk::Impl::ReadPartial(uint64_t block, uint64_t inBlock, size_t bytes, uint8_t* out) {
    const uint64_t firstSector = inBlock / logicalSector;
    const uint64_t lastSector = (inBlock + bytes - 1) / logicalSector;
    std::vector<bool> bits;
    if (Status s = ReadBits(block, firstSector, lastSector - firstSector + 1, &bits)) return s;
    const uint64_t blockStart = block * blockSize;
    uint64_t at = inBlock;
    const uint64_t end = inBlock + bytes;
    while (at < end) {
        const bool present = bits[static_cast<size_t>(at / logicalSector - firstSector)];
        uint64_t runEnd = at;
        while (runEnd < end && bits[static_cast<size_t>(runEnd / logicalSector - firstSector)] == present)
            runEnd = std::min(end, (runEnd / logicalSector + 1) * logicalSector);
        uint8_t* dst = out + (at - inBlock);
        const size_t n = static_cast<size_t>(runEnd - at);
        Status s = present ? file->ReadAt(EntryOffset(bat[PayloadIndex(block)]) + at, dst, n)
                           : parent->impl_->ReadLocked(blockStart + at, n, dst);
        if (s) return s;
        at = runEnd;
    }
    return kOk;
}

Status VhdxDisk::Impl::ReadLocked(uint64_t offset, size_t bytes, uint8_t* out) {
    while (bytes) {
        const uint64_t block = offset / blockSize, inBlock = offset % blockSize;
        const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes, blockSize - inBlock));
        const uint64_t entry = bat[PayloadIndex(block)];
        Status s = kOk;
        switch (EntryState(entry)) {
            case kBlockFullyPresent:
                s = file->ReadAt(EntryOffset(entry) + inBlock, out, n);
                break;
            case kBlockPartiallyPresent:
                s = ReadPartial(block, inBlock, n, out);
                break;
            case kBlockNotPresent:
                if (parent) {
                    s = parent->impl_->ReadLocked(offset, n, out);
                    break;
                }
                [[fallthrough]];
            default:
                std::memset(out, 0, n);
        }
        if (s) return s;
        offset += n;
        out += n;
        bytes -= n;
    }
    return kOk;
}

// ---- writing ----

Status VhdxDisk::Impl::WriteHeaders(const Header& next) {
    // One header at a time, each durable before the next: a crash leaves
    // at least one whole header, the old or the new.
    Header h = next;
    std::vector<uint8_t> raw(kHeaderSize);
    for (int slot : {1 - headerSlot, headerSlot}) {
        h.sequence = header.sequence + 1;
        BuildHeader(h, raw.data());
        if (Status s = file->WriteAt(kHeaderOffsets[slot], raw.data(), raw.size())) return s;
        if (Status s = file->Flush()) return s;
        header = h;
        headerSlot = slot;
    }
    return kOk;
}

Status VhdxDisk::Impl::BeginWriting() {
    if (written) return kOk;
    Header next = header;
    next.fileWriteGuid = NewGuid();
    next.dataWriteGuid = NewGuid();
    if (Status s = WriteHeaders(next)) return s;
    written = true;
    return kOk;
}

Status VhdxDisk::Impl::EnsureLog() {
    if (!IsZero(header.logGuid)) return kOk;
    Header next = header;
    next.logGuid = NewGuid();
    logHead = 0;
    logSequence = 1;
    return WriteHeaders(next);
}

// Makes allocation table changes durable: first as one log entry, then in
// place. A crash before the entry is whole leaves the old table; after it,
// opening the file replays the entry.
Status VhdxDisk::Impl::CommitBat(const std::vector<std::pair<size_t, uint64_t>>& changes, uint64_t newFileSize) {
    if (Status s = EnsureLog()) return s;
    std::vector<uint64_t> updated = bat;
    std::vector<size_t> pages;
    for (const auto& [index, value] : changes) {
        updated[index] = value;
        const size_t page = index * 8 / kLogSector;
        if (std::find(pages.begin(), pages.end(), page) == pages.end()) pages.push_back(page);
    }
    LogEntry entry;
    entry.sequence = logSequence;
    entry.flushedFileOffset = newFileSize;
    entry.lastFileOffset = newFileSize;
    std::vector<std::vector<uint8_t>> pageBytes;
    for (size_t page : pages) {
        // The page as it stands in the file, the new entries laid over it
        // (a table's last page may hold bytes past the entries in use).
        std::vector<uint8_t> bytes(kLogSector);
        if (Status s = file->ReadAt(batOffset + page * kLogSector, bytes.data(), bytes.size())) return s;
        for (size_t i = page * kLogSector / 8; i < std::min(updated.size(), (page + 1) * kLogSector / 8); ++i)
            StoreLe<uint64_t>(bytes.data() + (i * 8 - page * kLogSector), updated[i]);
        entry.writes.push_back({batOffset + page * kLogSector, bytes, 0});
    }
    std::vector<uint8_t> raw = BuildLogEntry(entry, header.logGuid);
    if (logHead + raw.size() > header.logLength) logHead = 0;
    entry.tail = logHead;
    raw = BuildLogEntry(entry, header.logGuid);
    if (Status s = file->WriteAt(header.logOffset + logHead, raw.data(), raw.size())) return s;
    if (Status s = file->Flush()) return s;
    logHead += static_cast<uint32_t>(raw.size());
    ++logSequence;
    for (const LogWrite& w : entry.writes)
        if (Status s = file->WriteAt(w.fileOffset, w.sector.data(), w.sector.size())) return s;
    if (Status s = file->Flush()) return s;
    bat = std::move(updated);
    fileSize = newFileSize;
    return kOk;
}

// The write widened to whole sectors: the bytes of the partial first and
// last sectors come from what the disk shows there now (the parent for a
// block that is not present, zeros for a new block of a plain disk).
Status VhdxDisk::Impl::SectorAligned(uint64_t block, uint64_t inBlock, size_t bytes, const uint8_t* data,
                                     bool fromParent, uint64_t* alignedStart, std::vector<uint8_t>* buffer) {
    const uint64_t start = inBlock / logicalSector * logicalSector;
    const uint64_t end = (inBlock + bytes + logicalSector - 1) / logicalSector * logicalSector;
    buffer->assign(static_cast<size_t>(end - start), 0);
    const uint64_t base = block * blockSize;
    if (fromParent) {
        if (start != inBlock)
            if (Status s = parent->impl_->ReadLocked(base + start, logicalSector, buffer->data())) return s;
        if (end != inBlock + bytes)
            if (Status s = parent->impl_->ReadLocked(base + end - logicalSector, logicalSector,
                                                    buffer->data() + (end - logicalSector - start)))
                return s;
    }
    std::memcpy(buffer->data() + (inBlock - start), data, bytes);
    *alignedStart = start;
    return kOk;
}

// Marks sectors of `block` present; with clearRest, every other sector of
// the block absent (a block being allocated may have stale bits).
Status VhdxDisk::Impl::WriteBits(uint64_t block, uint64_t firstSector, uint64_t count, bool clearRest) {
    const uint64_t from = clearRest ? 0 : firstSector;
    const uint64_t to = clearRest ? SectorsPerBlock() : firstSector + count;
    const uint64_t firstBit = BitmapBit(block, from), lastBit = BitmapBit(block, to - 1);
    const uint64_t firstByte = firstBit / 8;
    std::vector<uint8_t> raw(static_cast<size_t>(lastBit / 8 - firstByte + 1));
    const uint64_t where = EntryOffset(bat[BitmapIndex(block)]) + firstByte;
    if (Status s = file->ReadAt(where, raw.data(), raw.size())) return s;
    for (uint64_t sector = from; sector < to; ++sector) {
        const uint64_t bit = BitmapBit(block, sector) - firstByte * 8;
        const bool set = sector >= firstSector && sector < firstSector + count;
        uint8_t& byte = raw[static_cast<size_t>(bit / 8)];
        byte = static_cast<uint8_t>(set ? byte | (1u << (bit % 8)) : byte & ~(1u << (bit % 8)));
    }
    return file->WriteAt(where, raw.data(), raw.size());
}

Status VhdxDisk::Impl::WriteInBlock(uint64_t block, uint64_t inBlock, size_t bytes, const uint8_t* data) {
    const uint64_t entry = bat[PayloadIndex(block)];
    const uint8_t state = EntryState(entry);
    if (state == kBlockFullyPresent) return file->WriteAt(EntryOffset(entry) + inBlock, data, bytes);

    uint64_t start = 0;
    std::vector<uint8_t> buffer;
    if (state == kBlockPartiallyPresent) {
        // Sectors already here are overwritten as they are; the partial
        // sectors at either end take what the disk shows there.
        const uint64_t first = inBlock / logicalSector, last = (inBlock + bytes - 1) / logicalSector;
        const uint64_t alignedEnd = (last + 1) * logicalSector;
        buffer.assign(static_cast<size_t>(alignedEnd - first * logicalSector), 0);
        start = first * logicalSector;
        if (Status s = ReadPartial(block, start, buffer.size(), buffer.data())) return s;
        std::memcpy(buffer.data() + (inBlock - start), data, bytes);
        if (Status s = file->WriteAt(EntryOffset(entry) + start, buffer.data(), buffer.size())) return s;
        if (Status s = file->Flush()) return s;
        return WriteBits(block, first, last - first + 1, false);
    }

    // A block not in the file: allocate it at the 1 MiB-aligned end.
    const bool partial = parent && state == kBlockNotPresent;
    if (Status s = SectorAligned(block, inBlock, bytes, data, partial, &start, &buffer)) return s;
    std::vector<std::pair<size_t, uint64_t>> changes;
    uint64_t end = (fileSize + kMiB - 1) / kMiB * kMiB;
    const uint8_t zero = 0;
    const uint64_t bitmapBefore = partial ? bat[BitmapIndex(block)] : 0;
    if (partial && EntryState(bat[BitmapIndex(block)]) != kBitmapPresent) {
        const uint64_t bitmapAt = end;
        end += kMiB;
        if (Status s = file->WriteAt(end - 1, &zero, 1)) return s;
        bat[BitmapIndex(block)] = MakeEntry(kBitmapPresent, bitmapAt);  // unreferenced until committed
        changes.emplace_back(BitmapIndex(block), bat[BitmapIndex(block)]);
    }
    const bool newBitmap = !changes.empty();
    const Status s = AllocateBlock(block, start, buffer, partial, end, std::move(changes));
    if (s && newBitmap) bat[BitmapIndex(block)] = bitmapBefore;
    return s;
}

Status VhdxDisk::Impl::AllocateBlock(uint64_t block, uint64_t start, const std::vector<uint8_t>& buffer, bool partial,
                                     uint64_t end, std::vector<std::pair<size_t, uint64_t>> changes) {
    const uint8_t zero = 0;
    const uint64_t blockAt = end;
    end += blockSize;
    if (Status s = file->WriteAt(blockAt + start, buffer.data(), buffer.size())) return s;
    if (start + buffer.size() < blockSize)
        if (Status s = file->WriteAt(end - 1, &zero, 1)) return s;
    if (partial) {
        if (Status s = WriteBits(block, start / logicalSector, buffer.size() / logicalSector, true)) return s;
    }
    if (Status s = file->Flush()) return s;
    changes.emplace_back(PayloadIndex(block), MakeEntry(partial ? kBlockPartiallyPresent : kBlockFullyPresent, blockAt));
    return CommitBat(changes, end);
}

Status VhdxDisk::Impl::WriteLocked(uint64_t offset, size_t bytes, const uint8_t* data) {
    if (Status s = BeginWriting()) return s;
    while (bytes) {
        const uint64_t block = offset / blockSize, inBlock = offset % blockSize;
        const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes, blockSize - inBlock));
        if (Status s = WriteInBlock(block, inBlock, n, data)) return s;
        offset += n;
        data += n;
        bytes -= n;
    }
    return kOk;
}

// ---- the public face ----

uint64_t VhdxDisk::Size() const { return impl_->size; }
uint32_t VhdxDisk::LogicalSectorSize() const { return impl_->logicalSector; }
uint32_t VhdxDisk::PhysicalSectorSize() const { return impl_->physicalSector; }
uint32_t VhdxDisk::BlockSize() const { return impl_->blockSize; }
DiskKind VhdxDisk::Kind() const {
    return impl_->hasParent ? DiskKind::kDifferencing : impl_->leaveAllocated ? DiskKind::kFixed : DiskKind::kDynamic;
}
const Guid& VhdxDisk::DiskId() const { return impl_->diskId; }
const Guid& VhdxDisk::DataWriteGuid() const { return impl_->header.dataWriteGuid; }
const VhdxDisk* VhdxDisk::Parent() const { return impl_->parent.get(); }
const std::u16string& VhdxDisk::Path() const { return impl_->path; }

Geometry VhdxDisk::GetGeometry() const {
    const Chs chs = ChsForSectors(impl_->size / impl_->logicalSector);
    Geometry g;
    g.cylinders = chs.cylinders;
    g.heads = chs.heads;
    g.sectorsPerTrack = chs.sectorsPerTrack;
    g.bytesPerSector = impl_->logicalSector;
    return g;
}

Status VhdxDisk::Read(uint64_t offset, size_t bytes, void* data) {
    if (offset > impl_->size || impl_->size - offset < bytes || (bytes && !data)) return kInvalidParameter;
    std::lock_guard<std::mutex> hold(impl_->mutex);
    return impl_->ReadLocked(offset, bytes, static_cast<uint8_t*>(data));
}

Status VhdxDisk::Write(uint64_t offset, size_t bytes, const void* data) {
    if (offset > impl_->size || impl_->size - offset < bytes || (bytes && !data)) return kInvalidParameter;
    if (!impl_->writable) return kAccessDenied;
    if (bytes == 0) return kOk;
    std::lock_guard<std::mutex> hold(impl_->mutex);
    return impl_->WriteLocked(offset, bytes, static_cast<const uint8_t*>(data));
}

Status VhdxDisk::Signature(uint32_t* signature) {
    uint8_t raw[4];
    if (Status s = Read(440, sizeof raw, raw)) return s;
    *signature = LoadLe<uint32_t>(raw);
    return kOk;
}

Status VhdxDisk::Flush() {
    std::lock_guard<std::mutex> hold(impl_->mutex);
    if (!impl_->writable) return kOk;
    // Every log entry is in place by now: the log can be let go.
    if (!IsZero(impl_->header.logGuid)) {
        Header next = impl_->header;
        next.logGuid = Guid{};
        if (Status s = impl_->WriteHeaders(next)) return s;
    }
    return impl_->file->Flush();
}

}  // namespace kx::vhdx
