// The MBR's partition table as the boot repairs read it: four 16-byte
// entries from byte 446 of sector 0, status 0x80 for the active one, the
// first LBA and the sector count little-endian at +8 and +12.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kx::hyperv::mbr {

inline constexpr size_t kEntriesAt = 0x1BE;
inline constexpr size_t kEntryBytes = 16;
inline constexpr uint8_t kActive = 0x80;

inline uint32_t Get32(const uint8_t* p) {
    return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// The index of the first entry whose status is active, or -1.
inline int ActiveEntry(const uint8_t* sector) {
    for (int i = 0; i < 4; ++i)
        if (sector[kEntriesAt + kEntryBytes * i] == kActive) return i;
    return -1;
}

inline const uint8_t* Entry(const uint8_t* sector, int index) { return sector + kEntriesAt + kEntryBytes * index; }
inline uint8_t* Entry(uint8_t* sector, int index) { return sector + kEntriesAt + kEntryBytes * index; }
inline uint32_t FirstLba(const uint8_t* entry) { return Get32(entry + 8); }
inline uint32_t SectorCount(const uint8_t* entry) { return Get32(entry + 12); }

}  // namespace kx::hyperv::mbr
