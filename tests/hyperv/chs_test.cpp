// Geometry repair through the DLL on real disk images: partition tables
// written by sfdisk, NTFS boot sectors by mkntfs, packed as VHD and VHDX by
// qemu-img (chs_images.py, at build time). What each case must change comes
// from that script's own reading of the rules (expect.txt); this program
// checks the results, found flags and log lines, and leaves the repaired
// images for the script, which reads them back with qemu-img and compares
// every byte of the first MiB and of the volume's first MiB.
//
// Disks of 4096-byte sectors, which qemu-img does not make, are made here
// through the VHDX library from the first 2 MiB the script wrote (so qemu-img
// reading them back checks the library's writing too).
//
// Bad input: every refusal must leave the file byte for byte as it was.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "KestrixHA/hyperv_disk.h"
#include "kx_test.h"
#include "platform/vhdx/vhdx_disk.h"
#include "platform/win32_positioned_file.h"

namespace {

using kxtest::LogCursor;
using kxtest::ReadBytes;
using kxtest::ScratchDir;

constexpr const char* kOp = "CAdjustBootCfg_HyperV::AdjustDiskVolumeCHS";
constexpr ULONGLONG kMiB = 1 << 20;

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }
std::wstring UnixPath(const char* folder, const std::string& file) { return Wide(std::string("Z:") + folder + "/" + file); }
std::wstring Made(const std::string& file) { return UnixPath(KX_CHS_MADE, file); }

struct Expectation {
    std::string name, file;
    ULONGLONG offset = 0;
    bool found = false, mbr = false, boot = false;
    DWORD sectorSize = 512;
    ULONGLONG size = 0;
    std::string head;  // the first 2 MiB of a disk to be made here
};

// expect.txt: name|file|volume offset|active entry|MBR rewritten|boot sector
// changed|sector size|disk size|head file.
std::vector<Expectation> Expectations() {
    std::vector<Expectation> all;
    std::ifstream in(std::string(KX_CHS_MADE) + "/expect.txt");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        Expectation e;
        std::string offset, found, mbr, boot, sectorSize, size;
        std::getline(fields, e.name, '|');
        std::getline(fields, e.file, '|');
        std::getline(fields, offset, '|');
        std::getline(fields, found, '|');
        std::getline(fields, mbr, '|');
        std::getline(fields, boot, '|');
        std::getline(fields, sectorSize, '|');
        std::getline(fields, size, '|');
        std::getline(fields, e.head, '|');
        e.offset = std::stoull(offset);
        e.sectorSize = static_cast<DWORD>(std::stoul(sectorSize));
        e.size = std::stoull(size);
        e.found = found == "1", e.mbr = mbr == "1", e.boot = boot == "1";
        all.push_back(e);
    }
    return all;
}

void Copy(const std::wstring& from, const std::wstring& to) {
    ASSERT_TRUE(::CopyFileW(from.c_str(), to.c_str(), FALSE)) << kxtest::Narrow(from) << " " << ::GetLastError();
    ::SetFileAttributesW(to.c_str(), FILE_ATTRIBUTE_NORMAL);
}

// The level of the one line that holds `text`; -1 when there is none, -2
// when there are several.
int LevelOf(const LogCursor& log, const std::string& text) {
    const auto lines = log.Matching(Wide(text));
    return lines.empty() ? -1 : lines.size() > 1 ? -2 : lines[0].level;
}

// A dynamic VHDX of the case's size and sector size, made by the library,
// holding the case's first 2 MiB.
void MakeLibraryDisk(const Expectation& c, const std::wstring& path) {
    namespace vhdx = kx::vhdx;
    vhdx::CreateParams params;
    params.kind = vhdx::DiskKind::kDynamic;
    params.size = c.size;
    params.blockSize = 1 << 20;
    params.logicalSectorSize = c.sectorSize;
    params.physicalSectorSize = 4096;
    kx::vdisk::Win32FileSystem fs(FILE_SHARE_READ);
    ::DeleteFileW(path.c_str());
    std::unique_ptr<vhdx::VhdxDisk> disk;
    ASSERT_EQ(vhdx::VhdxDisk::Create(fs, kx::vdisk::ToU16(path), params, &disk), 0u);
    const auto head = ReadBytes(Made(c.head));
    ASSERT_EQ(disk->Write(0, head.size(), head.data()), 0u);
    ASSERT_EQ(disk->Flush(), 0u);
}

