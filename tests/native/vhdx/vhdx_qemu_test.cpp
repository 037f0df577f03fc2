// VHDX files made by qemu-img and written by qemu-io read byte for byte as
// qemu-img converts them to raw.
#include "vhdx_test_util.h"

namespace vhdxtest {
namespace {

struct QemuCase {
    const char* name;
    const char* subformat;
    uint32_t blockMiB;
    uint64_t size;
};

// Sizes that end inside a block and inside a chunk of blocks; block sizes
// whose chunk ratio puts sector bitmap entries among the ones read.
const QemuCase kQemuCases[] = {
    {"dynamic_1m", "dynamic", 1, 30 * kMiB + 512 * 3},
    {"dynamic_8m", "dynamic", 8, 70 * kMiB + 4096},
    {"dynamic_32m", "dynamic", 32, 100 * kMiB},
    {"fixed_1m", "fixed", 1, 24 * kMiB + 1024},
    {"fixed_8m", "fixed", 8, 20 * kMiB},
    {"fixed_32m", "fixed", 32, 40 * kMiB + 512},
};

class QemuImage : public ::testing::TestWithParam<QemuCase> {};

TEST_P(QemuImage, ReadsAsQemuConverts) {
    const QemuCase& c = GetParam();
    ScratchDir dir;
    const std::string image = dir / "disk.vhdx";
    std::string log;
    ASSERT_EQ(RunCommand("qemu-img create -f vhdx -o subformat=" + std::string(c.subformat) +
                             ",block_size=" + std::to_string(c.blockMiB) + "M '" + image + "' " + std::to_string(c.size),
                         &log),
              0)
        << log;
    // Patterns at the start, across block edges, in the middle and at the
    // very end; one pattern overwritten in part by another.
    const uint64_t block = uint64_t{c.blockMiB} << 20;
    const std::vector<std::tuple<uint64_t, uint64_t, int>> writes = {
        {0, 4096, 0x11},
        {block - 512, 1024, 0x22},
        {3 * block + 4096, 65536, 0x33},
        {3 * block + 8192, 512, 0x44},
        {c.size / 2 / 512 * 512, 512 * 9, 0x55},
        {c.size - 512, 512, 0x66}};
    std::string cmds;
    for (const auto& [off, len, pattern] : writes)
        if (off + len <= c.size)
            cmds += " -c 'write -P " + std::to_string(pattern) + " " + std::to_string(off) + " " + std::to_string(len) + "'";
    ASSERT_EQ(RunCommand("qemu-io -f vhdx" + cmds + " '" + image + "'", &log), 0) << log;
    const Bytes expected = QemuRaw(image, dir);
    ASSERT_EQ(expected.size(), c.size);

    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(OpenPosix(image, false, &disk), 0u);
    EXPECT_EQ(disk->Size(), c.size);
    EXPECT_EQ(disk->BlockSize(), c.blockMiB << 20);
    EXPECT_EQ(disk->LogicalSectorSize(), 512u);
    EXPECT_EQ(disk->Kind(), std::string(c.subformat) == "fixed" ? DiskKind::kFixed : DiskKind::kDynamic);
    EXPECT_EQ(disk->Parent(), nullptr);
    const Bytes got = ReadAll(*disk, 777);
    EXPECT_TRUE(got == expected) << FirstDifference(got, expected);
    // One large read over everything agrees with the uneven ones.
    Bytes whole(c.size);
    ASSERT_EQ(disk->Read(0, whole.size(), whole.data()), 0u);
    EXPECT_TRUE(whole == expected) << FirstDifference(whole, expected);
    uint32_t signature = 0;
    ASSERT_EQ(disk->Signature(&signature), 0u);
    EXPECT_EQ(signature, 0x11111111u);
    // Reading must not have touched the file.
    EXPECT_EQ(RunCommand("qemu-img check -f vhdx '" + image + "'", &log), 0) << log;
}

INSTANTIATE_TEST_SUITE_P(Vhdx, QemuImage, ::testing::ValuesIn(kQemuCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vhdxtest
