// Session bitmaps over a destination of real VHD disk files: preparation of
// the new sessions, the bitmap files' contents against the sectors each
// session wrote, the union of a chain and a damaged disk. (Roots spread over
// header and leaf folders are resolved in dest_layout_test; the walk bounded
// by the last converted session is shown by kxha_test's demo cycle.)
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "KestrixHA/bitmap.h"
#include "KestrixHA/bitmap_catalogue.h"
#include "bitmap_test_util.h"
#include "common/unique_resource.h"
#include "tools/vhd_destination/vhd_destination.h"

using kx::fixture::SectorBits;
using kx::fixture::VhdDestination;
using kxtest::Reader;
using kxtest::ScratchDir;
using kxtest::SessionName;
using Names = std::vector<std::wstring>;

namespace {

constexpr LONGLONG kSystemSectors = 40 * 2048 + 77;  // not a multiple of a block
constexpr LONGLONG kDataSectors = 8 * 2048;
constexpr LONGLONG kAddedSectors = 6 * 2048 + 8;
constexpr int kRuns = 24;  // runs of sectors per disk and session

// Compares what a reader serves with `expected`: the whole disk in one
// request, then random requests of 1 byte to 1 MiB from unaligned starts.
void ExpectServes(IDiskBmpReader* reader, const SectorBits& expected, LONGLONG sectors, unsigned seed) {
    LONGLONG total = 0;
    ASSERT_EQ(reader->GetTotalSectors(&total), 0u);
    ASSERT_EQ(total, sectors);
    std::vector<uint8_t> storage(DiskBitmapBufferSize(1 << 20));
    auto* buffer = reinterpret_cast<DiskBitmapBuffer*>(storage.data());
    std::mt19937 rng(seed);
    const LONG sizes[] = {1, 2, 3, 17, 512, 4093, 1 << 16, 1 << 20};
    for (int i = 0; i < 40; ++i) {
        const LONGLONG start = i == 0 ? 0 : static_cast<LONGLONG>(rng() % sectors);
        const LONG bytes = i == 0 ? (1 << 20) : sizes[rng() % std::size(sizes)];
        std::fill(storage.begin(), storage.end(), 0xCD);
        ASSERT_EQ(reader->GetBitmap(start, bytes, buffer), 0u) << start << " " << bytes;
        const LONGLONG aligned = start / 8 * 8;
        ASSERT_EQ(buffer->startingSector, aligned);
        ASSERT_EQ(buffer->sectorCount, std::min<LONGLONG>(LONGLONG{bytes} * 8, sectors - aligned));
        for (LONGLONG s = aligned; s < aligned + buffer->sectorCount; ++s) {
            const LONGLONG k = s - aligned;
            const bool got = (buffer->bitmap[k / 8] >> (k % 8)) & 1;
            const bool want = (expected[static_cast<size_t>(s / 8)] >> (s % 8)) & 1;
            ASSERT_EQ(got, want) << "sector " << s << " of a request at " << start << " for " << bytes << " bytes";
        }
    }
    EXPECT_EQ(reader->GetBitmap(sectors + 1, 1, buffer), 87u);
}

Reader OpenBitmap(const std::wstring& path) {
    IDiskBmpReader* r = nullptr;
    EXPECT_EQ(ReadDiskBitmap(path.c_str(), &r), 0u) << kxtest::Narrow(path);
    return Reader(r);
}

Reader OpenUnion(const std::wstring& disk, DWORD lowest) {
    IDiskBmpReader* r = nullptr;
    EXPECT_EQ(GetBitmapReader_IncsFromFull(disk.c_str(), lowest, nullptr, &r), 0u) << kxtest::Narrow(disk);
    return Reader(r);
}

Names Prepared(const std::wstring& bitmapRoot) {
    Names names;
    GetBitmapList4BackupDest(bitmapRoot.c_str(), names);
    std::sort(names.begin(), names.end());
    return names;
}

Names FilesIn(const std::wstring& folder) {
    Names names;
    WIN32_FIND_DATAW fd;
    kx::unique_hfind find(::FindFirstFileW((folder + L"\\*").c_str(), &fd));
    if (!find) return names;
    do
        if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) names.push_back(fd.cFileName);
    while (::FindNextFileW(find.get(), &fd));
    std::sort(names.begin(), names.end());
    return names;
}

// The order in which the walk processed sessions, from the log.
Names ProcessingOrder(const kxtest::LogCursor& log) {
    Names order;
    for (const auto& line : log.Matching(L"(): Processing session [")) {
        const size_t open = line.text.rfind(L'[');
        order.push_back(line.text.substr(open + 1, line.text.size() - open - 2));
    }
    return order;
}

// A destination in one root: two disks from the full session 1, incremental
// sessions 2 to 4, a third disk added in session 3 (a full VHD there), and
// session 5 still running.
struct OneRoot {
    ScratchDir dir;
    VhdDestination dest{[this](unsigned) { return dir.path(); }, kRuns};
    VhdDestination::Disk* system = nullptr;
    VhdDestination::Disk* data = nullptr;
    VhdDestination::Disk* added = nullptr;