std::string Op(const std::string& rest) { return std::string(kOp) + rest; }

DWORD Repair(const std::wstring& path, ULONGLONG offset, bool* found, const wchar_t* volume = L"C:") {
    CAdjustBootCfg_HyperV fix;
    return fix.AdjustDiskVolumeCHS(path.c_str(), volume, offset, found);
}

// ---- real images ----------------------------------------------------------------

TEST(ChsRepair, RealImagesAsTheRulesSay) {
    const auto cases = Expectations();
    ASSERT_GE(cases.size(), 16u);
    kxtest::MakeDirs(Wide(std::string("Z:") + KX_CHS_OUT + "/before"));
    for (const Expectation& c : cases) {
        SCOPED_TRACE(c.name);
        const std::wstring out = UnixPath(KX_CHS_OUT, c.file);
        if (c.head.empty()) {
            Copy(Made(c.file), out);
        } else {
            const std::wstring before = UnixPath(KX_CHS_OUT, "before/" + c.file);
            MakeLibraryDisk(c, before);
            Copy(before, out);
        }
        const bool vhdx = c.file.ends_with(".vhdx");
        LogCursor log;
        bool found = !c.found;
        EXPECT_EQ(Repair(out, c.offset, &found), 0u);
        EXPECT_EQ(found, c.found);
        const std::string path = kxtest::Narrow(out);
        if (!c.found) {
            EXPECT_EQ(LevelOf(log, Op(": Failed to find the bootable partition on Disk[" + path + "]")), 2);
            EXPECT_FALSE(log.Contains(L"Vol[C:]"));
            continue;
        }
        EXPECT_EQ(LevelOf(log, Op(": The MBR and Boot Sector of Disk[" + path + "] will be fixed to number of "
                                  "cylinders[1024], tracks per cylinder[")),
                  2);
        EXPECT_EQ(LevelOf(log, Op(vhdx ? ": VHDX Vol[C:]: SecPerTrack[" : ": Vol[C:]: SecPerTrack[")), 2);
        EXPECT_EQ(LevelOf(log, Op(": Succeed to update MBR for disk = " + path)), c.mbr ? 2 : -1);
        EXPECT_EQ(LevelOf(log, "CAdjustBootCfg_HyperV::update mbr succeed"), c.mbr ? 2 : -1);
        EXPECT_EQ(LevelOf(log, Op(vhdx ? ": Need update VHDX boot code" : ": Need update boot code")), c.boot ? 2 : -1);
        EXPECT_EQ(LevelOf(log, Op(vhdx ? ": Succeed to update VHDX boot code for volume[C:]"
                                       : ": Succeed to update boot code for volume[C:]")),
                  c.boot ? 2 : -1);
        EXPECT_EQ(LevelOf(log, Op(", SecPerTrack no need to change, just break")), c.mbr ? -1 : 2);
        EXPECT_EQ(LevelOf(log, "start Head["), c.mbr ? 4 : -1);
        EXPECT_EQ(log.Contains(L"max sectors is "), c.mbr);
        if (!vhdx) {
            EXPECT_TRUE(log.Contains(L"Volume Start Offset Sector: " + std::to_wstring(c.offset / 512) + L" ."));
        }

        // A second repair finds nothing left to change: the file stays as
        // the first one left it.
        const auto once = ReadBytes(out);
        EXPECT_EQ(Repair(out, c.offset, &found), 0u);
        EXPECT_TRUE(ReadBytes(out) == once) << "the second repair changed the file";
    }
}

