// Helpers of the native VHDX tests: opening and creating disks over the
// POSIX and in-memory file layers, a model of the bytes a disk should hold,
// and the independent readers (qemu-img, libvhdi) to compare with.
#pragma once

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "platform/vhdx/vhdx_disk.h"
#include "vhd_test_util.h"

namespace vhdxtest {

using kx::vhdx::CreateParams;
using kx::vhdx::DiskKind;
using kx::vhdx::VhdxDisk;
using kxnative::Bytes;
using vhdtest::kMiB;
using vhdtest::ReadFile;
using vhdtest::RunCommand;
using vhdtest::ScratchDir;
using vhdtest::U16;
using Status = kx::vhd::Status;

inline kxnative::PosixFileSystem& Posix() {
    static kxnative::PosixFileSystem posix;
    return posix;
}

inline Status OpenPosix(const std::string& path, bool writable, std::unique_ptr<VhdxDisk>* disk) {
    std::unique_ptr<kx::vhd::PositionedFile> file;
    if (Status s = kxnative::OpenPosixFile(U16(path), writable, &file)) return s;
    return VhdxDisk::Open(std::move(file), U16(path), writable, Posix(), disk);
}

inline Status OpenMem(kxnative::MemoryFileSystem& mem, const std::u16string& path, bool writable,
                      std::unique_ptr<VhdxDisk>* disk) {
    std::unique_ptr<kx::vhd::PositionedFile> file;
    if (Status s = mem.Open(path, writable, &file)) return s;
    return VhdxDisk::Open(std::move(file), path, writable, mem, disk);
}

inline CreateParams Params(DiskKind kind, uint64_t size, uint32_t blockMiB, uint32_t logical = 512,
                           const std::string& parent = {}) {
    CreateParams p;
    p.kind = kind;
    p.size = size;
    p.blockSize = blockMiB << 20;
    p.logicalSectorSize = logical;
    p.parentPath = U16(parent);
    return p;
}

// The whole disk read in uneven pieces, so that reads start and end
// everywhere within sectors and blocks.
inline Bytes ReadAll(VhdxDisk& disk, uint64_t step = 1) {
    Bytes out(disk.Size());
    uint64_t at = 0;
    while (at < out.size()) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(step, out.size() - at));
        EXPECT_EQ(disk.Read(at, n, &out[at]), 0u) << "read " << at << "+" << n;
        at += n;
        step = step * 7 % 3000017 + 1;
    }
    return out;
}

// Writes pseudo-random bytes both to the disk and to `model`.
inline Status WriteBoth(VhdxDisk& disk, Bytes& model, uint64_t offset, size_t bytes, uint32_t seed) {
    std::mt19937 gen(seed ^ static_cast<uint32_t>(offset));
    for (size_t i = 0; i < bytes; ++i) model.at(offset + i) = static_cast<uint8_t>(gen());
    return disk.Write(offset, bytes, &model[offset]);
}

// The first difference between two byte strings, as text for a failure.
inline std::string FirstDifference(const Bytes& a, const Bytes& b) {
    if (a.size() != b.size()) return "sizes " + std::to_string(a.size()) + " and " + std::to_string(b.size());
    for (size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i]) return "first difference at byte " + std::to_string(i);
    return "";
}

// The disk as qemu-img converts it to raw bytes.
inline Bytes QemuRaw(const std::string& image, const ScratchDir& dir) {
    const std::string out = dir / "qemu.raw";
    std::string log;
    EXPECT_EQ(RunCommand("qemu-img convert -f vhdx -O raw '" + image + "' '" + out + "'", &log), 0) << log;
    Bytes b = ReadFile(out);
    std::remove(out.c_str());
    return b;
}

// The disk as libvhdi reads it; `chain` lists its parents, nearest first.
inline Bytes VhdiRaw(const std::string& image, const std::vector<std::string>& chain, const ScratchDir& dir) {
    const std::string out = dir / "vhdi.raw";
    std::string cmd = "/usr/bin/python3 '" KX_NATIVE_DIR "/vhdi_read.py' '" + out + "' '" + image + "'";
    for (const std::string& p : chain) cmd += " '" + p + "'";
    std::string log;
    EXPECT_EQ(RunCommand(cmd, &log), 0) << log;
    Bytes b = ReadFile(out);
    std::remove(out.c_str());
    return b;
}

}  // namespace vhdxtest
