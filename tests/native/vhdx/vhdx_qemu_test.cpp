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

namespace vhdxtest {
namespace {

// A disk past its first chunk (4 GiB of 512-byte sectors): the table
// entries beyond the first sector bitmap entry must be found where qemu put
// them. Only windows around the written ranges are compared.
TEST(QemuImageLarge, BlocksBeyondTheFirstChunk) {
    for (uint32_t blockMiB : {1u, 32u}) {
        SCOPED_TRACE(blockMiB);
        ScratchDir dir;
        const std::string image = dir / "big.vhdx", raw = dir / "big.raw";
        const uint64_t size = 9ull << 30;
        std::string log;
        ASSERT_EQ(RunCommand("qemu-img create -f vhdx -o block_size=" + std::to_string(blockMiB) + "M '" + image +
                                 "' " + std::to_string(size),
                             &log),
                  0)
            << log;
        const std::vector<uint64_t> spots = {(4ull << 30) - 4096, 4ull << 30, (8ull << 30) + (1 << 20) * 5 + 512,
                                             size - 65536};
        std::string cmds;
        int pattern = 1;
        for (uint64_t at : spots) cmds += " -c 'write -P " + std::to_string(pattern++ * 17) + " " + std::to_string(at) + " 8192'";
        ASSERT_EQ(RunCommand("qemu-io -f vhdx" + cmds + " '" + image + "'", &log), 0)
            << log;
        ASSERT_EQ(RunCommand("qemu-img convert -f vhdx -O raw '" + image + "' '" + raw + "'", &log), 0) << log;
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(OpenPosix(image, false, &disk), 0u);
        FILE* f = fopen(raw.c_str(), "rb");
        ASSERT_NE(f, nullptr);
        for (uint64_t at : spots) {
            const uint64_t from = at - (at > (1 << 20) ? (1 << 20) : 0);
            Bytes want(std::min<uint64_t>(3 << 20, size - from)), got(want.size());
            ASSERT_EQ(fseeko(f, static_cast<off_t>(from), SEEK_SET), 0);
            ASSERT_EQ(fread(want.data(), 1, want.size(), f), want.size());
            ASSERT_EQ(disk->Read(from, got.size(), got.data()), 0u);
            EXPECT_TRUE(got == want) << "window at " << from << ": " << FirstDifference(got, want);
            EXPECT_NE(std::count(got.begin(), got.end(), 0), static_cast<long>(got.size()));
        }
        fclose(f);
    }
}

}  // namespace
}  // namespace vhdxtest