TEST(ChsRepair, ExportWritesItsFrameLines) {
    ScratchDir dir;
    const std::wstring path = dir / L"frame.vhdx";
    Copy(Made("vhdx-128.vhdx"), path);
    LogCursor log;
    EXPECT_EQ(AdjustVirtualDiskVolumeCHS(path.c_str(), L"Boot", kMiB), 0u);
    const std::string p = kxtest::Narrow(path);
    EXPECT_EQ(LevelOf(log, "AdjustVirtualDiskVolumeCHS(" + p + ", Boot, 1048576) starts"), 1);
    EXPECT_EQ(LevelOf(log, "AdjustVirtualDiskVolumeCHS() finished, rc = [0]"), 1);
    EXPECT_EQ(LevelOf(log, Op(": Succeed to update VHDX boot code for volume[Boot]")), 2);
    // A null volume name is printed as such; nothing else changes.
    LogCursor again;
    EXPECT_EQ(AdjustVirtualDiskVolumeCHS(path.c_str(), nullptr, kMiB), 0u);
    EXPECT_TRUE(again.Contains(L"AdjustVirtualDiskVolumeCHS(" + path + L", NULL, 1048576) starts"));
}

// A differencing VHDX: the repair lands in the child; the parent, opened
// read-only beneath it, stays byte for byte as it was.
TEST(ChsRepair, DifferencingVhdxWritesTheChildOnly) {
    namespace vhdx = kx::vhdx;
    ScratchDir dir;
    const std::wstring parent = dir / L"parent.vhdx", child = dir / L"child.avhdx";
    Copy(Made("vhdx-128.vhdx"), parent);
    const auto parentBefore = ReadBytes(parent);
    {
        vhdx::CreateParams params;
        params.kind = vhdx::DiskKind::kDifferencing;
        params.parentPath = kx::vdisk::ToU16(parent);
        kx::vdisk::Win32FileSystem fs(FILE_SHARE_READ);
        std::unique_ptr<vhdx::VhdxDisk> disk;
        ASSERT_EQ(vhdx::VhdxDisk::Create(fs, kx::vdisk::ToU16(child), params, &disk), 0u);
    }
    LogCursor log;
    bool found = false;
    EXPECT_EQ(Repair(child, kMiB, &found), 0u);
    EXPECT_TRUE(found);
    EXPECT_TRUE(log.Contains(L"Succeed to update VHDX boot code for volume[C:]"));
    EXPECT_TRUE(ReadBytes(parent) == parentBefore) << "the repair wrote to the parent";
    // The child now answers for the repaired sectors: a second repair finds
    // the boot sector right.
    LogCursor again;
    EXPECT_EQ(Repair(child, kMiB, &found), 0u);
    EXPECT_TRUE(again.Contains(L"SecPerTrack no need to change, just break"));
    EXPECT_TRUE(ReadBytes(parent) == parentBefore);
}

// The extension alone picks the branch, whatever the file holds.
TEST(ChsRepair, ExtensionPicksTheFormat) {
    struct Case {
        const char* image;
        const wchar_t* name;
        bool vhdBranch;
        bool opens;
    } const cases[] = {
        {"vhd-128.vhd", L"disk.VHD", true, true},       {"vhd-128.vhd", L"disk.Avhd", true, true},
        {"vhdx-128.vhdx", L"disk.vhdx", false, true},   {"vhdx-128.vhdx", L"disk.AVHDX", false, true},
        {"vhdx-128.vhdx", L"disk.img", false, true},    {"vhd-128.vhd", L"disk.avhdx", false, false},
        {"vhdx-128.vhdx", L"disk.vhd", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kxtest::Narrow(c.name));
        ScratchDir dir;
        const std::wstring path = dir / c.name;
        Copy(Made(c.image), path);
        const auto before = ReadBytes(path);
        LogCursor log;
        bool found = false;
        const DWORD rc = Repair(path, kMiB, &found);
        const std::string p = kxtest::Narrow(path);
        if (c.opens) {
            EXPECT_EQ(rc, 0u);
            EXPECT_TRUE(found);
            EXPECT_EQ(log.Contains(L"VHDX Vol[C:]"), !c.vhdBranch);
            EXPECT_EQ(log.Contains(L"AdjustDiskVolumeCHS: Vol[C:]"), c.vhdBranch);
            EXPECT_FALSE(ReadBytes(path) == before);
        } else {
            // The other format's file: refused by its open, untouched.
            EXPECT_NE(rc, 0u);
            const std::string line = Op(c.vhdBranch ? ": Fail to OpenDisk, path = " : ": Fail to OpenVHDXDisk, path = ") +
                                     p + ", rc = " + std::to_string(static_cast<int>(rc));
            EXPECT_EQ(LevelOf(log, line), 0);
            EXPECT_TRUE(ReadBytes(path) == before);
        }
    }
}

