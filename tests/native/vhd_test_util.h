// Shared helpers of the native VHD tests: scratch folders, a byte-exact model
// of what a disk should hold, raw field patching, and external tools.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "memory_file_system.h"
#include "platform/vhd/vhd_disk.h"
#include "posix_file_system.h"

namespace vhdtest {

using kxnative::Bytes;
using kx::vhd::DiskType;
using kx::vhd::Status;
using kx::vhd::VhdDisk;
namespace fs = std::filesystem;

constexpr uint32_t kSector = 512;
constexpr uint64_t kMiB = 1ull << 20;

class ScratchDir {
public:
    ScratchDir() {
        std::string tmpl = (fs::temp_directory_path() / "kxvhd-XXXXXX").string();
        if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp");
        path_ = tmpl;
    }
    ~ScratchDir() {
        std::error_code ec;
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
    fs::path path_;
};

inline std::u16string U16(const std::string& s) { return kxnative::FromUtf8(s); }

// A sector's worth of bytes that differ per seed and per sector.
inline void FillSector(uint32_t seed, uint64_t sector, uint8_t* out) {
    uint64_t x = (sector + 1) * 0x9E3779B97F4A7C15ull ^ (uint64_t{seed} << 32 | seed);
    for (uint32_t i = 0; i < kSector; i += 8) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        for (int k = 0; k < 8; ++k) out[i + k] = static_cast<uint8_t>(x >> (8 * k));
    }
}

// What the disk should read back, kept beside it.
struct Model {
    explicit Model(uint64_t bytes) : data(bytes, 0) {}
    Bytes data;
};

inline void WriteBoth(VhdDisk& disk, Model& model, uint64_t first, uint32_t count, uint32_t seed) {
    Bytes buf(size_t{count} * kSector);
    for (uint32_t i = 0; i < count; ++i) FillSector(seed, first + i, &buf[size_t{i} * kSector]);
    ASSERT_EQ(disk.Write(first, count, buf.data()), 0u) << "write " << first << "+" << count;
    std::copy(buf.begin(), buf.end(), model.data.begin() + static_cast<ptrdiff_t>(first * kSector));
}

// The whole disk, read in uneven pieces so that reads start and end
// everywhere within blocks and bitmap bytes.
inline Bytes ReadAll(VhdDisk& disk) {
    Bytes out(disk.Size());
    uint64_t at = 0;
    uint32_t step = 1;
    while (at < disk.SectorCount()) {
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(step, disk.SectorCount() - at));
        EXPECT_EQ(disk.Read(at, n, &out[at * kSector]), 0u) << "read " << at << "+" << n;
        at += n;
        step = step * 7 % 1543 + 1;
    }
    return out;
}

inline Status OpenPosix(const std::string& path, bool writable, std::unique_ptr<VhdDisk>* disk) {
    static kxnative::PosixFileSystem posix;
    std::unique_ptr<kx::vhd::PositionedFile> file;
    if (Status s = kxnative::OpenPosixFile(U16(path), writable, &file)) return s;
    return VhdDisk::Open(std::move(file), U16(path), writable, posix, disk);
}

inline Status CreatePosix(const std::string& path, DiskType type, uint64_t size, std::unique_ptr<VhdDisk>* disk,
                          const std::string& parent = {}, uint32_t blockSize = kx::vhd::kDefaultBlockSize) {
    kxnative::PosixFileSystem posix;
    kx::vhd::CreateParams p;
    p.type = type;
    p.size = size;
    p.blockSize = blockSize;
    p.parentPath = U16(parent);
    return VhdDisk::Create(posix, U16(path), p, disk);
}

inline Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Raw structures of an image (footer, dynamic header, a BAT entry) copied
// out of it and back, bounds-checked.
template <class Raw>
Raw GetRaw(const Bytes& b, size_t at) {
    if (at > b.size() || b.size() - at < sizeof(Raw)) throw std::out_of_range("raw structure past the image");
    return kx::vhd::LoadRaw<Raw>(&b[at]);
}
template <class Raw>
void PutRaw(Bytes& b, size_t at, const Raw& raw) {
    if (at > b.size() || b.size() - at < sizeof(Raw)) throw std::out_of_range("raw structure past the image");
    kx::vhd::StoreRaw(&b[at], raw);
}
// Applies `edit` to the footer or dynamic header at `at` and, unless told
// otherwise, fixes its checksum.
template <class Raw, class Edit>
void EditRaw(Bytes& b, size_t at, Edit&& edit, bool reseal = true) {
    Raw raw = GetRaw<Raw>(b, at);
    edit(raw);
    if (reseal) raw.checksum.set(kx::vhd::ChecksumOf(raw));
    PutRaw(b, at, raw);
}
inline uint32_t BatEntry(const Bytes& b, size_t table, size_t i) {
    return GetRaw<kx::vhd::Be32>(b, table + 4 * i).get();
}
inline void SetBatEntry(Bytes& b, size_t table, size_t i, uint32_t entry) {
    kx::vhd::Be32 raw;
    raw.set(entry);
    PutRaw(b, table + 4 * i, raw);
}

inline int RunCommand(const std::string& cmd, std::string* output = nullptr) {
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p) return -1;
    std::string text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) text.append(buf, n);
    const int rc = pclose(p);
    if (output) *output = text;
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

inline bool HaveTool(const std::string& name) { return RunCommand("command -v " + name + " >/dev/null") == 0; }

}  // namespace vhdtest
