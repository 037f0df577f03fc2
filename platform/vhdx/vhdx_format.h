// The on-disk structures of a VHDX file and their checks: the file
// identifier, the two headers, the region table, the metadata table and its
// items, allocation table entries and the log's entries. All integers are
// little-endian; every structure with a checksum carries a CRC-32C over its
// whole extent with the checksum field taken as zero.
//
// Layout of the first MiB: identifier at 0, headers at 64 and 128 KiB,
// region table copies at 192 and 256 KiB. Everything else (log, metadata,
// allocation table, blocks) is placed on 1 MiB boundaries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/vhd/vhd_status.h"
#include "platform/vhdx/vhdx_disk.h"

namespace kx::vhdx {

inline constexpr uint64_t kKiB = 1024;
inline constexpr uint64_t kMiB = 1024 * 1024;
inline constexpr uint64_t kHeaderOffsets[2] = {64 * kKiB, 128 * kKiB};
inline constexpr uint64_t kRegionTableOffsets[2] = {192 * kKiB, 256 * kKiB};
inline constexpr uint32_t kHeaderSize = 4096;
inline constexpr uint32_t kRegionTableSize = 64 * 1024;
inline constexpr uint32_t kLogSector = 4096;
inline constexpr uint64_t kMaxVirtualSize = 64ull << 40;
inline constexpr uint32_t kMinBlockSize = 1u << 20;
inline constexpr uint32_t kMaxBlockSize = 256u << 20;
inline constexpr uint32_t kMaxTableEntries = 2047;

// Payload block states in the allocation table (low three bits of an entry).
enum BlockState : uint8_t {
    kBlockNotPresent = 0,
    kBlockUndefined = 1,
    kBlockZero = 2,
    kBlockUnmapped = 3,
    kBlockFullyPresent = 6,
    kBlockPartiallyPresent = 7,
};
// Sector bitmap block states.
inline constexpr uint8_t kBitmapNotPresent = 0;
inline constexpr uint8_t kBitmapPresent = 6;

inline uint8_t EntryState(uint64_t entry) { return static_cast<uint8_t>(entry & 7); }
inline uint64_t EntryOffset(uint64_t entry) { return (entry >> 20) * kMiB; }
inline uint64_t MakeEntry(uint8_t state, uint64_t offset) { return (offset / kMiB) << 20 | state; }

template <class T>
inline T LoadLe(const uint8_t* p) {
    T v = 0;
    for (size_t i = sizeof(T); i-- > 0;) v = static_cast<T>((v << 8) | p[i]);
    return v;
}
template <class T>
inline void StoreLe(uint8_t* p, T v) {
    for (size_t i = 0; i < sizeof(T); ++i, v = static_cast<T>(v >> 8)) p[i] = static_cast<uint8_t>(v);
}

uint32_t Crc32c(const void* data, size_t bytes, uint32_t crc = 0);
// The checksum of a structure whose CRC field sits at `crcAt`, that field
// taken as zero; and the same stored into the field.
uint32_t StructureCrc(const uint8_t* p, size_t bytes, size_t crcAt);
void SealStructure(uint8_t* p, size_t bytes, size_t crcAt);

// A GUID from its text form "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" (braces
// optional), in the byte order the file stores: the first three groups
// little-endian. False on malformed text.
bool ParseGuid(const std::u16string& text, Guid* guid);
std::u16string FormatGuid(const Guid& guid);  // "{XXXXXXXX-...}"
Guid GuidOf(const char* text);                // for constants
Guid NewGuid();
inline bool IsZero(const Guid& g) {
    for (uint8_t b : g)
        if (b) return false;
    return true;
}

// Region and metadata item identifiers.
extern const Guid kBatRegion;
extern const Guid kMetadataRegion;
extern const Guid kFileParametersItem;
extern const Guid kVirtualDiskSizeItem;
extern const Guid kPage83Item;
extern const Guid kLogicalSectorItem;
extern const Guid kPhysicalSectorItem;
extern const Guid kParentLocatorItem;
extern const Guid kParentLocatorType;

struct Header {
    uint64_t sequence = 0;
    Guid fileWriteGuid{};
    Guid dataWriteGuid{};
    Guid logGuid{};
    uint16_t logVersion = 0;
    uint16_t version = 1;
    uint32_t logLength = 0;
    uint64_t logOffset = 0;
};
// kOk, kFooterChecksumMismatch (bad signature or CRC), kFormatUnsupportedVersion
// or kFooterCorrupt (misplaced log).
Status ParseHeader(const uint8_t* raw, Header* header);
void BuildHeader(const Header& header, uint8_t* raw);  // kHeaderSize bytes

struct Region {
    Guid id{};
    uint64_t offset = 0;
    uint32_t length = 0;
    bool required = false;
};
Status ParseRegionTable(const uint8_t* raw, std::vector<Region>* regions);
void BuildRegionTable(const std::vector<Region>& regions, uint8_t* raw);  // kRegionTableSize bytes

struct MetadataItem {
    Guid id{};
    uint32_t offset = 0;
    uint32_t length = 0;
    bool isUser = false;
    bool isVirtualDisk = false;
    bool required = false;
};
// The table at the start of the metadata region of `regionBytes` bytes.
Status ParseMetadataTable(const uint8_t* raw, uint32_t regionBytes, std::vector<MetadataItem>* items);
void BuildMetadataTable(const std::vector<MetadataItem>& items, uint8_t* raw);  // 64 KiB

// The key/value pairs of a parent locator item.
Status ParseParentLocator(const uint8_t* raw, uint32_t bytes, std::map<std::u16string, std::u16string>* entries);
std::vector<uint8_t> BuildParentLocator(const std::map<std::u16string, std::u16string>& entries);

// The log: a circular buffer of entries, each a 4 KiB-multiple run of a
// header with descriptors, then one 4 KiB data sector per data descriptor.
struct LogWrite {
    uint64_t fileOffset = 0;
    std::vector<uint8_t> sector;  // 4096 bytes; empty for a run of zeros
    uint64_t zeroLength = 0;      // zero descriptors only
};
struct LogEntry {
    uint64_t sequence = 0;
    uint32_t tail = 0;
    uint64_t flushedFileOffset = 0;
    uint64_t lastFileOffset = 0;
    std::vector<LogWrite> writes;
};
// Builds one entry, `logGuid` its owner.
std::vector<uint8_t> BuildLogEntry(const LogEntry& entry, const Guid& logGuid);

// What the active sequence of a log asks to be written.
struct LogReplay {
    bool empty = true;
    uint64_t flushedFileOffset = 0;
    uint64_t lastFileOffset = 0;
    uint64_t lastSequence = 0;
    uint32_t nextOffset = 0;     // where a new entry would follow the sequence
    std::vector<LogWrite> writes;  // in replay order
};
// Finds the active sequence in the log bytes `log` owned by `logGuid`.
// kOk with empty = true when no entry belongs to it; kMetadataReadFailure
// when the newest sequence is incomplete or names impossible writes.
Status ScanLog(const std::vector<uint8_t>& log, const Guid& logGuid, LogReplay* replay);

}  // namespace kx::vhdx
