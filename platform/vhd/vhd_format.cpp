#include "platform/vhd/vhd_format.h"

#include <cstring>

namespace kx::vhd {
namespace {

constexpr char kFooterCookie[8] = {'c', 'o', 'n', 'e', 'c', 't', 'i', 'x'};
constexpr char kHeaderCookie[8] = {'c', 'x', 's', 'p', 'a', 'r', 's', 'e'};

template <class Raw>
uint32_t Checksum(const Raw& raw) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(&raw);
    const size_t at = static_cast<size_t>(raw.checksum.bytes - bytes);
    uint32_t sum = 0;
    for (size_t i = 0; i < sizeof raw; ++i)
        if (i < at || i >= at + sizeof raw.checksum) sum += bytes[i];
    return ~sum;
}

}  // namespace

uint32_t ChecksumOf(const RawFooter& raw) { return Checksum(raw); }
uint32_t ChecksumOf(const RawDynamicHeader& raw) { return Checksum(raw); }

Chs ChsForSectors(uint64_t totalSectors) {
    uint64_t sectors = totalSectors;
    if (sectors > 65535ull * 16 * 255) sectors = 65535ull * 16 * 255;
    uint64_t spt, heads, cylTimesHeads;
    if (sectors >= 65535ull * 16 * 63) {
        spt = 255;
        heads = 16;
        cylTimesHeads = sectors / spt;
    } else {
        spt = 17;
        cylTimesHeads = sectors / spt;
        heads = (cylTimesHeads + 1023) / 1024;
        if (heads < 4) heads = 4;
        if (cylTimesHeads >= heads * 1024 || heads > 16) {
            spt = 31;
            heads = 16;
            cylTimesHeads = sectors / spt;
        }
        if (cylTimesHeads >= heads * 1024) {
            spt = 63;
            heads = 16;
            cylTimesHeads = sectors / spt;
        }
    }
    Chs chs;
    chs.cylinders = static_cast<uint16_t>(cylTimesHeads / heads);
    chs.heads = static_cast<uint8_t>(heads);
    chs.sectorsPerTrack = static_cast<uint8_t>(spt);
    return chs;
}

Status DecodeFooter(const uint8_t (&bytes)[kFooterSize], Footer* f) {
    const auto raw = LoadRaw<RawFooter>(bytes);
    if (std::memcmp(raw.cookie, kFooterCookie, 8) != 0) return kFooterMissing;
    f->checksum = raw.checksum.get();
    if (ChecksumOf(raw) != f->checksum) return kFooterChecksumMismatch;
    f->features = raw.features.get();
    f->version = raw.version.get();
    if ((f->version >> 16) != 1) return kFormatUnsupportedVersion;
    f->dataOffset = raw.dataOffset.get();
    f->timestamp = raw.timestamp.get();
    f->creatorApp = raw.creatorApp.get();
    f->creatorVersion = raw.creatorVersion.get();
    f->creatorHost = raw.creatorHost.get();
    f->originalSize = raw.originalSize.get();
    f->currentSize = raw.currentSize.get();
    f->geometry.cylinders = raw.cylinders.get();
    f->geometry.heads = raw.heads;
    f->geometry.sectorsPerTrack = raw.sectorsPerTrack;
    f->diskType = raw.diskType.get();
    std::memcpy(f->uniqueId.data(), raw.uniqueId, 16);
    f->savedState = raw.savedState;
    return kOk;
}