    OneRoot() {
        system = &dest.AddDisk(L"disk0000000001.zek", kSystemSectors, 1);
        data = &dest.AddDisk(L"disk0000000002.zek", kDataSectors, 1);
        added = &dest.AddDisk(L"disk0000000003.zek", kAddedSectors, 3);
        for (unsigned n = 1; n <= 5; ++n) EXPECT_EQ(dest.WriteSession(n, n == 1, n != 5), 0u) << n;
    }
    std::wstring Bitmaps(unsigned n) const { return dir.path() + L"\\VCM-bitmap\\" + SessionName(n); }
};

}  // namespace

TEST(VhdDestination, PreparesNewSessionsNewestFirstAndTheirUnionsMatchTheWrites) {
    OneRoot d;
    kxtest::LogCursor log;
    ASSERT_EQ(CreateBitmap4BackupDest(d.dir.path().c_str(), 0, nullptr), 0u);

    EXPECT_EQ(ProcessingOrder(log), (Names{SessionName(4), SessionName(3), SessionName(2), SessionName(1)}));
    EXPECT_EQ(Prepared(d.dir.path()), (Names{SessionName(1), SessionName(2), SessionName(3), SessionName(4)}));

    // The full session keeps its description only; incremental sessions get
    // one bitmap file per disk.
    EXPECT_EQ(FilesIn(d.Bitmaps(1)), (Names{L"BackupInfo.XML", L"block0000000002.ctf"}));
    EXPECT_EQ(FilesIn(d.Bitmaps(2)), (Names{L"BackupInfo.XML", L"block0000000002.ctf", L"disk0000000001.Bitmap",
                                            L"disk0000000002.Bitmap"}));
    EXPECT_EQ(FilesIn(d.Bitmaps(4)).size(), 5u);
    for (unsigned n = 2; n <= 4; ++n)
        for (auto* disk : {d.system, d.data, d.added}) {
            if (n < disk->firstSession) continue;
            SCOPED_TRACE(kxtest::Narrow(SessionName(n) + L"\\" + disk->file));
            const std::wstring name = disk->file.substr(0, disk->file.size() - 3) + L"Bitmap";
            Reader r = OpenBitmap(d.Bitmaps(n) + L"\\" + name);
            ASSERT_TRUE(r);
            ExpectServes(r.get(), disk->written.at(n), static_cast<LONGLONG>(disk->sectors), n);
        }

    // A second run has nothing new to do and leaves what is there.
    kxtest::LogCursor again;
    ASSERT_EQ(CreateBitmap4BackupDest(d.dir.path().c_str(), 0, nullptr), 0u);
    EXPECT_EQ(again.Matching(L"already has bitmap").size(), 4u);

    // The union of a chain reaches back to the lowest session asked for.
    for (DWORD lowest : {2u, 3u, 4u}) {
        SCOPED_TRACE(lowest);
        Reader u = OpenUnion(d.dest.DiskPath(4, d.system->file), lowest);
        ASSERT_TRUE(u);
        ExpectServes(u.get(), d.dest.Union(*d.system, lowest, 4), kSystemSectors, 100 + lowest);
    }
    // The added disk was full in session 3: the walk ends there even when
    // asked to go further.
    Reader added = OpenUnion(d.dest.DiskPath(4, d.added->file), 2);
    ASSERT_TRUE(added);
    ExpectServes(added.get(), d.dest.Union(*d.added, 3, 4), kAddedSectors, 7);
    EXPECT_TRUE(again.Contains(L"GetBmpR_IncsFromFull, is full VHD before merged, sess = 3, disk = disk0000000003.zek"));

    // The full session has no bitmap files: a walk that reaches it fails
    // without a reader.
    IDiskBmpReader* none = reinterpret_cast<IDiskBmpReader*>(1);
    EXPECT_EQ(GetBitmapReader_IncsFromFull(d.dest.DiskPath(4, d.data->file).c_str(), 1, nullptr, &none), 2u);
    EXPECT_EQ(none, nullptr);
}

TEST(VhdDestination, ADamagedDiskFailsItsSessionAndKeepsTheNewerOnes) {
    OneRoot d;
    // An extra disk of session 3 that is a copy of another one, its footer and
    // the footer's copy at the start both damaged (the damage the VHD reader
    // turns away is tabled in the native tests).
    const std::wstring bad = d.dest.SessionFolder(3) + L"\\disk0000000009.zek";
    auto bytes = kxtest::ReadBytes(d.dest.DiskPath(3, d.added->file));
    bytes[48] ^= 0x40;                       // current size in the copy at the start
    bytes[bytes.size() - 512 + 48] ^= 0x40;  // and in the footer
    kxtest::WriteBytes(bad, bytes.data(), bytes.size());

    kxtest::LogCursor log;
    EXPECT_EQ(CreateBitmap4BackupDest(d.dir.path().c_str(), 0, nullptr), 0xC03A0002u);
    EXPECT_EQ(ProcessingOrder(log), (Names{SessionName(4), SessionName(3)}));
    // The failed session's folder is gone; the newer session stays; the walk
    // stopped before the older ones.
    EXPECT_EQ(Prepared(d.dir.path()), Names{SessionName(4)});
    EXPECT_EQ(FilesIn(d.Bitmaps(4)).size(), 5u);
}
