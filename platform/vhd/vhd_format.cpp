#include "platform/vhd/vhd_format.h"

#include <cstring>

namespace kx::vhd {
namespace {

constexpr char kFooterCookie[8] = {'c', 'o', 'n', 'e', 'c', 't', 'i', 'x'};
constexpr char kHeaderCookie[8] = {'c', 'x', 's', 'p', 'a', 'r', 's', 'e'};

uint64_t LoadBe64(const uint8_t* p) { return (uint64_t{LoadBe32(p)} << 32) | LoadBe32(p + 4); }
uint16_t LoadBe16(const uint8_t* p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }
void StoreBe64(uint8_t* p, uint64_t v) {
    StoreBe32(p, static_cast<uint32_t>(v >> 32));
    StoreBe32(p + 4, static_cast<uint32_t>(v));
}
void StoreBe16(uint8_t* p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

// One's complement of the byte sum, the checksum field itself counted as 0.
uint32_t Checksum(const uint8_t* raw, size_t size, size_t checksumAt) {
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i)
        if (i < checksumAt || i >= checksumAt + 4) sum += raw[i];
    return ~sum;
}

}  // namespace

uint32_t LoadBe32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | uint32_t{p[3]};
}
void StoreBe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

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

Status DecodeFooter(const uint8_t (&raw)[kFooterSize], Footer* f) {
    if (std::memcmp(raw, kFooterCookie, 8) != 0) return kFooterMissing;
    f->checksum = LoadBe32(raw + 64);
    if (Checksum(raw, kFooterSize, 64) != f->checksum) return kFooterChecksumMismatch;
    f->features = LoadBe32(raw + 8);
    f->version = LoadBe32(raw + 12);
    if ((f->version >> 16) != 1) return kFormatUnsupportedVersion;
    f->dataOffset = LoadBe64(raw + 16);
    f->timestamp = LoadBe32(raw + 24);
    f->creatorApp = LoadBe32(raw + 28);
    f->creatorVersion = LoadBe32(raw + 32);
    f->creatorHost = LoadBe32(raw + 36);
    f->originalSize = LoadBe64(raw + 40);
    f->currentSize = LoadBe64(raw + 48);
    f->geometry.cylinders = LoadBe16(raw + 56);
    f->geometry.heads = raw[58];
    f->geometry.sectorsPerTrack = raw[59];
    f->diskType = LoadBe32(raw + 60);
    std::memcpy(f->uniqueId.data(), raw + 68, 16);
    f->savedState = raw[84];
    return kOk;
}

void EncodeFooter(Footer* f, uint8_t (&raw)[kFooterSize]) {
    std::memset(raw, 0, sizeof raw);
    std::memcpy(raw, kFooterCookie, 8);
    StoreBe32(raw + 8, f->features);
    StoreBe32(raw + 12, f->version);
    StoreBe64(raw + 16, f->dataOffset);
    StoreBe32(raw + 24, f->timestamp);
    StoreBe32(raw + 28, f->creatorApp);
    StoreBe32(raw + 32, f->creatorVersion);
    StoreBe32(raw + 36, f->creatorHost);
    StoreBe64(raw + 40, f->originalSize);
    StoreBe64(raw + 48, f->currentSize);
    StoreBe16(raw + 56, f->geometry.cylinders);
    raw[58] = f->geometry.heads;
    raw[59] = f->geometry.sectorsPerTrack;
    StoreBe32(raw + 60, f->diskType);
    std::memcpy(raw + 68, f->uniqueId.data(), 16);
    raw[84] = f->savedState;
    f->checksum = Checksum(raw, kFooterSize, 64);
    StoreBe32(raw + 64, f->checksum);
}

Status DecodeDynamicHeader(const uint8_t (&raw)[kDynamicHeaderSize], DynamicHeader* h) {
    if (std::memcmp(raw, kHeaderCookie, 8) != 0) return kSparseHeaderCorrupt;
    h->checksum = LoadBe32(raw + 36);
    if (Checksum(raw, kDynamicHeaderSize, 36) != h->checksum) return kSparseHeaderChecksumMismatch;
    h->version = LoadBe32(raw + 24);
    if ((h->version >> 16) != 1) return kSparseHeaderUnsupportedVersion;
    h->dataOffset = LoadBe64(raw + 8);
    h->tableOffset = LoadBe64(raw + 16);
    h->maxTableEntries = LoadBe32(raw + 28);
    h->blockSize = LoadBe32(raw + 32);
    std::memcpy(h->parentUniqueId.data(), raw + 40, 16);
    h->parentTimestamp = LoadBe32(raw + 56);
    for (size_t i = 0; i < h->parentName.size(); ++i) h->parentName[i] = static_cast<char16_t>(LoadBe16(raw + 64 + 2 * i));
    for (size_t i = 0; i < h->locators.size(); ++i) {
        const uint8_t* e = raw + 576 + 24 * i;
        h->locators[i] = {LoadBe32(e), LoadBe32(e + 4), LoadBe32(e + 8), LoadBe64(e + 16)};
    }
    return kOk;
}

void EncodeDynamicHeader(DynamicHeader* h, uint8_t (&raw)[kDynamicHeaderSize]) {
    std::memset(raw, 0, sizeof raw);
    std::memcpy(raw, kHeaderCookie, 8);
    StoreBe64(raw + 8, h->dataOffset);
    StoreBe64(raw + 16, h->tableOffset);
    StoreBe32(raw + 24, h->version);
    StoreBe32(raw + 28, h->maxTableEntries);
    StoreBe32(raw + 32, h->blockSize);
    std::memcpy(raw + 40, h->parentUniqueId.data(), 16);
    StoreBe32(raw + 56, h->parentTimestamp);
    for (size_t i = 0; i < h->parentName.size(); ++i) StoreBe16(raw + 64 + 2 * i, h->parentName[i]);
    for (size_t i = 0; i < h->locators.size(); ++i) {
        uint8_t* e = raw + 576 + 24 * i;
        StoreBe32(e, h->locators[i].platformCode);
        StoreBe32(e + 4, h->locators[i].dataSpace);
        StoreBe32(e + 8, h->locators[i].dataLength);
        StoreBe64(e + 16, h->locators[i].dataOffset);
    }
    h->checksum = Checksum(raw, kDynamicHeaderSize, 36);
    StoreBe32(raw + 36, h->checksum);
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
