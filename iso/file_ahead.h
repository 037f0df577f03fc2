// Reading the files of an image ahead of the image's reader.
//
// Opening a file costs far more than reading a few kilobytes of it: a
// round trip to open it, one to learn its size and time, one to close it.
// For a tree of thousands of small files those waits, one after the other,
// are most of the time an image takes. FilesAhead serves the files in the
// order the image holds them while a few workers open them ahead of the
// reader (at most kWindow files ahead), check that size and last-write time
// are still those recorded when the file was added, read small files whole
// and close them, and hand over large files open at offset 0. The reader
// may ask for any file in any order; a file outside the window restarts the
// workers there. What is held ahead is bounded by the window, never by the
// size of the data.
//
// A file may come with the handle it was opened with when it was added to
// the image (a HeldFile). That handle is then used instead of a second
// open; as its file position is shared, one reader at a time borrows it,
// and a reader that finds it borrowed opens the file by name.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_resource.h"

namespace kx::iso {

// The system's own lock and condition: they wait without a kernel object
// of their own (a file system round trip each, where the system is
// emulated).
class Monitor {
public:
    void Lock() noexcept { ::AcquireSRWLockExclusive(&lock_); }
    void Unlock() noexcept { ::ReleaseSRWLockExclusive(&lock_); }
    template <class Ready>
    void Wait(CONDITION_VARIABLE& cv, Ready ready) noexcept {
        while (!ready()) ::SleepConditionVariableSRW(&cv, &lock_, INFINITE, 0);
    }
    static void WakeOne(CONDITION_VARIABLE& cv) noexcept { ::WakeConditionVariable(&cv); }
    static void WakeAll(CONDITION_VARIABLE& cv) noexcept { ::WakeAllConditionVariable(&cv); }

    class Hold {
    public:
        explicit Hold(Monitor& m) noexcept : m_(m) { m_.Lock(); }
        ~Hold() { m_.Unlock(); }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;

    private:
        Monitor& m_;
    };

private:
    SRWLOCK lock_ = SRWLOCK_INIT;
};


// Opens a source file to be read from start to end, leaving others free to
// read, write, rename and delete it.
unique_hfile OpenForReading(const std::wstring& path);

// A file kept open since it was added to the image.
struct HeldFile {
    explicit HeldFile(unique_hfile f) noexcept : file(std::move(f)) {}
    unique_hfile file;
    std::atomic<bool> lent{false};
};

// The handle a file is read through: opened for this reader and closed
// with it, or a held file's handle, lent to it and given back with it.
class ReadHandle {
public:
    ReadHandle() = default;
    explicit ReadHandle(unique_hfile own) noexcept : own_(std::move(own)) {}
    // `held` must have been taken (its `lent` set) by the caller.
    explicit ReadHandle(std::shared_ptr<HeldFile> held) noexcept : held_(std::move(held)) {}
    ReadHandle(ReadHandle&&) noexcept = default;
    ReadHandle& operator=(ReadHandle&& other) noexcept {
        if (this != &other) {
            GiveBack();
            own_ = std::move(other.own_);
            held_ = std::move(other.held_);
        }
        return *this;
    }
    ~ReadHandle() { GiveBack(); }

    HANDLE get() const noexcept { return held_ ? held_->file.get() : own_.get(); }
    explicit operator bool() const noexcept { return held_ ? static_cast<bool>(held_->file) : static_cast<bool>(own_); }

private:
    void GiveBack() noexcept {
        if (held_) held_->lent.store(false);
        held_.reset();
    }
    unique_hfile own_;
    std::shared_ptr<HeldFile> held_;
};

struct AheadFile {
    std::wstring path;  // empty: not a file on disk; served as "nothing to open"
    uint64_t size = 0;
    FILETIME modified{};
    std::shared_ptr<HeldFile> held;  // the handle from the addition, if kept
};

class FilesAhead {
public:
    // Files of at most this size are read whole by the workers.
    static constexpr uint64_t kWholeFileBytes = 256 << 10;
    static constexpr size_t kWindow = 64;
    static constexpr unsigned kWorkers = 4;

    struct Opened {
        HRESULT hr = S_OK;     // the open, the size and time query, or the read failed
        bool changed = false;  // size or time differ from the recorded ones
        bool ended = false;    // a small file ended before its recorded size
        uint64_t sizeNow = 0;
        ReadHandle file;            // large files, at offset 0
        std::vector<uint8_t> data;  // small files, whole
    };

    // `files` stays alive and unchanged for the life of this object.
    explicit FilesAhead(const std::vector<AheadFile>& files) : files_(files) {}
    ~FilesAhead();
    FilesAhead(const FilesAhead&) = delete;
    FilesAhead& operator=(const FilesAhead&) = delete;

    // The file at `index` of the list, opened (and, if small, read).
    Opened Take(size_t index);

    // Opens (and, if small, reads) one file on the calling thread.
    static Opened Open(const AheadFile& file);

private:
    struct Slot {
        bool ready = false;
        size_t index = 0;
        Opened opened;
    };
    void Work();
    // Drops what is held for indexes in [from, to); the caller holds mu_.
    void DropLocked(size_t from, size_t to, std::vector<Opened>& dropped);

    const std::vector<AheadFile>& files_;
    Monitor mu_;
    CONDITION_VARIABLE work_ = CONDITION_VARIABLE_INIT;   // workers wait here
    CONDITION_VARIABLE ready_ = CONDITION_VARIABLE_INIT;  // the reader waits here
    std::vector<Slot> slots_ = std::vector<Slot>(kWindow);
    std::vector<std::thread> workers_;
    size_t base_ = 0;   // the next index the reader is expected to take
    size_t claim_ = 0;  // the next index a worker takes up
    uint64_t round_ = 0;  // advanced when the reader jumps out of the window
    bool started_ = false;
    bool stop_ = false;
};

}  // namespace kx::iso
