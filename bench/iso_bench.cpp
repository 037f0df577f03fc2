// CreateIsoImage through the built-in writer on a 2 GiB tree (four large
// files and 10,000 small ones in 100 folders), with the process's peak
// working set after an image of the small files alone and after the whole
// tree: the writer streams file data, so the second may not be much larger.
// scripts/bench.sh then times xorriso and genisoimage on the same tree.
//   iso_bench <work folder>     (the tree is kept in <work>\iso-tree and reused)
#include <windows.h>

#include <psapi.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "common/unique_resource.h"
#include "iso/file_system_image.h"

namespace {

constexpr int kLarge = 4;
constexpr unsigned long long kLargeBytes = 480ull << 20;
constexpr int kFolders = 100;
constexpr int kSmallPerFolder = 100;

bool WriteFileOf(const std::wstring& path, unsigned long long bytes, unsigned seed) {
    kx::unique_hfile f(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                     nullptr));
    if (!f) return false;
    std::vector<unsigned> block(1 << 18);
    for (unsigned long long done = 0; done < bytes;) {
        for (size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned>(done / 4 + i) * 2654435761u ^ seed;
        const DWORD n = static_cast<DWORD>(std::min<unsigned long long>(bytes - done, block.size() * 4));
        DWORD put = 0;
        if (!::WriteFile(f.get(), block.data(), n, &put, nullptr) || put != n) return false;
        done += n;
    }
    return true;
}

unsigned long long PeakMiB() {
    PROCESS_MEMORY_COUNTERS pmc{};
    pmc.cb = sizeof pmc;
    ::GetProcessMemoryInfo(::GetCurrentProcess(), &pmc, sizeof pmc);
    return pmc.PeakWorkingSetSize >> 20;
}

unsigned long long FileBytes(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA a{};
    if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &a)) return 0;
    return (static_cast<unsigned long long>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
}

double Time(const std::wstring& source, const std::wstring& image) {
    const auto t0 = std::chrono::steady_clock::now();
    const DWORD rc = kx::iso::CreateIsoImage(source, L"BENCH", image);
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc) std::printf("CreateIsoImage failed, rc = 0x%08lx\n", static_cast<unsigned long>(rc));
    return s;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: iso_bench <work folder>\n");
        return 2;
    }
    const std::wstring work = argv[1];
    const std::wstring tree = work + L"\\iso-tree";
    const std::wstring small = tree + L"\\small";
    if (::GetFileAttributesW((tree + L"\\complete").c_str()) == INVALID_FILE_ATTRIBUTES) {
        ::CreateDirectoryW(tree.c_str(), nullptr);
        ::CreateDirectoryW(small.c_str(), nullptr);
        for (int i = 0; i < kLarge; ++i)
            if (!WriteFileOf(tree + L"\\large " + std::to_wstring(i) + L".bin", kLargeBytes, i)) return 1;
        unsigned seed = 0;
        for (int d = 0; d < kFolders; ++d) {
            const std::wstring folder = small + L"\\folder " + std::to_wstring(d);
            ::CreateDirectoryW(folder.c_str(), nullptr);
            for (int f = 0; f < kSmallPerFolder; ++f, ++seed)
                if (!WriteFileOf(folder + L"\\file " + std::to_wstring(f) + L".txt", 512 + (seed * 7919) % 7700, seed))
                    return 1;
        }
        WriteFileOf(tree + L"\\complete", 0, 0);
    }
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    const std::wstring image = work + L"\\iso-bench.iso";
    const double smallSeconds = Time(small, image);
    const unsigned long long smallBytes = FileBytes(image);
    const unsigned long long smallPeak = PeakMiB();
    const double seconds = Time(tree, image);
    const unsigned long long bytes = FileBytes(image);
    ::DeleteFileW(image.c_str());
    ::CoUninitialize();
    std::printf("CreateIsoImage, 10000 small files: %.2f s, image %llu MB, peak working set %llu MiB\n", smallSeconds,
                smallBytes / 1000000, smallPeak);
    std::printf("CreateIsoImage, 2 GiB tree (%d large + 10000 small files): %.2f s, %.0f MB/s, image %llu MB, "
                "peak working set %llu MiB\n",
                kLarge, seconds, bytes / 1e6 / seconds, bytes / 1000000, PeakMiB());
    return 0;
}
