// kxha disk on real images (sfdisk, mkntfs, qemu-img; see tests/hyperv):
// what info reads from a VHD and a VHDX, and what fix-chs reports changed,
// worked out here by hand from the partition table the images were made
// with. The repair's own cases are the library tests'.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;

namespace {

std::wstring Image(const std::string& file) {
    const std::string path = std::string("Z:") + KX_CHS_MADE + "/" + file;
    return std::wstring(path.begin(), path.end());
}

}  // namespace

TEST(KxhaDisk, InfoReadsBothFormats) {
    // sfdisk's table: label id 0x4B584841, active NTFS entry at 2048 for
    // 16384 sectors; mkntfs gave it 32 sectors per track, 16 heads, 63 hidden.
    for (const char* file : {"vhd-128.vhd", "vhdx-128.vhdx"}) {
        SCOPED_TRACE(file);
        const bool vhd = std::string(file).ends_with(".vhd");
        const auto r = Kxha(L"disk info " + Q(Image(file)));
        EXPECT_EQ(r.code, 0u) << r.out;
        EXPECT_TRUE(Has(r, vhd ? "format:            VHD (dynamic)" : "format:            VHDX (dynamic)")) << r.out;
        EXPECT_TRUE(Has(r, "virtual size:      4227858432 bytes")) << r.out;
        // 1024 x 128 x 63 sectors: the VHD rule gives 8192/16/63.
        EXPECT_TRUE(Has(r, "geometry:          8192/16/63 (cylinders/heads/sectors per track), 512 bytes per sector"))
            << r.out;
        EXPECT_TRUE(Has(r, "disk signature:    0x4B584841")) << r.out;
        EXPECT_TRUE(Has(r, "active partition:  entry 1, type 0x07, first LBA 2048, 16384 sectors")) << r.out;
        EXPECT_TRUE(Has(r, "boot sector:     32 sectors per track, 16 heads, 63 hidden sectors")) << r.out;
        const auto j = Kxha(L"disk info " + Q(Image(file)) + L" --json");
        EXPECT_TRUE(Has(j, "\"first_lba\": 2048, \"sectors\": 16384")) << j.out;
        EXPECT_TRUE(Has(j, "\"boot_sector\": {\"sectors_per_track\": 32, \"heads\": 16, \"hidden_sectors\": 63}"))
            << j.out;
        EXPECT_TRUE(Has(j, "\"parents\": []")) << j.out;
    }
    const auto none = Kxha(L"disk info " + Q(Image("vhdx-no-active.vhdx")));
    EXPECT_TRUE(Has(none, "active partition:  none")) << none.out;
    const auto missing = Kxha(L"disk info " + Q(L"C:\\nicht da.vhdx"));
    EXPECT_EQ(missing.code, 1u);
    EXPECT_TRUE(Has(missing, "rc = 2 (0x00000002)")) << missing.out;
}

TEST(KxhaDisk, FixChsPrintsWhatChanged) {
    kxtest::ScratchDir dir;
    const std::wstring disk = dir / L"Gäst Ω.vhdx";
    ASSERT_TRUE(::CopyFileW(Image("vhdx-128.vhdx").c_str(), disk.c_str(), FALSE));
    auto r = Kxha(L"disk fix-chs " + Q(disk) + L" 0x100000 --volume C:");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "boot sector at byte 1048576:\n")) << r.out;
    EXPECT_TRUE(Has(r, "  sectors per track: 32 -> 63\n  heads: 16 -> 128\n  hidden sectors: 63 -> 2048\n")) << r.out;
    // Start 2048 is 0/32/33 in both sfdisk's 255-head and the 128-head
    // geometry; the end is the sector past the entry, 18432 = 2 x 8064 +
    // 36 x 63 + 36.
    EXPECT_TRUE(Has(r, "MBR entry 1 (active):\n  end CHS: ")) << r.out;
    EXPECT_TRUE(Has(r, " -> 2/36/37\n")) << r.out;
    EXPECT_FALSE(Has(r, "start CHS")) << r.out;
    EXPECT_EQ(Kxha(L"disk fix-chs " + Q(disk) + L" 1048576").out, "nothing changed\n");

    const std::wstring plain = dir / L"plain.vhdx";
    ASSERT_TRUE(::CopyFileW(Image("vhdx-no-active.vhdx").c_str(), plain.c_str(), FALSE));
    EXPECT_EQ(Kxha(L"disk fix-chs " + Q(plain) + L" 1048576").out, "no active partition in the MBR: nothing changed\n");
    r = Kxha(L"disk fix-chs " + Q(plain) + L" 1MiB");
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "not a byte offset: 1MiB")) << r.out;
    EXPECT_EQ(Kxha(L"disk fix-chs " + Q(plain)).code, 2u);
    r = Kxha(L"disk fix-chs " + Q(dir / L"gone.vhd") + L" 0");
    EXPECT_TRUE(Has(r, "AdjustDiskVolumeCHS failed, rc = 2 (0x00000002)")) << r.out;
}
