// The bitmap file: a 256-byte little-endian header followed by one bit per
// sector of the disk (sector s in byte 256 + s / 8).
#pragma once

#include <windows.h>

#include <cstdint>

namespace kx::bitmap {

#pragma pack(push, 1)
struct BitmapFileHeader {
    uint32_t version;           // always 1
    uint32_t differencing;      // 1 for a disk of an incremental session, 0 for a full image
    int64_t totalSectors;       // disk size / bytes per sector
    uint8_t reserved[240];      // zero
};
#pragma pack(pop)

inline constexpr DWORD kBitmapHeaderSize = 256;
static_assert(sizeof(BitmapFileHeader) == kBitmapHeaderSize);

inline constexpr uint32_t kBitmapFileVersion = 1;

// Bitmap bytes moved per request when a bitmap file is written (32768 sectors).
inline constexpr DWORD kTransferBytes = 4096;

}  // namespace kx::bitmap
