// How fast the bitmap file of a session disk is written, next to the floor
// of the same work measured here in the same run: plain reads of the block
// allocation table and of every allocated block's sector bitmap (in file
// order), plus a sequential write of an output file of the bitmap file's
// size. The writer is measured twice in the same run: with the library's
// positioned reads and writes as built, and routed through ReadFile /
// WriteFile with an OVERLAPPED offset (the earlier way).
//
//   (a) a 100 GiB dynamic disk with 4,000 scattered 64 KiB writes;
//   (b) a 2,040 GiB dynamic disk (the format's largest) with every block
//       allocated and partial bitmaps; its data areas stay sparse.
//
// Usage: zek_bitmap_bench [work folder] [--keep]
// The disk files are kept with --keep (for an outside reference tool), and
// (b) is reused when a previous kept run left it.
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bitmap/zek_bitmap_writer.h"
#include "common/positioned_io.h"
#include "common/unique_resource.h"
#include "platform/vdisk.h"
#include "platform/vhd/vhd_format.h"

namespace {

using kx::unique_hfile;

double Now() {
    static LARGE_INTEGER frequency = [] {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return f;
    }();
    LARGE_INTEGER t;
    ::QueryPerformanceCounter(&t);
    return static_cast<double>(t.QuadPart) / static_cast<double>(frequency.QuadPart);
}

[[noreturn]] void Fail(const char* what, DWORD rc) {
    std::fprintf(stderr, "zek_bitmap_bench: %s failed, rc = %lu (0x%08lX)\n", what, rc, rc);
    std::exit(1);
}

bool ReadAt(HANDLE file, ULONGLONG offset, void* data, DWORD size) {
    DWORD got = 0;
    return kx::io::ReadAt(file, offset, data, size, &got) == 0 && got == size;
}

bool WriteAt(HANDLE file, ULONGLONG offset, const void* data, DWORD size) {
    DWORD put = 0;
    return kx::io::WriteAt(file, offset, data, size, &put) == 0 && put == size;
}

ULONGLONG FileSize(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA a;
    if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &a)) return 0;
    return (ULONGLONG{a.nFileSizeHigh} << 32) | a.nFileSizeLow;
}

unique_hfile OpenRead(const std::wstring& path) {
    unique_hfile f(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!f) Fail("opening a disk file", ::GetLastError());
    return f;
}

// The dynamic header's fields and the BAT of a VHD file, read as plainly as
// possible.
struct Layout {
    uint32_t blockSize = 0;
    uint64_t tableOffset = 0;
    std::vector<uint32_t> bat;  // host order
};

Layout ReadLayout(HANDLE file, ULONGLONG size) {
    kx::vhd::RawFooter footer;
    if (!ReadAt(file, size - sizeof footer, &footer, sizeof footer)) Fail("reading the footer", ::GetLastError());
    kx::vhd::RawDynamicHeader header;
    if (!ReadAt(file, footer.dataOffset.get(), &header, sizeof header))
        Fail("reading the dynamic header", ::GetLastError());
    Layout l;
    l.blockSize = header.blockSize.get();
    l.tableOffset = header.tableOffset.get();
    std::vector<kx::vhd::Be32> bat(header.maxTableEntries.get());
    if (!ReadAt(file, l.tableOffset, bat.data(), static_cast<DWORD>(bat.size() * sizeof bat[0])))
        Fail("reading the BAT", ::GetLastError());
    for (const kx::vhd::Be32& e : bat) l.bat.push_back(e.get());
    return l;
}

// The floor: the BAT and every allocated block's bitmap read in file order,
// then `outputBytes` written sequentially to a new file.
struct Floor {
    double reads = 0, write = 0;
    size_t blocks = 0;
};

Floor MeasureFloor(const std::wstring& disk, const std::wstring& scratch, ULONGLONG outputBytes) {
    Floor r;
    const double t0 = Now();
    {
        unique_hfile f = OpenRead(disk);
        const Layout l = ReadLayout(f.get(), FileSize(disk));
        std::vector<uint32_t> offsets;
        for (uint32_t e : l.bat)
            if (e != kx::vhd::kUnallocated) offsets.push_back(e);
        std::sort(offsets.begin(), offsets.end());
        const DWORD bitmapBytes = ((l.blockSize / 512 / 8) + 511) / 512 * 512;
        std::vector<uint8_t> bitmap(bitmapBytes);
        for (uint32_t sector : offsets)
            if (!ReadAt(f.get(), ULONGLONG{sector} * 512, bitmap.data(), bitmapBytes))
                Fail("reading a block bitmap", ::GetLastError());
        r.blocks = offsets.size();
    }
    const double t1 = Now();
    {
        unique_hfile out(::CreateFileW(scratch.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                       nullptr));
        if (!out) Fail("creating the floor's output file", ::GetLastError());
        std::vector<uint8_t> chunk(1 << 20, 0x5A);
        for (ULONGLONG done = 0; done < outputBytes;) {
            const DWORD n = static_cast<DWORD>(std::min<ULONGLONG>(chunk.size(), outputBytes - done));
            DWORD put = 0;
            if (!::WriteFile(out.get(), chunk.data(), n, &put, nullptr) || put != n)
                Fail("writing the floor's output file", ::GetLastError());
            done += n;
        }
    }
    r.write = Now() - t1;
    r.reads = t1 - t0;
    ::DeleteFileW(scratch.c_str());
    return r;
}

