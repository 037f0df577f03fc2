// The built-in image writer on a 2 GiB tree (four large files and 10,000
// small ones in 100 folders). scripts/bench.sh drives it and times xorriso
// and genisoimage on the same tree between its runs.
//   iso_bench <work> --tree          makes <work>\iso-tree (kept and reused)
//   iso_bench <work> --once <tree>   one CreateIsoImage of <tree> into
//                                    <work>\iso-bench.iso: seconds, image size,
//                                    peak working set
//   iso_bench <work> --phases        the writer's phases on <work>\iso-tree:
//                                    adding the tree, the layout, the stream
//                                    read alone, the stream into a file, and
//                                    the release
//   iso_bench <work> --micro         what single file-system calls cost here,
//                                    per file over the 10,000 small files and
//                                    per chunk size over a large file
//   iso_bench <work> --write <MiB> <KiB>   WriteFile of <MiB> into a new
//                                    file in <KiB> chunks: what writing the
//                                    image alone costs at the moment
//   iso_bench <work> --floor <tree>  the least any Win32 image writer does
//                                    with <tree>: list every folder, open each
//                                    file once, read it whole, close it, and
//                                    write all of the data into one file in
//                                    1 MiB pieces, on one thread; no layout,
//                                    no checks
#include <windows.h>

#include <psapi.h>
#include <shlwapi.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cwchar>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/dir_list.h"
#include "common/unique_resource.h"
#include "iso/builtin_image.h"
#include "iso/file_system_image.h"
#include "tests/iso/sink_stream.h"

