#include "vhd_destination.h"

#include <cstdio>
#include <memory>
#include <random>

#include "common/unique_resource.h"
#include "platform/vhd/vhd_disk.h"
#include "platform/win32_positioned_file.h"

namespace kx::fixture {

namespace {

DWORD MakeFolders(const std::wstring& path) {
    for (size_t i = 3; i <= path.size(); ++i)
        if ((i == path.size() || path[i] == L'\\') && !::CreateDirectoryW(path.substr(0, i).c_str(), nullptr) &&
            ::GetLastError() != ERROR_ALREADY_EXISTS)
            return ::GetLastError();
    return 0;
}

DWORD WriteFileText(const std::wstring& path, const std::string& text) {
    unique_hfile h(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!h) return ::GetLastError();
    DWORD written = 0;
    return ::WriteFile(h.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr) ? 0 : ::GetLastError();
}


// Seeded random runs into one disk of one session, recorded in `bits`.
DWORD WriteRuns(vhd::VhdDisk& disk, uint64_t sectors, unsigned seed, int runs, SectorBits& bits) {
    std::mt19937_64 rng(seed);
    std::vector<BYTE> data(256 * 512);
    for (int run = 0; run < runs; ++run) {
        const unsigned count = 1 + static_cast<unsigned>(rng() % 256);
        uint64_t first = rng() % (sectors - count);
        if (run % 8 == 0) first = ((first / kVhdBlockSectors) + 1) * kVhdBlockSectors - count / 2;  // across a block boundary
        if (first + count > sectors) first = sectors - count;
        for (auto& b : data) b = static_cast<BYTE>(rng());
        if (DWORD rc = disk.Write(first, count, data.data())) return rc;
        for (uint64_t s = first; s < first + count; ++s) bits[s / 8] |= static_cast<BYTE>(1u << (s % 8));
    }
    // The last sector of the disk, so that the partial last block counts too.
    if (DWORD rc = disk.Write(sectors - 1, 1, data.data())) return rc;
    bits[(sectors - 1) / 8] |= static_cast<BYTE>(1u << ((sectors - 1) % 8));
    return 0;
}

}  // namespace

std::wstring SessionName(unsigned long n) {
    wchar_t b[16];
    _snwprintf(b, 16, L"S%010lu", n);
    return b;
}

DWORD WriteBackupInfo(const std::wstring& folder, unsigned n, const char* kind, const char* status, int encrypted) {
    if (DWORD rc = MakeFolders(folder)) return rc;
    char xml[600];
    snprintf(xml, sizeof xml,
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<BackupInfo>\r\n  <SessionNumber>%u</SessionNumber>\r\n"
             "  <SessionGuid>{6B0C4D2E-91A7-4F38-B2D5-0C1E7A3F%04X}</SessionGuid>\r\n"
             "  <BackupKind>%s</BackupKind>\r\n  <Status>%s</Status>\r\n  <Encrypted>%d</Encrypted>\r\n"
             "</BackupInfo>\r\n",
             n, n, kind, status, encrypted);
    return WriteFileText(folder + L"\\BackupInfo.XML", xml);
}

std::wstring VhdDestination::SessionFolder(unsigned n) const { return rootOf_(n) + L"\\VStore\\" + SessionName(n); }

DWORD VhdDestination::WriteSession(unsigned n, bool full, bool finished) {
    const std::wstring folder = SessionFolder(n);
    if (DWORD rc = MakeFolders(folder)) return rc;
    vdisk::Win32FileSystem fs(FILE_SHARE_READ);
    for (size_t d = 0; d < disks_.size(); ++d) {
        Disk& disk = disks_[d];
        if (n < disk.firstSession) continue;
        vhd::CreateParams params;
        if (n == disk.firstSession) {
            params.type = vhd::DiskType::kDynamic;
            params.size = disk.sectors * 512;
        } else {
            params.type = vhd::DiskType::kDifferencing;
            params.parentPath = vdisk::ToU16(DiskPath(n - 1, disk.file));
        }
        std::unique_ptr<vhd::VhdDisk> vhd;
        if (DWORD rc = vhd::VhdDisk::Create(fs, vdisk::ToU16(DiskPath(n, disk.file)), params, &vhd)) return rc;
        SectorBits& bits = disk.written[n];
        bits.assign(static_cast<size_t>((disk.sectors + 7) / 8), 0);
        if (DWORD rc = WriteRuns(*vhd, disk.sectors, n * 100 + static_cast<unsigned>(d), runs_, bits)) return rc;
    }
    if (DWORD rc = WriteBackupInfo(folder, n, full ? "Full" : "Incremental", finished ? "Finished" : "Active"))
        return rc;
    // The session's change-tracking file, copied with the description.
    return WriteFileText(folder + L"\\block0000000002.ctf", "demo change tracking\r\n");
}

SectorBits VhdDestination::Union(const Disk& d, unsigned lowest, unsigned highest) const {
    SectorBits u(static_cast<size_t>((d.sectors + 7) / 8), 0);
    for (const auto& [n, bits] : d.written)
        if (n >= lowest && n <= highest)
            for (size_t i = 0; i < u.size(); ++i) u[i] |= bits[i];
    return u;
}

}  // namespace kx::fixture