void WriteText(const std::wstring& path, const char* text) {
    unique_hfile f(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD put = 0;
    if (!f || !::WriteFile(f.get(), text, static_cast<DWORD>(strlen(text)), &put, nullptr))
        Fail("writing a session description", ::GetLastError());
}

// (a): written through the disk library, as a backup would.
void MakeScattered(const std::wstring& path) {
    std::unique_ptr<kx::vdisk::IVDisk> disk;
    ::DeleteFileW(path.c_str());
    if (DWORD rc = kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDynamic, 100ull << 30, nullptr, &disk))
        Fail("creating the 100 GiB disk", rc);
    std::mt19937_64 rng(2026);
    std::vector<uint8_t> data(64 << 10);
    for (auto& b : data) b = static_cast<uint8_t>(rng());
    const ULONGLONG sectors = (100ull << 30) / 512;
    for (int i = 0; i < 4000; ++i)
        if (DWORD rc = disk->WriteSectors(rng() % (sectors - 128), 128, data.data())) Fail("writing the 100 GiB disk", rc);
}

// (b): created empty by the disk library, then every block allocated by
// writing the BAT, each block's bitmap sector and the footer directly; the
// data areas are never written and stay holes in the file.
void MakeFullyAllocated(const std::wstring& path) {
    {
        std::unique_ptr<kx::vdisk::IVDisk> disk;
        ::DeleteFileW(path.c_str());
        if (DWORD rc = kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDynamic, kx::vhd::kMaxDiskSize, nullptr, &disk))
            Fail("creating the 2040 GiB disk", rc);
    }
    const ULONGLONG emptySize = FileSize(path);
    unique_hfile f(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!f) Fail("opening the 2040 GiB disk", ::GetLastError());
    const Layout l = ReadLayout(f.get(), emptySize);
    kx::vhd::RawFooter footer;
    if (!ReadAt(f.get(), emptySize - sizeof footer, &footer, sizeof footer)) Fail("reading the footer", ::GetLastError());

    const ULONGLONG first = emptySize - sizeof footer;  // where the footer was
    const ULONGLONG stride = 512 + l.blockSize;
    const uint32_t blocks = static_cast<uint32_t>(l.bat.size());
    std::vector<kx::vhd::Be32> bat(blocks);
    for (uint32_t i = 0; i < blocks; ++i) bat[i].set(static_cast<uint32_t>((first + i * stride) / 512));
    if (!WriteAt(f.get(), l.tableOffset, bat.data(), static_cast<DWORD>(bat.size() * sizeof bat[0])))
        Fail("writing the BAT", ::GetLastError());
    // Partial bitmaps: each block has a run of present sectors of its own length.
    std::mt19937 rng(7);
    uint8_t bitmap[512];
    for (uint32_t i = 0; i < blocks; ++i) {
        const unsigned bytes = 1 + rng() % 511;
        std::memset(bitmap, 0xFF, bytes);
        std::memset(bitmap + bytes, 0, sizeof bitmap - bytes);
        bitmap[bytes - 1] = static_cast<uint8_t>(0xFF << (rng() % 8));
        if (!WriteAt(f.get(), first + i * stride, bitmap, sizeof bitmap)) Fail("writing a block bitmap", ::GetLastError());
    }
    if (!WriteAt(f.get(), first + ULONGLONG{blocks} * stride, &footer, sizeof footer))
        Fail("writing the footer", ::GetLastError());
}

double TimeWriter(const std::wstring& session, const std::wstring& target, const wchar_t* file) {
    const double t0 = Now();
    if (DWORD rc = kx::bitmap::CreateBitmap4ZekFile(session.c_str(), target.c_str(), file, 0))
        Fail("CreateBitmap4ZekFile", rc);
    return Now() - t0;
}

