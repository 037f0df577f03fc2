// The on-disk structures of a VHD file: the 512-byte footer, the 1024-byte
// dynamic disk header with its parent locators, and the CHS geometry rule.
// Every field is big-endian on disk; these helpers decode into host structs
// and encode back, with the format's one's-complement checksums.
#pragma once

#include <array>
#include <cstdint>
#include <string>

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

// Decoding checks the cookie, then the checksum, then the version; the
// remaining fields are the caller's to validate.
Status DecodeFooter(const uint8_t (&raw)[kFooterSize], Footer* footer);
void EncodeFooter(Footer* footer, uint8_t (&raw)[kFooterSize]);  // fills in the checksum
Status DecodeDynamicHeader(const uint8_t (&raw)[kDynamicHeaderSize], DynamicHeader* header);
void EncodeDynamicHeader(DynamicHeader* header, uint8_t (&raw)[kDynamicHeaderSize]);

// Big-endian field access, shared with the BAT code.
uint32_t LoadBe32(const uint8_t* p);
void StoreBe32(uint8_t* p, uint32_t v);

// UTF-16LE bytes of a locator, and back.
std::u16string DecodeUtf16Le(const uint8_t* data, size_t bytes);
std::string EncodeUtf16Le(const std::u16string& text);

}  // namespace kx::vhd