namespace {

using namespace kx::imapi2;

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

bool MakeTree(const std::wstring& tree) {
    if (::GetFileAttributesW((tree + L"\\complete").c_str()) != INVALID_FILE_ATTRIBUTES) return true;
    const std::wstring small = tree + L"\\small";
    ::CreateDirectoryW(tree.c_str(), nullptr);
    ::CreateDirectoryW(small.c_str(), nullptr);
    for (int i = 0; i < kLarge; ++i)
        if (!WriteFileOf(tree + L"\\large " + std::to_wstring(i) + L".bin", kLargeBytes, i)) return false;
    unsigned seed = 0;
    for (int d = 0; d < kFolders; ++d) {
        const std::wstring folder = small + L"\\folder " + std::to_wstring(d);
        ::CreateDirectoryW(folder.c_str(), nullptr);
        for (int f = 0; f < kSmallPerFolder; ++f, ++seed)
            if (!WriteFileOf(folder + L"\\file " + std::to_wstring(f) + L".txt", 512 + (seed * 7919) % 7700, seed))
                return false;
    }
    return WriteFileOf(tree + L"\\complete", 0, 0);
}

std::vector<std::wstring> SmallFiles(const std::wstring& tree) {
    std::vector<std::wstring> out;
    for (int d = 0; d < kFolders; ++d)
        for (int f = 0; f < kSmallPerFolder; ++f)
            out.push_back(tree + L"\\small\\folder " + std::to_wstring(d) + L"\\file " + std::to_wstring(f) + L".txt");
    return out;
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

double Seconds(const std::function<void()>& f) {
    const auto t0 = std::chrono::steady_clock::now();
    f();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// WriteFile of `bytes` into a new file in `chunk` pieces.
double WriteSeconds(const std::wstring& path, unsigned long long bytes, DWORD chunk) {
    std::vector<char> buf(chunk, 'x');
    return Seconds([&] {
        kx::unique_hfile f(
            ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD put = 0;
        for (unsigned long long done = 0; done < bytes; done += chunk) ::WriteFile(f.get(), buf.data(), chunk, &put, nullptr);
    });
}

// The floor: walk, one open, read and close per file, one output file.
int Floor(const std::wstring& work, const std::wstring& tree) {
    const std::wstring out = work + L"\\iso-floor.bin";
    std::vector<char> buf(1 << 20);
    unsigned long long files = 0, bytes = 0;
    bool ok = true;
    const double s = Seconds([&] {
        kx::unique_hfile image(
            ::CreateFileW(out.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        ok = static_cast<bool>(image);
        std::function<void(const std::wstring&)> copy = [&](const std::wstring& dir) {
            kx::ListDirectory(dir + L"\\*", [&](const WIN32_FIND_DATAW& fd) {
                const std::wstring path = dir + L"\\" + fd.cFileName;
                if (kx::IsFolder(fd)) return copy(path), ok;
                kx::unique_hfile f(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                                 FILE_ATTRIBUTE_NORMAL, nullptr));
                DWORD got = 0, put = 0;
                while (ok && f && ::ReadFile(f.get(), buf.data(), static_cast<DWORD>(buf.size()), &got, nullptr) &&
                       got) {
                    ok = ::WriteFile(image.get(), buf.data(), got, &put, nullptr) && put == got;
                    bytes += got;
                }
                ++files;
                return ok;
            });
        };
        if (ok) copy(tree);
    });
    ::DeleteFileW(out.c_str());
    if (!ok) return std::printf("floor: writing [%ls] failed\n", out.c_str()), 1;
    std::printf("floor: %llu files, %llu MB: %.3f s\n", files, bytes / 1000000, s);
    return 0;
}

int Once(const std::wstring& work, const std::wstring& tree) {
    const std::wstring image = work + L"\\iso-bench.iso";
    DWORD rc = 0;
    const double s = Seconds([&] { rc = kx::iso::CreateIsoImage(tree, L"BENCH", image); });
    const unsigned long long bytes = FileBytes(image);
    ::DeleteFileW(image.c_str());
    if (rc) {
        std::printf("CreateIsoImage failed, rc = 0x%08lx\n", static_cast<unsigned long>(rc));
        return 1;
    }
    std::printf("seconds=%.3f image_mb=%llu peak_mib=%llu\n", s, bytes / 1000000, PeakMiB());
    return 0;
}

// A stream that takes everything and keeps nothing.
class NullSink final : public kxtest::SinkStream {
public:
    HRESULT STDMETHODCALLTYPE Write(const void*, ULONG bytes, ULONG* written) override {
        if (written) *written = bytes;
        return S_OK;
    }
};

int Phases(const std::wstring& work, const std::wstring& tree) {
    kx::com_ptr<IFileSystemImage> image;
    if (FAILED(kx::iso::CreateBuiltinImage(image.put()))) return 1;
    kx::com_ptr<IFsiDirectoryItem> root;
    image->get_Root(root.put());
    BSTR path = ::SysAllocString(tree.c_str());
    HRESULT hr = S_OK;
    const double add = Seconds([&] { hr = root->AddTree(path, VARIANT_TRUE); });
    ::SysFreeString(path);
    if (FAILED(hr)) return std::printf("AddTree failed, hr = 0x%08lx\n", static_cast<unsigned long>(hr)), 1;
    kx::com_ptr<IFileSystemImageResult> result;
    const double layout = Seconds([&] { hr = image->CreateResultImage(result.put()); });
    if (FAILED(hr)) return std::printf("CreateResultImage failed, hr = 0x%08lx\n", static_cast<unsigned long>(hr)), 1;
    auto copy = [&](IStream* to) {
        kx::com_ptr<IStream> stream;
        result->get_ImageStream(stream.put());
        STATSTG st{};
        stream->Stat(&st, STATFLAG_NONAME);
        if (FAILED(stream->CopyTo(to, st.cbSize, nullptr, nullptr))) std::printf("CopyTo failed\n");
    };
    NullSink sink;
    const double read = Seconds([&] { copy(&sink); });
    const std::wstring out = work + L"\\iso-bench.iso";
    const double write = Seconds([&] {
        kx::com_ptr<IStream> file;
        ::SHCreateStreamOnFileEx(out.c_str(), STGM_CREATE | STGM_WRITE, FILE_ATTRIBUTE_NORMAL, TRUE, nullptr,
                                 file.put());
        copy(file.get());
        file->Commit(STGC_DEFAULT);
    });
    ::DeleteFileW(out.c_str());
    const double release = Seconds([&] {
        result.reset();
        root.reset();
        image.reset();
    });
    std::printf("phase: AddTree %.3f s\nphase: CreateResultImage (layout) %.3f s\n"
                "phase: image stream into a null sink %.3f s\nphase: image stream into the image file %.3f s\n"
                "phase: release of the image (closing the files it held) %.3f s\n",
                add, layout, read, write, release);
    return 0;
}

int Micro(const std::wstring& work, const std::wstring& tree) {
    const std::vector<std::wstring> files = SmallFiles(tree);
    const double n = static_cast<double>(files.size());
    auto perFile = [&](const char* what, const std::function<void(const std::wstring&)>& f) {
        const double s = Seconds([&] {
            for (const auto& p : files) f(p);
        });
        std::printf("micro: %-58s %7.1f us per file (%.3f s for %zu)\n", what, s / n * 1e6, s, files.size());
    };
    auto walk = [&](FINDEX_INFO_LEVELS level, DWORD flags) {
        size_t count = 0;
        for (int d = 0; d < kFolders; ++d) {
            WIN32_FIND_DATAW fd;
            const std::wstring pattern = tree + L"\\small\\folder " + std::to_wstring(d) + L"\\*";
            kx::unique_hfind h(::FindFirstFileExW(pattern.c_str(), level, &fd, FindExSearchNameMatch, nullptr, flags));
            if (!h) continue;
            do ++count;
            while (::FindNextFileW(h.get(), &fd));
        }
        return count;
    };
    perFile("FindFirstFileExW walk (basic, large fetch), per entry", [&](const std::wstring& p) {
        if (p == files.front()) walk(FindExInfoBasic, FIND_FIRST_EX_LARGE_FETCH);
    });
    perFile("FindFirstFileW walk (standard), per entry", [&](const std::wstring& p) {
        if (p == files.front()) walk(FindExInfoStandard, 0);
    });
    auto open = [](const std::wstring& p) {
        return kx::unique_hfile(::CreateFileW(p.c_str(), GENERIC_READ,
                                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    perFile("GetFileAttributesW", [](const std::wstring& p) { ::GetFileAttributesW(p.c_str()); });
    perFile("CreateFileW + CloseHandle", [&](const std::wstring& p) { open(p); });
    auto openSizeTime = [&](const std::wstring& p) {
        auto f = open(p);
        LARGE_INTEGER size;
        FILETIME t;
        ::GetFileSizeEx(f.get(), &size);
        ::GetFileTime(f.get(), nullptr, nullptr, &t);
        return f;
    };
    perFile("CreateFileW + GetFileSizeEx + GetFileTime + CloseHandle", [&](const std::wstring& p) { openSizeTime(p); });
    for (unsigned threads : {2u, 4u, 8u}) {
        std::atomic<size_t> next{0};
        const double s = Seconds([&] {
            std::vector<std::thread> pool;
            for (unsigned t = 0; t < threads; ++t)
                pool.emplace_back([&] {
                    for (size_t i; (i = next++) < files.size();) open(files[i]);
                });
            for (auto& t : pool) t.join();
        });
        std::printf("micro: CreateFileW + CloseHandle on %u threads %25s %7.1f us per file (%.3f s for %zu)\n",
                    threads, "", s / n * 1e6, s, files.size());
    }
    std::vector<char> buf(4 << 20);
    perFile("CreateFileW + size + time + ReadFile (whole) + CloseHandle", [&](const std::wstring& p) {
        auto f = openSizeTime(p);
        DWORD got = 0;
        ::ReadFile(f.get(), buf.data(), 65536, &got, nullptr);
    });
    const std::wstring large = tree + L"\\large 0.bin";
    const std::wstring scratch = work + L"\\iso-micro.bin";
    for (DWORD chunk : {64u << 10, 1u << 20, 4u << 20}) {
        double s = Seconds([&] {
            auto f = open(large);
            DWORD got = 0;
            while (::ReadFile(f.get(), buf.data(), chunk, &got, nullptr) && got) {
            }
        });
        std::printf("micro: ReadFile of a %llu MiB file in %4lu KiB chunks: %7.0f MB/s\n", kLargeBytes >> 20,
                    chunk >> 10, kLargeBytes / 1e6 / s);
        s = WriteSeconds(scratch, kLargeBytes, chunk);
        std::printf("micro: WriteFile of %llu MiB in %4lu KiB chunks: %7.0f MB/s\n", kLargeBytes >> 20, chunk >> 10,
                    kLargeBytes / 1e6 / s);
        s = Seconds([&] {
            kx::com_ptr<IStream> f;
            ::SHCreateStreamOnFileEx(scratch.c_str(), STGM_CREATE | STGM_WRITE, FILE_ATTRIBUTE_NORMAL, TRUE, nullptr,
                                     f.put());
            ULONG put = 0;
            for (unsigned long long done = 0; done < kLargeBytes; done += chunk) f->Write(buf.data(), chunk, &put);
            f->Commit(STGC_DEFAULT);
        });
        std::printf("micro: file stream Write of %llu MiB in %4lu KiB chunks: %7.0f MB/s\n", kLargeBytes >> 20,
                    chunk >> 10, kLargeBytes / 1e6 / s);
    }
    ::DeleteFileW(scratch.c_str());
    return 0;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: iso_bench <work> --tree | --once <tree> | --phases | --micro | --write <MiB> <KiB> | --floor <tree>\n");
        return 2;
    }
    const std::wstring work = argv[1];
    const std::wstring mode = argv[2];
    const std::wstring tree = work + L"\\iso-tree";
    if (!MakeTree(tree)) {
        std::fprintf(stderr, "iso_bench: cannot make the tree\n");
        return 1;
    }
    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    int rc = 0;
    if (mode == L"--once" && argc > 3)
        rc = Once(work, argv[3]);
    else if (mode == L"--floor" && argc > 3)
        rc = Floor(work, argv[3]);
    else if (mode == L"--phases")
        rc = Phases(work, tree);
    else if (mode == L"--micro")
        rc = Micro(work, tree);
    else if (mode == L"--write" && argc > 4) {
        const unsigned long long mib = std::wcstoull(argv[3], nullptr, 10);
        const DWORD chunk = static_cast<DWORD>(std::wcstoul(argv[4], nullptr, 10)) << 10;
        const double s = WriteSeconds(work + L"\\iso-write.bin", mib << 20, chunk);
        std::printf("write %llu MiB in %lu KiB chunks: %.3f s\n", mib, chunk >> 10, s);
    } else if (mode != L"--tree")
        rc = 2;
    ::CoUninitialize();
    return rc;
}