// The best of `rounds` passes, the writer's positioned I/O going each way in
// turn so that both see the same machine; the floor is measured with the
// plain positioned reads as built.
void Run(const char* title, const std::wstring& session, const std::wstring& target, const wchar_t* file,
         int rounds, double goalSeconds, double goalRatio) {
    const std::wstring disk = session + L"\\" + file;
    std::wstring bitmap = target + L"\\" + file;
    bitmap.replace(bitmap.size() - 3, 3, L"Bitmap");
    // Warm the page cache with one untimed pass of each.
    TimeWriter(session, target, file);
    const ULONGLONG outputBytes = FileSize(bitmap);
    MeasureFloor(disk, target + L"\\floor.tmp", outputBytes);
    double writer[2] = {1e9, 1e9};  // [0] OVERLAPPED offsets, [1] as built
    Floor floor{1e9, 1e9, 0};
    for (int i = 0; i < rounds; ++i) {
        for (int way = 0; way < 2; ++way) {
            kx::io::testing::UseOverlappedOffsets(way == 0);
            writer[way] = std::min(writer[way], TimeWriter(session, target, file));
        }
        kx::io::testing::UseOverlappedOffsets(false);
        const Floor f = MeasureFloor(disk, target + L"\\floor.tmp", outputBytes);
        if (f.reads + f.write < floor.reads + floor.write) floor = f;
    }
    const double floorTotal = floor.reads + floor.write;
    std::printf("%s\n", title);
    std::printf("  allocated blocks %zu, bitmap file %.1f MiB, best of %d\n", floor.blocks, outputBytes / 1048576.0,
                rounds);
    std::printf("  CreateBitmap4ZekFile, OVERLAPPED offsets %8.3f s\n", writer[0]);
    std::printf("  CreateBitmap4ZekFile, as built           %8.3f s  (%.2fx faster)\n", writer[1],
                writer[0] / writer[1]);
    std::printf("  floor                                    %8.3f s  (BAT and bitmaps %.3f s, sequential write %.3f s)\n",
                floorTotal, floor.reads, floor.write);
    std::printf("  ratio to floor (as built)                %8.2f", writer[1] / floorTotal);
    if (goalRatio > 0) std::printf("  (goal: at most %.1f)", goalRatio);
    if (goalSeconds > 0) std::printf("  (goal: at most %.1f s)", goalSeconds);
    std::printf("\n");
    std::fflush(stdout);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    std::wstring work;
    bool keep = false;
    for (int i = 1; i < argc; ++i) {
        if (std::wstring(argv[i]) == L"--keep")
            keep = true;
        else
            work = argv[i];
    }
    if (work.empty()) {
        wchar_t temp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, temp);
        work = std::wstring(temp) + L"kx_zek_bitmap_bench";
    }
    const std::wstring session = work + L"\\VStore\\S0000000001";
    const std::wstring target = work + L"\\VCM-bitmap";
    ::CreateDirectoryW(work.c_str(), nullptr);
    ::CreateDirectoryW((work + L"\\VStore").c_str(), nullptr);
    ::CreateDirectoryW(session.c_str(), nullptr);
    ::CreateDirectoryW(target.c_str(), nullptr);
    WriteText(session + L"\\BackupInfo.XML",
              "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<BackupInfo>\r\n  <SessionNumber>1</SessionNumber>\r\n"
              "  <SessionGuid>{5A0D7C31-2B44-4E19-8F60-3C9B1E7D2A01}</SessionGuid>\r\n  <BackupKind>Full</BackupKind>\r\n  <Status>Finished</Status>\r\n  <Encrypted>0</Encrypted>\r\n"
              "</BackupInfo>\r\n");

    const std::wstring small = session + L"\\disk0000000001.zek";
    const std::wstring large = session + L"\\disk0000000002.zek";
    double t0 = Now();
    MakeScattered(small);
    std::printf("made (a) in %.1f s\n", Now() - t0);
    t0 = Now();
    // At least 2040 GiB of blocks, each with its bitmap sector.
    const ULONGLONG largeSize = (kx::vhd::kMaxDiskSize / (2 << 20)) * (512 + (2 << 20));
    if (FileSize(large) >= largeSize) {
        std::printf("reusing (b) from an earlier run\n");
    } else {
        MakeFullyAllocated(large);
        std::printf("made (b) in %.1f s\n", Now() - t0);
    }
    std::fflush(stdout);

    Run("(a) 100 GiB dynamic disk, 4000 scattered 64 KiB writes", session, target, L"disk0000000001.zek", 3, 0.5, 0);
    Run("(b) 2040 GiB dynamic disk, every block allocated, partial bitmaps", session, target, L"disk0000000002.zek", 2,
        0, 1.5);

    if (!keep) {
        ::DeleteFileW(small.c_str());
        ::DeleteFileW(large.c_str());
        ::DeleteFileW((target + L"\\disk0000000001.Bitmap").c_str());
        ::DeleteFileW((target + L"\\disk0000000002.Bitmap").c_str());
        ::DeleteFileW((session + L"\\BackupInfo.XML").c_str());
        ::RemoveDirectoryW(target.c_str());
        ::RemoveDirectoryW(session.c_str());
        ::RemoveDirectoryW((work + L"\\VStore").c_str());
        ::RemoveDirectoryW(work.c_str());
    }
    return 0;
}
