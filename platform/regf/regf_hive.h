// An offline registry hive engine: opens a hive file through the positioned
// file layer, walks and edits it in memory and writes back only what changed.
//
// Result codes (Win32 numbering so a Windows caller can hand them on):
//   0    kOk
//   2    kNotFound       the key or value does not exist
//   5    kAccessDenied   commit/edit of a hive opened read-only; deleting the root
//   8    kOutOfMemory    the hive cannot grow any further
//   13   kInvalidData    a name or value the hive cannot hold (empty or too long
//                        key name, '\' inside a name, data over 1 GiB)
//   87   kInvalidParameter  a null handle or output
//   259  kNoMoreItems    enumeration index past the end
//   1009 kBadDb          the file is not a well-formed hive; nothing is written
//   1018 kKeyDeleted     the handle names a key that has been deleted
// Failures of the file layer come through as the file layer reported them.
//
// Names compare as Windows compares them: UTF-16 code units after simple
// upper-casing of ASCII, Latin-1 (0xE0-0xFE except 0xF7, and 0xFF), Latin
// Extended-A, basic Greek and basic Cyrillic letters (see regf_names.h).
//
// Dirty hives (primary and secondary sequence numbers differ, a write that
// did not complete): the engine does not replay transaction logs. Such a hive
// opens read-only unless OpenOptions::acceptDirty is set; then the next
// commit writes a consistent base block with equal sequence numbers.
//
// A Hive is used by one thread at a time; it holds the whole hive in memory
// and its file until destroyed. Destroying it does not commit.
//
// Commit order: primary sequence +1 and the base block written (still with
// the bins length that is on disk) and flushed; then the changed 4 KiB pages
// of the bins, new bins first, flushed; then secondary = primary, the new
// bins length, and the base block again, flushed. An interrupted commit
// leaves a hive whose sequence numbers differ; ReadHeader tells so even when
// the pages written so far leave the structure torn (Open then refuses it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/vhd/positioned_io.h"

namespace kx::regf {

// Leaves new elements uninitialised on resize(n): the hive image is read over
// at once, and touching tens of MiB twice costs more than the read.
template <class T>
struct UninitialisedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <class U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) noexcept {}
    template <class U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};

using Result = uint32_t;
inline constexpr Result kOk = 0;
inline constexpr Result kNotFound = 2;
inline constexpr Result kAccessDenied = 5;
inline constexpr Result kOutOfMemory = 8;
inline constexpr Result kInvalidData = 13;
inline constexpr Result kInvalidParameter = 87;
inline constexpr Result kNoMoreItems = 259;
inline constexpr Result kBadDb = 1009;
inline constexpr Result kKeyDeleted = 1018;

// Value types as the registry numbers them; any other number is kept as is.
enum ValueType : uint32_t {
    kRegNone = 0,
    kRegSz = 1,
    kRegExpandSz = 2,
    kRegBinary = 3,
    kRegDword = 4,
    kRegDwordBigEndian = 5,
    kRegLink = 6,
    kRegMultiSz = 7,
    kRegQword = 11,
};

// A key of an open hive. It stays valid across edits until the key itself is
// deleted (then operations answer kKeyDeleted, unless its cell has been
// reused by a new key since).
struct Key {
    uint32_t cell = 0xFFFFFFFFu;
    bool Valid() const { return cell != 0xFFFFFFFFu; }
    friend bool operator==(Key, Key) = default;
};

struct Value {
    uint32_t type = kRegNone;
    std::vector<uint8_t> data;
};

struct KeyInfo {
    std::u16string name;
    uint32_t subkeys = 0;
    uint32_t values = 0;
    uint64_t lastWrite = 0;  // FILETIME
};

struct OpenOptions {
    bool writable = true;
    bool acceptDirty = false;
};

struct CommitStats {
    uint64_t bytesWritten = 0;  // base block writes included
    uint32_t pagesWritten = 0;  // 4 KiB pages of the bins
    uint32_t commits = 0;
};

// The XOR of the 127 little-endian 32-bit words at the start of a base
// block (its first 508 bytes), before the remapping of 0 and ~0 that Windows
// applies when it stores the checksum at byte 508.
uint32_t BaseChecksum(const uint8_t* base);

struct HeaderInfo {
    uint32_t primarySequence = 0;
    uint32_t secondarySequence = 0;
    bool dirty = false;
    uint32_t minorVersion = 0;
    uint32_t binsBytes = 0;
};

class Hive {
public:
    // Reads and checks the base block only (signature and checksum).
    static Result ReadHeader(vhd::PositionedFile& file, HeaderInfo* info);
    // Opens and validates the whole hive: base block, every bin and cell, and
    // every structure reachable from the root key. Nothing is written.
    static Result Open(std::unique_ptr<vhd::PositionedFile> file, const OpenOptions& options,
                       std::unique_ptr<Hive>* hive);
    ~Hive();
    Hive(const Hive&) = delete;
    Hive& operator=(const Hive&) = delete;

