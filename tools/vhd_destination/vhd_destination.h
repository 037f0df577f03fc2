// Backup destinations made of real VHD disk files, for the kxha demo and the
// tests: session folders with BackupInfo.XML and a change-tracking file, a
// dynamic disk where a disk first appears (the full session, or a disk added
// later), a differencing disk over the previous session's file in every
// later session, and seeded runs of written sectors remembered per session.
// Written with the portable VHD code, without the DLL.
#pragma once

#include <windows.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kx::fixture {

inline constexpr uint64_t kVhdBlockSectors = 4096;  // 2 MiB blocks

// Sector s is bit s % 8 of byte s / 8.
using SectorBits = std::vector<uint8_t>;

// "S" and the session number in ten digits, as session folders are named.
std::wstring SessionName(unsigned long n);

// Writes <folder>\BackupInfo.XML, making the folder first. 0 or the failing code.
DWORD WriteBackupInfo(const std::wstring& folder, unsigned n, const char* kind, const char* status = "Finished",
                      int encrypted = 0);

class VhdDestination {
public:
    struct Disk {
        std::wstring file;  // disk##########.zek
        uint64_t sectors = 0;
        unsigned firstSession = 1;
        std::map<unsigned, SectorBits> written;  // by session
    };

    // rootOf(n): the destination root that holds session n. Each disk of a
    // session gets `runs` runs of 1 to 256 sectors (every eighth across a
    // block boundary) and its last sector.
    explicit VhdDestination(std::function<std::wstring(unsigned)> rootOf, int runs = 160)
        : rootOf_(std::move(rootOf)), runs_(runs) {}

    Disk& AddDisk(const std::wstring& file, uint64_t sectors, unsigned firstSession) {
        disks_.push_back({file, sectors, firstSession, {}});
        return disks_.back();
    }

    std::wstring SessionFolder(unsigned n) const;
    std::wstring DiskPath(unsigned n, const std::wstring& file) const { return SessionFolder(n) + L"\\" + file; }

    // Writes session n; sessions are written in ascending order. 0 or the
    // failing code.
    DWORD WriteSession(unsigned n, bool full, bool finished = true);

    // The sectors written to `d` in sessions lowest..highest.
    SectorBits Union(const Disk& d, unsigned lowest, unsigned highest) const;

    std::deque<Disk>& disks() { return disks_; }

private:
    std::function<std::wstring(unsigned)> rootOf_;
    int runs_;
    std::deque<Disk> disks_;  // references stay valid as disks are added
};

}  // namespace kx::fixture
