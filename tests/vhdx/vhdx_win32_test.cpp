// The VHDX library on Win32 files (white box): qemu-made images read byte
// for byte as qemu converts them, and disks made and written here (a
// dynamic base and a differencing child, found through its relative path)
// read back as written after reopening.
#include <gtest/gtest.h>

#include <random>

#include "kx_test.h"
#include "platform/vhdx/vhdx_disk.h"
#include "platform/win32_positioned_file.h"

namespace {

using kx::vdisk::Win32FileSystem;
using kx::vdisk::ToU16;
using kx::vhdx::DiskKind;
using kx::vhdx::VhdxDisk;

std::wstring Fixture(const std::string& name) {
    const std::string unix = std::string(KX_VHDX_FIXTURES) + "/" + name;
    return L"Z:" + std::wstring(unix.begin(), unix.end());
}

kx::vhd::Status OpenDisk(Win32FileSystem& fs, const std::wstring& path, bool writable, std::unique_ptr<VhdxDisk>* disk) {
    std::unique_ptr<kx::vhd::PositionedFile> file;
    const DWORD access = GENERIC_READ | (writable ? GENERIC_WRITE : 0);
    if (kx::vhd::Status s = Win32FileSystem::OpenFile(path, access, FILE_SHARE_READ, OPEN_EXISTING, &file)) return s;
    return VhdxDisk::Open(std::move(file), ToU16(path), writable, fs, disk);
}

std::vector<uint8_t> ReadAll(VhdxDisk& disk) {
    std::vector<uint8_t> out(disk.Size());
    size_t step = 4097;
    for (uint64_t at = 0; at < out.size();) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(step, out.size() - at));
        EXPECT_EQ(disk.Read(at, n, &out[at]), 0u) << at;
        at += n;
        step = step * 3 % (3 << 20) + 512;
    }
    return out;
}

TEST(VhdxWin32, QemuImagesReadAsQemuConvertsThem) {
    for (const char* name : {"dynamic-1m", "fixed-8m", "dynamic-32m"}) {
        SCOPED_TRACE(name);
        Win32FileSystem fs(FILE_SHARE_READ);
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(OpenDisk(fs, Fixture(std::string(name) + ".vhdx"), false, &disk), 0u);
        const std::vector<uint8_t> raw = kxtest::ReadBytes(Fixture(std::string(name) + ".raw"));
        ASSERT_EQ(raw.size(), disk->Size());
        EXPECT_TRUE(ReadAll(*disk) == raw);
        uint32_t signature = 0;
        ASSERT_EQ(disk->Signature(&signature), 0u);
        EXPECT_EQ(signature, 0x21212121u);
        EXPECT_EQ(disk->GetGeometry().bytesPerSector, 512u);
    }
}

TEST(VhdxWin32, MadeWrittenAndChainedHere) {
    kxtest::ScratchDir dir;
    Win32FileSystem fs(FILE_SHARE_READ);
    const std::wstring base = dir / L"base.vhdx", child = dir / L"child.avhdx";
    std::vector<uint8_t> model(6 << 20);
    std::mt19937 gen(5);
    auto write = [&](VhdxDisk& disk, uint64_t at, size_t n) {
        for (size_t i = 0; i < n; ++i) model[at + i] = static_cast<uint8_t>(gen());
        return disk.Write(at, n, &model[at]);
    };
    std::unique_ptr<VhdxDisk> disk;
    kx::vhdx::CreateParams p;
    p.kind = DiskKind::kDynamic;
    p.size = model.size();
    p.blockSize = 1 << 20;
    ASSERT_EQ(VhdxDisk::Create(fs, ToU16(base), p, &disk), 0u);
    ASSERT_EQ(write(*disk, 100, 3 << 20), 0u);
    disk.reset();
    p.kind = DiskKind::kDifferencing;
    p.parentPath = ToU16(base);
    ASSERT_EQ(VhdxDisk::Create(fs, ToU16(child), p, &disk), 0u);
    ASSERT_EQ(write(*disk, 7, 1000), 0u);
    ASSERT_EQ(write(*disk, (5 << 20) - 3, 9000), 0u);
    disk.reset();
    ASSERT_EQ(OpenDisk(fs, child, false, &disk), 0u);
    ASSERT_NE(disk->Parent(), nullptr);
    EXPECT_TRUE(ReadAll(*disk) == model);
}

}  // namespace
