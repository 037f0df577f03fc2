// The log configuration shared by every process of the product: a
// page-file-backed section of fixed layout, guarded by a named mutex.
//
// Layout (little-endian, byte offsets):
//   0        32-bit guard 0xE6E6
//   4        1024 reserved bytes (zero)
//   1028     32-bit signed number of the highest entry in use, -1 for none
//   1032     1024 entries of 1160 bytes (SharedEntry)
//   1188872  32-bit guard 0xE6E6
//
// An entry describes either a module (its threshold, which every process of
// that module that takes the shared settings follows) or a log (which of its
// rotated files is current, and its rotation size), so that all writers of
// one log move to the next file together. Entries are added under the mutex
// and never removed while the section lives; the section ends with the last
// process that has it open.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "common/unique_resource.h"

namespace kx::log {

inline constexpr uint32_t kSharedGuard = 0xE6E6;
inline constexpr size_t kSharedSize = 1188876;
inline constexpr size_t kSharedLastUsedOffset = 1028;
inline constexpr size_t kSharedEntriesOffset = 1032;
inline constexpr size_t kSharedEntryCount = 1024;
inline constexpr DWORD kSharedWaitMs = 5000;

inline constexpr uint32_t kModuleEntry = 1;
inline constexpr uint32_t kLogEntry = 2;
inline constexpr int kLevelUnset = -1;

struct SharedEntry {
    // A module's name, or the full path of a log's first file; compared
    // without regard to case.
    wchar_t name[512];
    uint32_t kind;       // kModuleEntry or kLogEntry
    int32_t level;       // module: threshold in force, kLevelUnset when none yet
    int32_t index;       // log: rotation index of the current file, 0 for the first
    uint32_t reserved0;
    uint64_t limit;      // log: size at which its files rotate, 0 for the standard size
    uint8_t reserved[108];
    uint32_t free;       // 1 while the entry is unused
};
static_assert(sizeof(SharedEntry) == 1160);
static_assert(kSharedEntriesOffset + kSharedEntryCount * sizeof(SharedEntry) + 4 == kSharedSize);

// Fields that writers read on every line without taking the mutex.
inline int32_t LoadRelaxed(int32_t& field) noexcept {
    return std::atomic_ref<int32_t>(field).load(std::memory_order_relaxed);
}
inline uint64_t LoadRelaxed(uint64_t& field) noexcept {
    return std::atomic_ref<uint64_t>(field).load(std::memory_order_relaxed);
}
inline void Store(int32_t& field, int32_t v) noexcept { std::atomic_ref<int32_t>(field).store(v); }
inline void Store(uint64_t& field, uint64_t v) noexcept { std::atomic_ref<uint64_t>(field).store(v); }

// Security attributes with no access list at all, so that every account of
// the host may open the object (services and interactive users alike).
class OpenToAll {
public:
    OpenToAll() noexcept;
    SECURITY_ATTRIBUTES* get() noexcept { return &sa_; }

private:
    SECURITY_DESCRIPTOR sd_{};
    SECURITY_ATTRIBUTES sa_{};
};

class SharedConfig {
public:
    // Opens configuration block `index`, creating and initialising it when
    // this process is the first. Leaves the object unavailable when the block
    // cannot be had or does not carry the expected guards.
    void Open(int index) noexcept;
    bool available() const noexcept { return base_ != nullptr; }

    // The block's mutex, waited for at most 5000 ms; empty on failure.
    mutex_release Lock() const noexcept;

    // With the lock held: the entry of that kind and name, added when missing
    // (`*added` tells which). Null when unavailable or the table is full.
    SharedEntry* Find(uint32_t kind, const wchar_t* name, bool* added) noexcept;

private:
    unique_handle mutex_;
    unique_handle section_;
    unique_view view_;
    uint8_t* base_ = nullptr;
};

}  // namespace kx::log