void EncodeFooter(Footer* f, uint8_t (&bytes)[kFooterSize]) {
    RawFooter raw{};
    std::memcpy(raw.cookie, kFooterCookie, 8);
    raw.features.set(f->features);
    raw.version.set(f->version);
    raw.dataOffset.set(f->dataOffset);
    raw.timestamp.set(f->timestamp);
    raw.creatorApp.set(f->creatorApp);
    raw.creatorVersion.set(f->creatorVersion);
    raw.creatorHost.set(f->creatorHost);
    raw.originalSize.set(f->originalSize);
    raw.currentSize.set(f->currentSize);
    raw.cylinders.set(f->geometry.cylinders);
    raw.heads = f->geometry.heads;
    raw.sectorsPerTrack = f->geometry.sectorsPerTrack;
    raw.diskType.set(f->diskType);
    std::memcpy(raw.uniqueId, f->uniqueId.data(), 16);
    raw.savedState = f->savedState;
    f->checksum = ChecksumOf(raw);
    raw.checksum.set(f->checksum);
    StoreRaw(bytes, raw);
}

Status DecodeDynamicHeader(const uint8_t (&bytes)[kDynamicHeaderSize], DynamicHeader* h) {
    const auto raw = LoadRaw<RawDynamicHeader>(bytes);
    if (std::memcmp(raw.cookie, kHeaderCookie, 8) != 0) return kSparseHeaderCorrupt;
    h->checksum = raw.checksum.get();
    if (ChecksumOf(raw) != h->checksum) return kSparseHeaderChecksumMismatch;
    h->version = raw.version.get();
    if ((h->version >> 16) != 1) return kSparseHeaderUnsupportedVersion;
    h->dataOffset = raw.dataOffset.get();
    h->tableOffset = raw.tableOffset.get();
    h->maxTableEntries = raw.maxTableEntries.get();
    h->blockSize = raw.blockSize.get();
    std::memcpy(h->parentUniqueId.data(), raw.parentUniqueId, 16);
    h->parentTimestamp = raw.parentTimestamp.get();
    for (size_t i = 0; i < h->parentName.size(); ++i) h->parentName[i] = static_cast<char16_t>(raw.parentName[i].get());
    for (size_t i = 0; i < h->locators.size(); ++i) {
        const RawParentLocator& e = raw.locators[i];
        h->locators[i] = {e.platformCode.get(), e.dataSpace.get(), e.dataLength.get(), e.dataOffset.get()};
    }
    return kOk;
}

void EncodeDynamicHeader(DynamicHeader* h, uint8_t (&bytes)[kDynamicHeaderSize]) {
    RawDynamicHeader raw{};
    std::memcpy(raw.cookie, kHeaderCookie, 8);
    raw.dataOffset.set(h->dataOffset);
    raw.tableOffset.set(h->tableOffset);
    raw.version.set(h->version);
    raw.maxTableEntries.set(h->maxTableEntries);
    raw.blockSize.set(h->blockSize);
    std::memcpy(raw.parentUniqueId, h->parentUniqueId.data(), 16);
    raw.parentTimestamp.set(h->parentTimestamp);
    for (size_t i = 0; i < h->parentName.size(); ++i) raw.parentName[i].set(h->parentName[i]);
    for (size_t i = 0; i < h->locators.size(); ++i) {
        RawParentLocator& e = raw.locators[i];
        e.platformCode.set(h->locators[i].platformCode);
        e.dataSpace.set(h->locators[i].dataSpace);
        e.dataLength.set(h->locators[i].dataLength);
        e.dataOffset.set(h->locators[i].dataOffset);
    }
    h->checksum = ChecksumOf(raw);
    raw.checksum.set(h->checksum);
    StoreRaw(bytes, raw);
}

std::u16string DecodeUtf16Le(const uint8_t* data, size_t bytes) {
    std::u16string text;
    text.reserve(bytes / 2);
    for (size_t i = 0; i + 1 < bytes; i += 2) {
        const char16_t c = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
        if (c == 0) break;
        text.push_back(c);
    }
    return text;
}

std::string EncodeUtf16Le(const std::u16string& text) {
    std::string bytes;
    bytes.reserve(text.size() * 2);
    for (char16_t c : text) {
        bytes.push_back(static_cast<char>(c & 0xFF));
        bytes.push_back(static_cast<char>(c >> 8));
    }
    return bytes;
}

}  // namespace kx::vhd
