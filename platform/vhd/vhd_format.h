// The on-disk structures of a VHD file: the 512-byte footer, the 1024-byte
// dynamic disk header with its parent locators, and the CHS geometry rule.
// Every field is big-endian on disk: the Raw* structs below have the file's
// exact layout, and the helpers decode them into host structs and encode
// back, with the format's one's-complement checksums.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/vhd/big_endian.h"
#include "platform/vhd/vhd_status.h"

namespace kx::vhd {

inline constexpr uint32_t kSectorSize = 512;
inline constexpr uint32_t kFooterSize = 512;
inline constexpr uint32_t kDynamicHeaderSize = 1024;
inline constexpr uint64_t kNoOffset = ~0ull;
inline constexpr uint32_t kUnallocated = 0xFFFFFFFFu;
inline constexpr uint32_t kDefaultBlockSize = 2u << 20;
// The largest disk the format's users accept: 2040 GiB.
inline constexpr uint64_t kMaxDiskSize = 2040ull << 30;

enum class DiskType : uint32_t { kFixed = 2, kDynamic = 3, kDifferencing = 4 };

// Platform codes of parent locators.
inline constexpr uint32_t kLocatorNone = 0;
inline constexpr uint32_t kLocatorW2ru = 0x57327275;  // relative path, UTF-16LE
inline constexpr uint32_t kLocatorW2ku = 0x57326B75;  // absolute path, UTF-16LE

struct Chs {
    uint16_t cylinders = 0;
    uint8_t heads = 0;
    uint8_t sectorsPerTrack = 0;
};

// The geometry the format assigns to a disk of `totalSectors` sectors.
Chs ChsForSectors(uint64_t totalSectors);

using Guid = std::array<uint8_t, 16>;

struct Footer {
    uint32_t features = 2;
    uint32_t version = 0x00010000;
    uint64_t dataOffset = kNoOffset;
    uint32_t timestamp = 0;  // seconds since 2000-01-01 00:00 UTC
    uint32_t creatorApp = 0;
    uint32_t creatorVersion = 0;
    uint32_t creatorHost = 0;
    uint64_t originalSize = 0;
    uint64_t currentSize = 0;
    Chs geometry;
    uint32_t diskType = 0;
    uint32_t checksum = 0;
    Guid uniqueId{};
    uint8_t savedState = 0;
};

struct ParentLocator {
    uint32_t platformCode = kLocatorNone;
    uint32_t dataSpace = 0;
    uint32_t dataLength = 0;
    uint64_t dataOffset = 0;
};

struct DynamicHeader {
    uint64_t dataOffset = kNoOffset;
    uint64_t tableOffset = 0;
    uint32_t version = 0x00010000;
    uint32_t maxTableEntries = 0;
    uint32_t blockSize = kDefaultBlockSize;
    uint32_t checksum = 0;
    Guid parentUniqueId{};
    uint32_t parentTimestamp = 0;
    std::array<char16_t, 256> parentName{};  // UTF-16, stored big-endian
    std::array<ParentLocator, 8> locators{};
};

// The structures as they lie in the file.
struct RawFooter {
    char cookie[8];
    Be32 features;
    Be32 version;
    Be64 dataOffset;
    Be32 timestamp;
    Be32 creatorApp;
    Be32 creatorVersion;
    Be32 creatorHost;
    Be64 originalSize;
    Be64 currentSize;
    Be16 cylinders;
    uint8_t heads;
    uint8_t sectorsPerTrack;
    Be32 diskType;
    Be32 checksum;
    uint8_t uniqueId[16];
    uint8_t savedState;
    uint8_t reserved[427];
};
static_assert(sizeof(RawFooter) == kFooterSize && alignof(RawFooter) == 1);
static_assert(offsetof(RawFooter, dataOffset) == 16 && offsetof(RawFooter, currentSize) == 48 &&
              offsetof(RawFooter, cylinders) == 56 && offsetof(RawFooter, diskType) == 60 &&
              offsetof(RawFooter, checksum) == 64 && offsetof(RawFooter, uniqueId) == 68 &&
              offsetof(RawFooter, savedState) == 84);

struct RawParentLocator {
    Be32 platformCode;
    Be32 dataSpace;
    Be32 dataLength;
    uint8_t reserved[4];
    Be64 dataOffset;
};
static_assert(sizeof(RawParentLocator) == 24 && offsetof(RawParentLocator, dataOffset) == 16);

struct RawDynamicHeader {
    char cookie[8];
    Be64 dataOffset;
    Be64 tableOffset;
    Be32 version;
    Be32 maxTableEntries;
    Be32 blockSize;
    Be32 checksum;
    uint8_t parentUniqueId[16];
    Be32 parentTimestamp;
    uint8_t reserved1[4];
    Be16 parentName[256];
    RawParentLocator locators[8];
    uint8_t reserved2[256];
};
static_assert(sizeof(RawDynamicHeader) == kDynamicHeaderSize && alignof(RawDynamicHeader) == 1);
static_assert(offsetof(RawDynamicHeader, tableOffset) == 16 && offsetof(RawDynamicHeader, version) == 24 &&
              offsetof(RawDynamicHeader, maxTableEntries) == 28 && offsetof(RawDynamicHeader, blockSize) == 32 &&
              offsetof(RawDynamicHeader, checksum) == 36 && offsetof(RawDynamicHeader, parentUniqueId) == 40 &&
              offsetof(RawDynamicHeader, parentTimestamp) == 56 && offsetof(RawDynamicHeader, parentName) == 64 &&
              offsetof(RawDynamicHeader, locators) == 576);

// One's complement of the byte sum, the checksum field counted as zero.
uint32_t ChecksumOf(const RawFooter& raw);
uint32_t ChecksumOf(const RawDynamicHeader& raw);

// Decoding checks the cookie, then the checksum, then the version; the
// remaining fields are the caller's to validate.
Status DecodeFooter(const uint8_t (&raw)[kFooterSize], Footer* footer);
void EncodeFooter(Footer* footer, uint8_t (&raw)[kFooterSize]);  // fills in the checksum
Status DecodeDynamicHeader(const uint8_t (&raw)[kDynamicHeaderSize], DynamicHeader* header);
void EncodeDynamicHeader(DynamicHeader* header, uint8_t (&raw)[kDynamicHeaderSize]);

// UTF-16LE bytes of a locator, and back.
std::u16string DecodeUtf16Le(const uint8_t* data, size_t bytes);
std::string EncodeUtf16Le(const std::u16string& text);

}  // namespace kx::vhd
