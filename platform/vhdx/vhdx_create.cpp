// New VHDX files. The layout: identifier and headers in the first MiB, a
// 1 MiB log, a 1 MiB metadata region, the allocation table, then blocks
// (all of them at once for a fixed disk, none for the others).
#include <cstring>
#include <map>
#include <vector>

#include "platform/vhd/vhd_paths.h"
#include "platform/vhdx/vhdx_disk.h"
#include "platform/vhdx/vhdx_format.h"

namespace kx::vhdx {

using namespace vhd;

namespace {

constexpr uint64_t kLogAt = 1 * kMiB;
constexpr uint64_t kMetadataAt = 2 * kMiB;
constexpr uint64_t kBatAt = 3 * kMiB;
constexpr char16_t kCreator[] = u"Kestrix HA";

struct Layout {
    uint64_t size = 0;
    uint32_t blockSize = 0, logical = 0, physical = 0;
    bool fixed = false, differencing = false;
    std::map<std::u16string, std::u16string> locator;
};

bool ValidParams(const CreateParams& p) {
    const bool sectors = (p.logicalSectorSize == 512 || p.logicalSectorSize == 4096) &&
                         (p.physicalSectorSize == 512 || p.physicalSectorSize == 4096);
    const bool block = p.blockSize >= kMinBlockSize && p.blockSize <= kMaxBlockSize && !(p.blockSize & (p.blockSize - 1));
    const bool kind = p.kind == DiskKind::kFixed || p.kind == DiskKind::kDynamic || p.kind == DiskKind::kDifferencing;
    return sectors && block && kind;
}

Status WriteLayout(PositionedFile& file, const Layout& l) {
    const uint64_t blocks = (l.size + l.blockSize - 1) / l.blockSize;
    const uint64_t ratio = (uint64_t{1} << 23) * l.logical / l.blockSize;
    const uint64_t chunks = (blocks + ratio - 1) / ratio;
    const uint64_t entries = l.differencing ? chunks * (ratio + 1) : blocks + (blocks - 1) / ratio;
    const uint64_t batBytes = (entries * 8 + kMiB - 1) / kMiB * kMiB;
    if (batBytes > UINT32_MAX) return kInvalidParameter;

    std::vector<uint8_t> first(kMiB, 0);
    std::memcpy(first.data(), "vhdxfile", 8);
    for (size_t i = 0; kCreator[i]; ++i) StoreLe<uint16_t>(first.data() + 8 + 2 * i, kCreator[i]);
    Header h;
    h.fileWriteGuid = NewGuid();
    h.dataWriteGuid = NewGuid();
    h.logOffset = kLogAt;
    h.logLength = static_cast<uint32_t>(kMiB);
    for (int i = 0; i < 2; ++i) {
        h.sequence = static_cast<uint64_t>(i);
        BuildHeader(h, first.data() + kHeaderOffsets[i]);
    }
    const std::vector<Region> regions = {{kBatRegion, kBatAt, static_cast<uint32_t>(batBytes), true},
                                         {kMetadataRegion, kMetadataAt, static_cast<uint32_t>(kMiB), true}};
    for (uint64_t at : kRegionTableOffsets) BuildRegionTable(regions, first.data() + at);
    if (Status s = file.WriteAt(0, first.data(), first.size())) return s;

    // Metadata: the table, then the items from 64 KiB on.
    std::vector<uint8_t> meta(kMiB, 0);
    std::vector<MetadataItem> items;
    uint32_t at = 64 * 1024;
    auto add = [&](const Guid& id, const std::vector<uint8_t>& value, bool virtualDisk) {
        std::memcpy(meta.data() + at, value.data(), value.size());
        items.push_back({id, at, static_cast<uint32_t>(value.size()), false, virtualDisk, true});
        at += static_cast<uint32_t>((value.size() + 7) / 8 * 8);
    };
    auto le = [](uint64_t v, size_t bytes) {
        std::vector<uint8_t> out(bytes);
        for (size_t i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(v >> (8 * i));
        return out;
    };
    add(kFileParametersItem, le(l.blockSize | uint64_t{(l.fixed ? 1u : 0u) | (l.differencing ? 2u : 0u)} << 32, 8),
        false);
    add(kVirtualDiskSizeItem, le(l.size, 8), true);
    const Guid diskId = NewGuid();
    add(kPage83Item, std::vector<uint8_t>(diskId.begin(), diskId.end()), true);
    add(kLogicalSectorItem, le(l.logical, 4), true);
    add(kPhysicalSectorItem, le(l.physical, 4), true);
    if (l.differencing) {
        const std::vector<uint8_t> locator = BuildParentLocator(l.locator);
        if (locator.size() > meta.size() - at) return kInvalidParameter;
        add(kParentLocatorItem, locator, false);
    }
    BuildMetadataTable(items, meta.data());
    if (Status s = file.WriteAt(kMetadataAt, meta.data(), meta.size())) return s;

    // The allocation table; a fixed disk's blocks follow it in order.
    std::vector<uint8_t> bat(static_cast<size_t>(batBytes), 0);
    const uint64_t dataAt = kBatAt + batBytes;
    if (l.fixed)
        for (uint64_t b = 0; b < blocks; ++b)
            StoreLe<uint64_t>(bat.data() + (b + b / ratio) * 8, MakeEntry(kBlockFullyPresent, dataAt + b * l.blockSize));
    if (Status s = file.WriteAt(kBatAt, bat.data(), bat.size())) return s;
    if (l.fixed) {
        const uint8_t zero = 0;
        if (Status s = file.WriteAt(dataAt + blocks * l.blockSize - 1, &zero, 1)) return s;
    }
    return file.Flush();
}

}  // namespace

Status VhdxDisk::Create(FileSystem& fs, const std::u16string& path, const CreateParams& params,
                        std::unique_ptr<VhdxDisk>* disk) {
    disk->reset();
    if (!ValidParams(params) || path.empty()) return kInvalidParameter;
    Layout l;
    l.blockSize = params.blockSize;
    l.physical = params.physicalSectorSize;
    l.fixed = params.kind == DiskKind::kFixed;
    l.differencing = params.kind == DiskKind::kDifferencing;
    if (l.differencing) {
        if (params.parentPath.empty()) return kInvalidParameter;
        std::unique_ptr<PositionedFile> parentFile;
        if (Status s = fs.OpenParent(params.parentPath, &parentFile)) return s == kFileNotFound ? kParentNotFound : s;
        std::unique_ptr<VhdxDisk> parent;
        if (Status s = Open(std::move(parentFile), params.parentPath, false, fs, &parent)) return s;
        l.size = parent->Size();
        l.logical = parent->LogicalSectorSize();
        const std::u16string absolute = fs.Absolute(params.parentPath);
        const std::u16string relative = RelativePath(DirectoryOf(fs.Absolute(path)), absolute);
        // Lower-case hex: readers compare the text without folding case.
        std::u16string linkage = FormatGuid(parent->DataWriteGuid());
        for (char16_t& ch : linkage)
            if (ch >= u'A' && ch <= u'F') ch = static_cast<char16_t>(ch - u'A' + u'a');
        l.locator[u"parent_linkage"] = linkage;
        l.locator[u"absolute_win32_path"] = absolute;
        if (!relative.empty()) l.locator[u"relative_path"] = relative;
    } else {
        l.size = params.size;
        l.logical = params.logicalSectorSize;
        if (l.size == 0 || l.size > kMaxVirtualSize || l.size % l.logical) return kInvalidParameter;
    }

    std::unique_ptr<PositionedFile> file;
    if (Status s = fs.CreateNew(path, &file)) return s;
    Status s = WriteLayout(*file, l);
    if (s == kOk && (s = Open(std::move(file), path, true, fs, disk)) == kOk) return kOk;
    file.reset();
    fs.Remove(path);
    return s;
}

}  // namespace kx::vhdx
