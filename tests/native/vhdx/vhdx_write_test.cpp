// Disks this library creates and writes, read back by qemu-img and libvhdi
// and compared with a model of what was written.
#include "vhdx_test_util.h"

namespace vhdxtest {
namespace {

struct CreateCase {
    const char* name;
    DiskKind kind;
    uint32_t blockMiB;
    uint32_t logical;
    uint64_t size;
};

const CreateCase kCreateCases[] = {
    {"dynamic_512_1m", DiskKind::kDynamic, 1, 512, 9 * kMiB + 512 * 5},
    {"dynamic_4096_1m", DiskKind::kDynamic, 1, 4096, 9 * kMiB + 4096},
    {"dynamic_512_8m", DiskKind::kDynamic, 8, 512, 20 * kMiB},
    {"dynamic_4096_32m", DiskKind::kDynamic, 32, 4096, 70 * kMiB},
    {"fixed_512_1m", DiskKind::kFixed, 1, 512, 5 * kMiB + 512},
    {"fixed_4096_8m", DiskKind::kFixed, 8, 4096, 12 * kMiB},
};

class CreatedDisk : public ::testing::TestWithParam<CreateCase> {};

// Writes that start and end on sector, block and disk edges, some of them
// partial sectors, several allocating blocks.
std::vector<std::pair<uint64_t, size_t>> EdgeWrites(uint64_t size, uint64_t block, uint32_t sector) {
    std::vector<std::pair<uint64_t, size_t>> w = {
        {0, 1},
        {1, 3},
        {sector - 2, 5},
        {block - 100, 300},
        {block * 2 + 7, static_cast<size_t>(block) + 1000},
        {size - 1, 1},
        {size - 3 * sector - 11, 2 * sector},
        {size / 2, 70000},
        {sector * 3, sector * 2},
    };
    std::erase_if(w, [&](const auto& x) { return x.first + x.second > size; });
    return w;
}

TEST_P(CreatedDisk, ReadsBackThroughQemuAndLibvhdi) {
    const CreateCase& c = GetParam();
    ScratchDir dir;
    const std::string image = dir / "made.vhdx";
    Bytes model(c.size, 0);
    {
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(VhdxDisk::Create(Posix(), U16(image), Params(c.kind, c.size, c.blockMiB, c.logical), &disk), 0u);
        EXPECT_EQ(disk->Kind(), c.kind);
        EXPECT_EQ(disk->LogicalSectorSize(), c.logical);
        uint32_t seed = 1;
        for (const auto& [off, len] : EdgeWrites(c.size, uint64_t{c.blockMiB} << 20, c.logical))
            ASSERT_EQ(WriteBoth(*disk, model, off, len, seed++), 0u) << off << "+" << len;
        const Bytes got = ReadAll(*disk, 4099);
        EXPECT_TRUE(got == model) << "own read before close: " << FirstDifference(got, model);
    }
    // qemu opens only 512-byte logical sectors; libvhdi reads both.
    if (c.logical == 512) {
        std::string log;
        EXPECT_EQ(RunCommand("qemu-img check -f vhdx '" + image + "'", &log), 0) << log;
        const Bytes qemu = QemuRaw(image, dir);
        EXPECT_TRUE(qemu == model) << "qemu-img: " << FirstDifference(qemu, model);
    }
    const Bytes vhdi = VhdiRaw(image, {}, dir);
    EXPECT_TRUE(vhdi == model) << "libvhdi: " << FirstDifference(vhdi, model);
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(OpenPosix(image, false, &disk), 0u);
    const Bytes again = ReadAll(*disk, 65536);
    EXPECT_TRUE(again == model) << "reopened: " << FirstDifference(again, model);
}

INSTANTIATE_TEST_SUITE_P(Vhdx, CreatedDisk, ::testing::ValuesIn(kCreateCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace vhdxtest
