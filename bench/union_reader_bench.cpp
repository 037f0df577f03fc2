// The union reader over a chain of 16 bitmap files of 64 MiB each (a 256 GiB
// disk), read with 1 MiB requests, next to plain reads of the same files with
// the same request size. Warm page cache; the best of three passes each.
//
//   union_reader_bench [folder]
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bitmap/bitmap_file_format.h"
#include "bitmap/union_reader.h"
#include "common/positioned_io.h"
#include "common/unique_resource.h"

namespace {

using kx::unique_hfile;

constexpr int kChain = 16;
constexpr LONGLONG kSectors = 256LL * 1024 * 1024 * 1024 / 512;  // 256 GiB
constexpr DWORD kBodyBytes = static_cast<DWORD>(kSectors / 8);   // 64 MiB
constexpr LONG kRequest = 1 << 20;

std::wstring BitmapPath(const std::wstring& root, int session) {
    wchar_t b[64];
    _snwprintf(b, 64, L"\\VCM-bitmap\\S%010d", session);
    return root + b + L"\\disk0000000001.Bitmap";
}

bool WriteChain(const std::wstring& root) {
    std::vector<BYTE> body(kBodyBytes);
    std::mt19937_64 rng(1);
    for (int s = 1; s <= kChain; ++s) {
        wchar_t b[64];
        CreateDirectoryW((root + L"\\VCM-bitmap").c_str(), nullptr);
        _snwprintf(b, 64, L"\\VCM-bitmap\\S%010d", s);
        CreateDirectoryW((root + b).c_str(), nullptr);
        for (size_t i = 0; i < body.size(); i += 8) {
            const uint64_t v = rng() & rng() & rng();  // sparse-ish bits
            std::memcpy(&body[i], &v, 8);
        }
        kx::bitmap::BitmapFileHeader h{};
        h.version = 1;
        h.differencing = s == 1 ? 0 : 1;  // the chain ends at the full disk of session 1
        h.totalSectors = kSectors;
        unique_hfile f(CreateFileW(BitmapPath(root, s).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
        if (!f) return false;
        DWORD w;
        WriteFile(f.get(), &h, sizeof h, &w, nullptr);
        WriteFile(f.get(), body.data(), kBodyBytes, &w, nullptr);
    }
    return true;
}

double Seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Plain positioned reads of every file, request by request.
double PlainPass(const std::wstring& root, std::vector<BYTE>& buf) {
    std::vector<unique_hfile> files;
    for (int s = kChain; s >= 1; --s)
        files.emplace_back(CreateFileW(BitmapPath(root, s).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                       nullptr, OPEN_EXISTING, 0, nullptr));
    const auto t0 = std::chrono::steady_clock::now();
    for (ULONGLONG off = 0; off < kBodyBytes; off += kRequest)
        for (const unique_hfile& f : files) {
            DWORD got;
            kx::io::ReadAt(f.get(), 256 + off, buf.data(), kRequest, &got);
        }
    return Seconds(t0);
}

double UnionPass(IDiskBmpReader* reader, std::vector<BYTE>& raw, unsigned long long* setBits) {
    auto* b = reinterpret_cast<DiskBitmapBuffer*>(raw.data());
    const auto t0 = std::chrono::steady_clock::now();
    unsigned long long bits = 0;
    for (LONGLONG start = 0; start < kSectors; start += kRequest * 8LL) {
        if (reader->GetBitmap(start, kRequest, b)) return -1;
        bits += b->bitmap[0] & 1;  // keep the work observable
    }
    const double t = Seconds(t0);
    *setBits = bits;
    return t;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    wchar_t tmp[MAX_PATH];
    GetTempPathW(MAX_PATH, tmp);
    const std::wstring root = argc > 1 ? argv[1] : std::wstring(tmp) + L"kx_union_bench";
    CreateDirectoryW(root.c_str(), nullptr);
    std::printf("union reader: %d bitmap files of %lu MiB (a 256 GiB disk), 1 MiB requests\n", kChain,
                kBodyBytes >> 20);
    if (!WriteChain(root)) return std::printf("cannot write the bitmap files under %ls\n", root.c_str()), 1;

    IDiskBmpReader* created = nullptr;
    wchar_t disk[64];
    _snwprintf(disk, 64, L"\\VStore\\S%010d\\disk0000000001.zek", kChain);
    const DWORD rc = kx::bitmap::GetBitmapReader_IncsFromFull((root + disk).c_str(), 1, &created);
    kx::unique_released<IDiskBmpReader> reader(created);
    if (rc) return std::printf("GetBitmapReader_IncsFromFull failed, rc = %lu\n", rc), 1;

    std::vector<BYTE> buf(kRequest), raw(DiskBitmapBufferSize(kRequest));
    unsigned long long bits = 0;
    PlainPass(root, buf);  // warm the page cache
    double plain = 1e9, uni = 1e9;
    for (int i = 0; i < 3; ++i) {
        plain = std::min(plain, PlainPass(root, buf));
        uni = std::min(uni, UnionPass(reader.get(), raw, &bits));
    }
    reader.reset();
    const double mib = double(kChain) * (kBodyBytes >> 20);
    std::printf("plain reads:  %.3f s  %8.0f MiB/s\n", plain, mib / plain);
    std::printf("union reader: %.3f s  %8.0f MiB/s\n", uni, mib / uni);
    std::printf("ratio union/plain throughput: %.2f (goal >= 0.70)\n", plain / uni);
    for (int s = 1; s <= kChain; ++s) DeleteFileW(BitmapPath(root, s).c_str());
    return 0;
}