// ---- bad input ---------------------------------------------------------------------

TEST(ChsRepair, NothingToOpen) {
    LogCursor log;
    bool found = true;
    EXPECT_EQ(Repair(L"", 0, &found), 0u);
    EXPECT_FALSE(found);
    EXPECT_EQ(Repair(L"", 0, nullptr), 0u);
    CAdjustBootCfg_HyperV fix;
    EXPECT_EQ(fix.AdjustDiskVolumeCHS(nullptr, nullptr, 0, &found), 0u);
    // No "." anywhere: not even an attempt to open.
    EXPECT_EQ(Repair(L"Z:\\no_such_folder\\disk", kMiB, &found), 0u);
    EXPECT_EQ(AdjustVirtualDiskVolumeCHS(L"", L"C:", 0), 0u);
    EXPECT_TRUE(log.Matching(Wide(kOp)).empty());
    EXPECT_TRUE(log.Matching(L"Fail").empty());
}

// Each refusal: its code, its line at level 0 with that code, the file as it was.
TEST(ChsRepair, RefusalsLeaveTheFileAlone) {
    ScratchDir dir;
    struct Case {
        const char* what;
        const char* image;  // null: no file
        const wchar_t* name;
        ULONGLONG offset;
        DWORD rc;          // 0: any failure
        const char* line;  // after the operation's name; the path or volume and the code follow
        bool lock, corrupt;
    } const cases[] = {
        {"missing VHDX", nullptr, L"gone.vhdx", kMiB, ERROR_FILE_NOT_FOUND, ": Fail to OpenVHDXDisk, path = ", false,
         false},
        {"missing VHD", nullptr, L"gone.vhd", kMiB, ERROR_FILE_NOT_FOUND, ": Fail to OpenDisk, path = ", false, false},
        {"VHDX held by another open", "vhdx-128.vhdx", L"held.vhdx", kMiB, ERROR_SHARING_VIOLATION,
         ": Fail to OpenVHDXDisk, path = ", true, false},
        {"VHD held by another open", "vhd-128.vhd", L"held.vhd", kMiB, ERROR_SHARING_VIOLATION,
         ": Fail to OpenDisk, path = ", true, false},
        {"VHDX with both headers damaged", "vhdx-128.vhdx", L"bad.vhdx", kMiB, 0, ": Fail to OpenVHDXDisk, path = ",
         false, true},
        {"VHDX volume past the disk's end", "vhdx-right.vhdx", L"far.vhdx", 1ull << 40, ERROR_INVALID_PARAMETER,
         ": cannot set vhdx file positon, rc = ", false, false},
        {"VHD volume past the disk's end", "vhd-right.vhd", L"far.vhd", 1ull << 40, 0,
         ": Fail to Read boot code for volume[", false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::wstring path = dir / c.name;
        std::vector<uint8_t> before;
        if (c.image) {
            Copy(Made(c.image), path);
            if (c.corrupt) {
                // One byte inside each of the two headers (at 64 KiB and 128 KiB).
                auto bytes = ReadBytes(path);
                bytes[64 * 1024 + 100] ^= 0x5A;
                bytes[128 * 1024 + 100] ^= 0x5A;
                kxtest::WriteBytes(path, bytes.data(), bytes.size());
            }
            before = ReadBytes(path);
        }
        kx::unique_hfile holder;
        if (c.lock)
            holder.reset(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        LogCursor log;
        bool found = true;
        const DWORD rc = Repair(path, c.offset, &found);
        if (c.rc) {
            EXPECT_EQ(rc, c.rc);
        } else {
            EXPECT_NE(rc, 0u);
        }
        std::string line = Op(c.line);
        if (std::string(c.line).ends_with("path = "))
            line += kxtest::Narrow(path) + ", rc = ";
        else if (std::string(c.line).ends_with("volume["))
            line += "C:], rc = ";
        line += std::to_string(static_cast<int>(rc));
        EXPECT_EQ(LevelOf(log, line), 0);
        EXPECT_FALSE(log.Contains(L"Succeed to update"));
        holder.reset();
        if (c.image) {
            EXPECT_TRUE(ReadBytes(path) == before) << "the refused file changed";
        }
    }
}

}  // namespace
