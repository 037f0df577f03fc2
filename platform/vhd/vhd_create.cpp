// Creation of fixed, dynamic and differencing disks.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <random>

#include "platform/vhd/vhd_disk.h"
#include "platform/vhd/vhd_paths.h"

namespace kx::vhd {
namespace {

constexpr uint32_t kCreatorApp = 0x6B786861;   // "kxha"
constexpr uint32_t kCreatorHost = 0x5769326B;  // "Wi2k"
constexpr int64_t kVhdEpoch = 946684800;       // 2000-01-01 00:00 UTC in Unix time

uint64_t RoundUp(uint64_t v, uint64_t to) { return (v + to - 1) / to * to; }

Footer NewFooter(DiskType type, uint64_t size) {
    Footer f;
    f.timestamp = static_cast<uint32_t>(static_cast<int64_t>(std::time(nullptr)) - kVhdEpoch);
    f.creatorApp = kCreatorApp;
    f.creatorVersion = 0x00010000;
    f.creatorHost = kCreatorHost;
    f.originalSize = size;
    f.currentSize = size;
    f.geometry = ChsForSectors(size / kSectorSize);
    f.diskType = static_cast<uint32_t>(type);
    std::random_device random;
    for (size_t i = 0; i < f.uniqueId.size(); i += 4) {
        const uint32_t r = random();
        std::memcpy(&f.uniqueId[i], &r, 4);
    }
    return f;
}

// Writes the whole image but for the data of its blocks.
Status WriteImage(PositionedFile& file, Footer& footer, DynamicHeader* header,
                  const std::vector<std::string>& locatorData) {
    uint8_t rawFooter[kFooterSize];
    if (!header) {
        footer.dataOffset = kNoOffset;
        EncodeFooter(&footer, rawFooter);
        return file.WriteAt(footer.currentSize, rawFooter, kFooterSize);
    }
    footer.dataOffset = kFooterSize;
    EncodeFooter(&footer, rawFooter);
    if (Status s = file.WriteAt(0, rawFooter, kFooterSize)) return s;

    const uint64_t batBytes = RoundUp(uint64_t{header->maxTableEntries} * 4, kSectorSize);
    header->tableOffset = kFooterSize + kDynamicHeaderSize;
    std::vector<uint8_t> bat(static_cast<size_t>(batBytes), 0xFF);
    if (Status s = file.WriteAt(header->tableOffset, bat.data(), bat.size())) return s;

    uint64_t at = header->tableOffset + batBytes;
    for (size_t i = 0; i < locatorData.size(); ++i) {
        ParentLocator& loc = header->locators[i];
        loc.dataOffset = at;
        loc.dataLength = static_cast<uint32_t>(locatorData[i].size());
        loc.dataSpace = static_cast<uint32_t>(RoundUp(loc.dataLength, kSectorSize));
        std::vector<uint8_t> space(loc.dataSpace, 0);
        std::memcpy(space.data(), locatorData[i].data(), locatorData[i].size());
        if (Status s = file.WriteAt(at, space.data(), space.size())) return s;
        at += loc.dataSpace;
    }
    uint8_t rawHeader[kDynamicHeaderSize];
    EncodeDynamicHeader(header, rawHeader);
    if (Status s = file.WriteAt(kFooterSize, rawHeader, kDynamicHeaderSize)) return s;
    return file.WriteAt(at, rawFooter, kFooterSize);
}

}  // namespace

Status VhdDisk::Create(FileSystem& fs, const std::u16string& path, const CreateParams& params,
                       std::unique_ptr<VhdDisk>* disk) {
    disk->reset();
    const uint32_t bs = params.blockSize;
    if (path.empty() || bs < 4096 || bs > (256u << 20) || (bs & (bs - 1))) return kInvalidParameter;

    uint64_t size = RoundUp(params.size, kSectorSize);
    DynamicHeader header;
    std::vector<std::string> locators;
    if (params.type == DiskType::kDifferencing) {
        // The parent is opened and checked first: a child of a disk that
        // does not open would not open either.
        std::unique_ptr<PositionedFile> parentFile;
        if (Status s = fs.OpenParent(params.parentPath, &parentFile)) return s == kFileNotFound ? kParentNotFound : s;
        std::unique_ptr<VhdDisk> parent;
        if (Status s = Open(std::move(parentFile), params.parentPath, false, fs, &parent)) return s;
        size = parent->Size();
        header.parentUniqueId = parent->UniqueId();
        header.parentTimestamp = parent->footer_.timestamp;
        const std::u16string absolute = fs.Absolute(params.parentPath);
        const std::u16string name = FileNameOf(absolute);
        std::copy_n(name.begin(), std::min(name.size(), header.parentName.size() - 1), header.parentName.begin());
        const std::u16string relative = RelativePath(DirectoryOf(fs.Absolute(path)), absolute);
        header.locators[0].platformCode = kLocatorW2ku;
        locators.push_back(EncodeUtf16Le(absolute));
        if (!relative.empty()) {
            header.locators[1].platformCode = kLocatorW2ru;
            locators.push_back(EncodeUtf16Le(relative));
        }
    } else if (params.type != DiskType::kFixed && params.type != DiskType::kDynamic) {
        return kInvalidParameter;
    }
    if (size == 0 || size > kMaxDiskSize) return kInvalidSize;

    Footer footer = NewFooter(params.type, size);
    header.blockSize = bs;
    header.maxTableEntries = static_cast<uint32_t>((size + bs - 1) / bs);

    std::unique_ptr<PositionedFile> file;
    if (Status s = fs.CreateNew(path, &file)) return s;
    Status s = WriteImage(*file, footer, params.type == DiskType::kFixed ? nullptr : &header, locators);
    if (!s) s = file->Flush();
    if (!s) s = Open(std::move(file), path, true, fs, disk);
    if (s) {
        file.reset();
        disk->reset();
        fs.Remove(path);
    }
    return s;
}

}  // namespace kx::vhd
