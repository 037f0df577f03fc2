// The demo destination: a machine with three disks backed up in six
// sessions. Session 1 is full; 2 to 5 are incremental; 6 is still "Active".
// Disk 3 is added to the machine before session 3, so it first appears
// there as a full disk. Every session writes seeded random runs of sectors
// (some across the 2 MiB block boundaries of the VHD files).
#include <cstdio>
#include <random>

#include "commands.h"
#include "demo.h"
#include "output.h"
#include "platform/vdisk.h"

namespace kxha::demo {

namespace {

constexpr unsigned kSessions = 6;

DWORD WriteFileText(const std::wstring& path, const std::string& text) {
    HANDLE h = ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return ::GetLastError();
    DWORD written = 0;
    const BOOL ok = ::WriteFile(h, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    const DWORD rc = ok ? 0 : ::GetLastError();
    ::CloseHandle(h);
    return rc;
}

DWORD WriteSessionInfo(const std::wstring& folder, unsigned n, bool full, bool finished) {
    char xml[600];
    snprintf(xml, sizeof xml,
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<BackupInfo>\r\n  <SessionNumber>%u</SessionNumber>\r\n"
             "  <SessionGuid>{6B0C4D2E-91A7-4F38-B2D5-0C1E7A3F%04X}</SessionGuid>\r\n"
             "  <BackupKind>%s</BackupKind>\r\n  <Status>%s</Status>\r\n  <Encrypted>0</Encrypted>\r\n"
             "</BackupInfo>\r\n",
             n, n, full ? "Full" : "Incremental", finished ? "Finished" : "Active");
    if (DWORD rc = WriteFileText(folder + L"\\BackupInfo.XML", xml)) return rc;
    // The session's change-tracking file, copied with the description.
    return WriteFileText(folder + L"\\block0000000002.ctf", "demo change tracking\r\n");
}

// Seeded random runs into one disk of one session, recorded in `bits`.
DWORD WriteRuns(kx::vdisk::IVDisk* disk, unsigned long long sectors, unsigned seed, std::vector<BYTE>& bits) {
    std::mt19937_64 rng(seed);
    std::vector<BYTE> data(256 * 512);
    for (int run = 0; run < 160; ++run) {
        const unsigned count = 1 + static_cast<unsigned>(rng() % 256);
        unsigned long long first = rng() % (sectors - count);
        if (run % 8 == 0) first = ((first / 4096) + 1) * 4096 - count / 2;  // across a block boundary
        if (first + count > sectors) first = sectors - count;
        for (auto& b : data) b = static_cast<BYTE>(rng());
        if (DWORD rc = disk->WriteSectors(first, count, data.data())) return rc;
        for (unsigned long long s = first; s < first + count; ++s) bits[s / 8] |= static_cast<BYTE>(1u << (s % 8));
    }
    // The last sector of the disk, so that the partial last block counts too.
    if (DWORD rc = disk->WriteSectors(sectors - 1, 1, data.data())) return rc;
    bits[(sectors - 1) / 8] |= static_cast<BYTE>(1u << ((sectors - 1) % 8));
    return 0;
}

}  // namespace

DWORD BuildDestination(const std::wstring& root, Destination* dest, bool progress) {
    dest->root = root;
    dest->disks = {
        {L"disk0000000001.zek", (4ull << 30) / 512 - 4096 + 77, 1, {}},  // a size that is not a block multiple
        {L"disk0000000002.zek", (2ull << 30) / 512, 1, {}},
        {L"disk0000000003.zek", (1ull << 30) / 512, 3, {}},
    };
    ::CreateDirectoryW(root.c_str(), nullptr);
    ::CreateDirectoryW((root + L"\\VStore").c_str(), nullptr);
    for (unsigned n = 1; n <= kSessions; ++n) {
        const std::wstring folder = root + L"\\VStore\\" + SessionName(n);
        if (!::CreateDirectoryW(folder.c_str(), nullptr)) return ::GetLastError();
        if (progress) Out(L"\rwriting session " + SessionName(n) + L"...   ");
        for (unsigned d = 0; d < dest->disks.size(); ++d) {
            DemoDisk& disk = dest->disks[d];
            if (n < disk.firstSession) continue;
            disk.written.resize(kSessions + 1);
            disk.written[n].assign(static_cast<size_t>((disk.sectors + 7) / 8), 0);
            const std::wstring path = folder + L"\\" + disk.file;
            std::unique_ptr<kx::vdisk::IVDisk> vhd;
            DWORD rc;
            if (n == disk.firstSession) {
                rc = kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDynamic, disk.sectors * 512, nullptr, &vhd);
            } else {
                const std::wstring parent = root + L"\\VStore\\" + SessionName(n - 1) + L"\\" + disk.file;
                rc = kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDifferencing, 0, parent.c_str(), &vhd);
            }
            if (rc) return rc;
            if ((rc = WriteRuns(vhd.get(), disk.sectors, n * 100 + d, disk.written[n]))) return rc;
        }
        if (DWORD rc = WriteSessionInfo(folder, n, n == dest->fullSession, n != dest->activeSession)) return rc;
    }
    if (progress) Out(L"\r" + std::wstring(40, L' ') + L"\r");
    return 0;
}

}  // namespace kxha::demo
