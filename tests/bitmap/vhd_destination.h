// Backup destinations made of real VHD disk files for the bitmap tests:
// session folders with BackupInfo.XML, a dynamic disk where a disk first
// appears (the full session, or a disk added later), a differencing disk
// over the previous session's file in every later session, and seeded
// scattered writes whose sectors are remembered per session.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bitmap_test_util.h"
#include "platform/vdisk.h"

namespace kxtest {

inline constexpr LONGLONG kVhdBlockSectors = 4096;  // 2 MiB blocks

// Sector s is bit s % 8 of byte s / 8.
using SectorBits = std::vector<uint8_t>;

class VhdDestination {
public:
    struct Disk {
        std::wstring file;
        LONGLONG sectors = 0;
        unsigned firstSession = 1;
        std::map<unsigned, SectorBits> written;  // by session
    };

    // rootOf(n): the destination root that holds session n.
    explicit VhdDestination(std::function<std::wstring(unsigned)> rootOf) : rootOf_(std::move(rootOf)) {}

    Disk& AddDisk(const std::wstring& file, LONGLONG sectors, unsigned firstSession) {
        disks_.push_back({file, sectors, firstSession, {}});
        return disks_.back();
    }

    std::wstring SessionFolder(unsigned n) const { return rootOf_(n) + L"\\VStore\\" + SessionName(n); }
    std::wstring DiskPath(unsigned n, const std::wstring& file) const { return SessionFolder(n) + L"\\" + file; }

    // Writes session n; sessions are written in ascending order.
    void WriteSession(unsigned n, const char* kind, const char* status = "Finished") {
        MakeDirs(SessionFolder(n));
        for (Disk& d : disks_) {
            if (n < d.firstSession) continue;
            std::unique_ptr<kx::vdisk::IVDisk> vhd;
            const std::wstring path = DiskPath(n, d.file);
            DWORD rc = n == d.firstSession
                           ? kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDynamic, d.sectors * 512, nullptr, &vhd)
                           : kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDifferencing, 0,
                                                  DiskPath(n - 1, d.file).c_str(), &vhd);
            ASSERT_EQ(rc, 0u) << Narrow(path);
            WriteScattered(vhd.get(), d, n);
        }
        WriteBackupInfo(SessionFolder(n), n, kind, status);
        WriteText(SessionFolder(n) + L"\\block0000000002.ctf", "change tracking\r\n");
    }

    // The sectors written to `file` in sessions lowest..highest.
    SectorBits Union(const Disk& d, unsigned lowest, unsigned highest) const {
        SectorBits u(static_cast<size_t>((d.sectors + 7) / 8), 0);
        for (const auto& [n, bits] : d.written)
            if (n >= lowest && n <= highest)
                for (size_t i = 0; i < u.size(); ++i) u[i] |= bits[i];
        return u;
    }

    std::deque<Disk>& disks() { return disks_; }

private:
    void Write(kx::vdisk::IVDisk* vhd, Disk& d, unsigned n, LONGLONG first, LONGLONG count) {
        if (first < 0) first = 0;
        if (first + count > d.sectors) first = d.sectors - count;
        std::vector<uint8_t> data(static_cast<size_t>(count) * 512, static_cast<uint8_t>(n * 31 + first));
        ASSERT_EQ(vhd->WriteSectors(static_cast<ULONGLONG>(first), static_cast<DWORD>(count), data.data()), 0u);
        SectorBits& bits = d.written[n];
        for (LONGLONG s = first; s < first + count; ++s) bits[static_cast<size_t>(s / 8)] |= uint8_t(1u << (s % 8));
    }

    // Single sectors, short runs, runs across a block boundary, and the last
    // sector (the last block is partial when the size is not a multiple).
    void WriteScattered(kx::vdisk::IVDisk* vhd, Disk& d, unsigned n) {
        d.written[n].assign(static_cast<size_t>((d.sectors + 7) / 8), 0);
        std::mt19937_64 rng(n * 7919 + d.sectors);
        const LONGLONG blocks = (d.sectors + kVhdBlockSectors - 1) / kVhdBlockSectors;
        for (int i = 0; i < 12; ++i) Write(vhd, d, n, static_cast<LONGLONG>(rng() % d.sectors), 1);
        for (int i = 0; i < 6; ++i)
            Write(vhd, d, n, static_cast<LONGLONG>(rng() % d.sectors), 2 + static_cast<LONGLONG>(rng() % 300));
        for (int i = 0; i < 3 && blocks > 1; ++i) {
            const LONGLONG boundary = (1 + static_cast<LONGLONG>(rng() % (blocks - 1))) * kVhdBlockSectors;
            Write(vhd, d, n, boundary - 3 - static_cast<LONGLONG>(rng() % 5), 7 + static_cast<LONGLONG>(rng() % 40));
        }
        Write(vhd, d, n, d.sectors - 1, 1);
    }

    std::function<std::wstring(unsigned)> rootOf_;
    std::deque<Disk> disks_;  // references stay valid as disks are added
};

}  // namespace kxtest
