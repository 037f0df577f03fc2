// Shared helpers of the native tests: scratch folders, files, external tools,
// and for the VHD tests a byte-exact model of what a disk should hold and raw
// field patching.
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

inline Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

inline void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// Runs a shell command; its exit code, and its output and errors together.
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

// A sector's worth of bytes that differ per seed and per sector.
inline void FillSector(uint32_t seed, uint64_t sector, uint8_t* out) {
    uint64_t x = (sector + 1) * 0x9E3779B97F4A7C15ull ^ (uint64_t{seed} << 32 | seed);
    for (uint32_t i = 0; i < kSector; i += 8) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        for (int k = 0; k < 8; ++k) out[i + k] = static_cast<uint8_t>(x >> (8 * k));
    }
}

// Writes the sectors to the disk and, whether or not that works, to `model`,
// the bytes the disk should read back.
inline Status WriteModel(VhdDisk& disk, Bytes& model, uint64_t first, uint32_t count, uint32_t seed) {
    uint8_t* at = &model.at(first * kSector);
    for (uint32_t i = 0; i < count; ++i) FillSector(seed, first + i, at + size_t{i} * kSector);
    return disk.Write(first, count, at);
}
inline void WriteBoth(VhdDisk& disk, Bytes& model, uint64_t first, uint32_t count, uint32_t seed) {
    ASSERT_EQ(WriteModel(disk, model, first, count, seed), 0u) << "write " << first << "+" << count;
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

inline Status OpenMem(kxnative::MemoryFileSystem& mem, const std::u16string& path, std::unique_ptr<VhdDisk>* disk) {
    std::unique_ptr<kx::vhd::PositionedFile> file;
    if (Status s = mem.Open(path, false, &file)) return s;
    return VhdDisk::Open(std::move(file), path, false, mem, disk);
}

inline Status CreatePosix(const std::string& path, DiskType type, uint64_t size, std::unique_ptr<VhdDisk>* disk,
                          const std::string& parent = {}, uint32_t blockSize = kx::vhd::kDefaultBlockSize) {
    kxnative::PosixFileSystem posix;
    return VhdDisk::Create(posix, U16(path), {type, size, blockSize, U16(parent)}, disk);
}

// base <- mid <- top, each with its own writes; returns what top should read.
// Every write ends on a sector 8k+7: libvhdi reads a bitmap byte right only
// when its set bits run to the byte's last sector.
inline Bytes MakeChain(const std::string& base, const std::string& mid, const std::string& top, DiskType baseType) {
    const uint64_t size = 6 * kMiB + 40 * kSector, n = size / kSector;
    Bytes model(size);
    std::unique_ptr<VhdDisk> disk;
    EXPECT_EQ(CreatePosix(base, baseType, size, &disk), 0u);
    for (auto [first, count] : {std::pair<uint64_t, uint32_t>{0, 9000}, {4095, 1}, {n - 48, 48}})
        WriteBoth(*disk, model, first, count, 1);
    EXPECT_EQ(CreatePosix(mid, DiskType::kDifferencing, 0, &disk, base), 0u);
    for (auto [first, count] : {std::pair<uint64_t, uint32_t>{4000, 200}, {8190, 10}, {n - 1, 1}})
        WriteBoth(*disk, model, first, count, 2);
    EXPECT_EQ(CreatePosix(top, DiskType::kDifferencing, 0, &disk, mid), 0u);
    for (auto [first, count] : {std::pair<uint64_t, uint32_t>{4100, 4}, {1, 7}, {4090, 14}, {n - 56, 24}})
        WriteBoth(*disk, model, first, count, 3);
    return model;
}

// Writes that start and end on every kind of edge: bitmap bytes, bitmap
// sectors, blocks, and the partial last block of the disk.
inline std::vector<std::pair<uint64_t, uint32_t>> EdgeWrites(uint32_t spb, uint64_t total) {
    std::vector<std::pair<uint64_t, uint32_t>> writes = {
        {0, 1},         {7, 1},       {8, 1},           {9, 3},          {spb - 1, 1},          {spb - 5, 12},
        {2 * spb - 3, 300}, {3, 10},  {4090, 12},       {100, spb + 17}, {total - 1, 1},        {total - 20, 19},
        {total - spb / 2, 2}};
    std::erase_if(writes, [&](const auto& w) { return w.first + w.second > total; });
    return writes;
}

// Raw structures of an image (footer, dynamic header, a BAT entry) copied
// out of it and back; at() throws where one would run past the image.
template <class Raw>
Raw GetRaw(const Bytes& b, size_t at) {
    (void)b.at(at + sizeof(Raw) - 1);
    return kx::vhd::LoadRaw<Raw>(&b[at]);
}
// Applies `edit` to the footer or dynamic header at `at` and, unless told
// otherwise, fixes its checksum.
template <class Raw, class Edit>
void EditRaw(Bytes& b, size_t at, Edit&& edit, bool reseal = true) {
    Raw raw = GetRaw<Raw>(b, at);
    edit(raw);
    if (reseal) raw.checksum.set(kx::vhd::ChecksumOf(raw));
    kx::vhd::StoreRaw(&b[at], raw);
}
inline uint32_t BatEntry(const Bytes& b, size_t table, size_t i) {
    return GetRaw<kx::vhd::Be32>(b, table + 4 * i).get();
}
inline void SetBatEntry(Bytes& b, size_t table, size_t i, uint32_t entry) {
    kx::vhd::Be32 raw;
    raw.set(entry);
    kx::vhd::StoreRaw(&b.at(table + 4 * i + 3) - 3, raw);
}

}  // namespace vhdtest