    Key Root() const { return Key{root_}; }
    bool ReadOnly() const { return readOnly_; }
    bool WasDirty() const { return wasDirty_; }
    bool Changed() const { return changed_; }
    uint32_t MinorVersion() const { return minor_; }

    // Paths are relative to `base`, components separated by '\'; an empty
    // path names `base` itself.
    Result OpenKey(Key base, std::u16string_view path, Key* key) const;
    // Creates every missing component of the path; `created` (optional) tells
    // whether the last one was new. New keys share their parent's security.
    Result CreateKey(Key base, std::u16string_view path, Key* key, bool* created = nullptr);
    // Deletes the key at `path` below `base` with everything beneath it; the
    // path must name at least one component (kInvalidParameter otherwise).
    Result DeleteKeyTree(Key base, std::u16string_view path);

    Result GetKeyInfo(Key key, KeyInfo* info) const;
    Result EnumSubkey(Key key, uint32_t index, std::u16string* name, Key* child = nullptr) const;
    Result EnumValue(Key key, uint32_t index, std::u16string* name, Value* value) const;
    Result GetValue(Key key, std::u16string_view name, Value* value) const;
    Result SetValue(Key key, std::u16string_view name, uint32_t type, const void* data, size_t bytes);
    Result DeleteValue(Key key, std::u16string_view name);

    // Writes the changes back (see the order above). Nothing to do when
    // nothing changed.
    Result Commit();
    const CommitStats& Stats() const { return stats_; }

private:
    Hive() = default;
    struct Cell;
    Result Load(const OpenOptions& options);
    // `claimed` gets one entry per 8 bytes of hive data: 0 where an allocated
    // cell starts, 1 everywhere else, so that a structure can only be the
    // whole of a cell that the bins really hold.
    Result ValidateBins(std::vector<uint8_t>* claimed);
    Result ValidateTree(std::vector<uint8_t>* claimed);
    Result ValidateKey(uint32_t nk, std::vector<uint32_t>* children, std::vector<uint8_t>* claimed);
    Result ValidateValue(uint32_t vk, std::vector<uint8_t>* claimed);

    // Cells.
    uint8_t* Payload(uint32_t off, uint32_t* bytes);
    const uint8_t* Payload(uint32_t off, uint32_t* bytes) const;
    bool IsKeyCell(uint32_t off) const;
    Result CheckKey(Key key) const;
    uint32_t Alloc(uint32_t payloadBytes);
    void Free(uint32_t off);
    void AddFree(uint32_t off, uint32_t size);
    void RemoveFree(uint32_t off, uint32_t size);
    uint32_t BinEnd(uint32_t off) const;
    void Touch(uint32_t off, uint32_t bytes);
    uint32_t R32(uint32_t off) const;
    uint16_t R16(uint32_t off) const;
    void W32(uint32_t off, uint32_t v);
    void W16(uint32_t off, uint16_t v);
    void WriteBytes(uint32_t off, const void* data, size_t bytes);

    // Keys and lists.
    std::u16string KeyName(uint32_t nk) const;
    std::u16string ValueName(uint32_t vk) const;
    void ForEachSubkey(uint32_t nk, const auto& fn) const;
    Result FindChild(uint32_t nk, std::u16string_view name, uint32_t* child) const;
    Result FindValue(uint32_t nk, std::u16string_view name, uint32_t* index, uint32_t* vk) const;
    Result InsertChild(uint32_t parent, uint32_t child, std::u16string_view name);
    Result InsertIntoLeaf(uint32_t leaf, uint32_t child, std::u16string_view name, uint32_t* newLeaf);
    void RemoveChild(uint32_t parent, uint32_t child);
    Result NewKey(uint32_t parent, std::u16string_view name, uint32_t* nk);
    void FreeKeyCells(uint32_t nk);
    void ReleaseSecurity(uint32_t sk);
    Result ReadData(uint32_t vk, Value* value) const;
    Result WriteData(uint32_t vk, const void* data, size_t bytes);
    void FreeData(uint32_t vk);
    void StampKey(uint32_t nk);

    std::unique_ptr<vhd::PositionedFile> file_;
    std::vector<uint8_t> base_;
    std::vector<uint8_t, UninitialisedAllocator<uint8_t>> data_;  // the hive bins, from file offset 4096
    std::vector<uint32_t> binStarts_;  // sorted
    std::vector<uint8_t> dirtyPages_;  // one flag per 4 KiB page of data_
    std::map<uint32_t, uint32_t> freeByOffset_;
    std::set<std::pair<uint32_t, uint32_t>> freeBySize_;
    uint32_t root_ = 0xFFFFFFFFu;
    uint32_t minor_ = 0;
    bool readOnly_ = false;
    bool wasDirty_ = false;
    bool changed_ = false;
    CommitStats stats_;
};

}  // namespace kx::regf
