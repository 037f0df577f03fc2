// Differencing chains made and written by this library: every level reads
// as a model of its writes over its parents', and libvhdi agrees; parents
// are found through the relative path, then the absolute one, and a wrong
// or missing parent is refused.
#include <filesystem>

#include "platform/vhdx/vhdx_format.h"
#include "vhdx_test_util.h"

namespace vhdxtest {
namespace {

struct ChainCase {
    const char* name;
    DiskKind baseKind;
    uint32_t blockMiB;
    uint32_t logical;
    int levels;  // differencing disks above the base
};

const ChainCase kChainCases[] = {
    {"dynamic_two_levels", DiskKind::kDynamic, 1, 512, 1},
    {"dynamic_three_levels", DiskKind::kDynamic, 2, 512, 2},
    {"fixed_three_levels_4096", DiskKind::kFixed, 1, 4096, 2},
    {"dynamic_three_levels_4096", DiskKind::kDynamic, 8, 4096, 2},
};

class Chain : public ::testing::TestWithParam<ChainCase> {};

// Writes of each level: partial sectors, sectors already written below,
// writes over sectors this level wrote before, block edges.
std::vector<std::pair<uint64_t, size_t>> LevelWrites(int level, uint64_t size, uint64_t block, uint32_t sector) {
    switch (level) {
        case 0:
            return {{0, 2 * block + 5}, {size - 3 * sector, 3 * sector}, {size / 2, 10000}};
        case 1:
            return {{sector + 3, 10},          {block - sector - 1, 2 * sector + 2}, {size / 2 + 100, 40},
                    {size - 1, 1},             {3 * block + 17, 5},                  {sector + 1, 1}};
        default:
            return {{2, sector}, {block + sector * 7, sector * 9 + 3}, {size / 2 + 90, 30}, {size - sector - 7, 8}};
    }
}

TEST_P(Chain, EveryLevelReadsItsModelAndLibvhdiAgrees) {
    const ChainCase& c = GetParam();
    ScratchDir dir;
    const uint64_t block = uint64_t{c.blockMiB} << 20;
    const uint64_t size = 5 * block + 3 * c.logical;
    std::vector<std::string> paths = {dir / "base.vhdx"};
    Bytes model(size, 0);
    {
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(VhdxDisk::Create(Posix(), U16(paths[0]), Params(c.baseKind, size, c.blockMiB, c.logical), &disk), 0u);
        for (const auto& [off, len] : LevelWrites(0, size, block, c.logical))
            ASSERT_EQ(WriteBoth(*disk, model, off, len, 100), 0u);
    }
    for (int level = 1; level <= c.levels; ++level) {
        paths.push_back(dir / ("level" + std::to_string(level) + ".avhdx"));
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(VhdxDisk::Create(Posix(), U16(paths.back()),
                                   Params(DiskKind::kDifferencing, 0, c.blockMiB, 512, paths[level - 1]), &disk),
                  0u);
        EXPECT_EQ(disk->Kind(), DiskKind::kDifferencing);
        EXPECT_EQ(disk->Size(), size);
        EXPECT_EQ(disk->LogicalSectorSize(), c.logical);
        ASSERT_NE(disk->Parent(), nullptr);
        // Before any write the child shows its parent exactly.
        EXPECT_TRUE(ReadAll(*disk, 12345) == model);
        for (const auto& [off, len] : LevelWrites(level, size, block, c.logical))
            ASSERT_EQ(WriteBoth(*disk, model, off, len, 100 + level), 0u);
        const Bytes got = ReadAll(*disk, 999);
        EXPECT_TRUE(got == model) << "level " << level << ": " << FirstDifference(got, model);
    }
    std::unique_ptr<VhdxDisk> top;
    ASSERT_EQ(OpenPosix(paths.back(), false, &top), 0u);
    const Bytes got = ReadAll(*top, 65536 * 3);
    EXPECT_TRUE(got == model) << "reopened: " << FirstDifference(got, model);
    int depth = 0;
    for (const VhdxDisk* d = top.get(); d->Parent(); d = d->Parent()) ++depth;
    EXPECT_EQ(depth, c.levels);

    const std::vector<std::string> parents(paths.rbegin() + 1, paths.rend());
    const Bytes vhdi = VhdiRaw(paths.back(), parents, dir);
    EXPECT_TRUE(vhdi == model) << "libvhdi: " << FirstDifference(vhdi, model);
    if (c.logical == 512) {
        std::string log;
        for (const std::string& p : paths)
            if (p == paths[0]) EXPECT_EQ(RunCommand("qemu-img check -f vhdx '" + p + "'", &log), 0) << log;
    }
}

INSTANTIATE_TEST_SUITE_P(Vhdx, Chain, ::testing::ValuesIn(kChainCases),
                         [](const auto& info) { return std::string(info.param.name); });

// A base and a child in `dir`, the base holding known bytes.
void MakePair(const ScratchDir& dir, const std::string& base, const std::string& child) {
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(VhdxDisk::Create(Posix(), U16(base), Params(DiskKind::kDynamic, 4 * kMiB, 1), &disk), 0u);
    const std::vector<uint8_t> ones(4096, 0xAB);
    ASSERT_EQ(disk->Write(0, ones.size(), ones.data()), 0u);
    disk.reset();
    ASSERT_EQ(VhdxDisk::Create(Posix(), U16(child), Params(DiskKind::kDifferencing, 0, 1, 512, base), &disk), 0u);
    (void)dir;
}

TEST(ChainLocator, RelativePathFirstThenAbsolute) {
    ScratchDir dir;
    const std::string base = dir / "base.vhdx", child = dir / "child.avhdx";
    MakePair(dir, base, child);
    std::unique_ptr<VhdxDisk> disk;
    uint8_t b = 0;

    // The pair moved together: only the relative path still leads to the
    // parent (the absolute one names the old place).
    std::filesystem::create_directories(dir.path() / "moved");
    const std::string movedBase = dir / "moved/base.vhdx", movedChild = dir / "moved/child.avhdx";
    std::filesystem::rename(base, movedBase);
    std::filesystem::rename(child, movedChild);
    ASSERT_EQ(OpenPosix(movedChild, false, &disk), 0u);
    EXPECT_EQ(disk->Parent()->Path(), U16(dir / "moved/base.vhdx"));
    ASSERT_EQ(disk->Read(10, 1, &b), 0u);
    EXPECT_EQ(b, 0xAB);

    // The child moved alone: the relative path misses, the absolute one
    // (back in place) finds the parent.
    std::filesystem::rename(movedBase, base);
    ASSERT_EQ(OpenPosix(movedChild, false, &disk), 0u);
    EXPECT_EQ(disk->Parent()->Path(), U16(base));
    ASSERT_EQ(disk->Read(10, 1, &b), 0u);
    EXPECT_EQ(b, 0xAB);

    // Neither leads anywhere.
    std::filesystem::rename(base, dir / "elsewhere.vhdx");
    EXPECT_EQ(OpenPosix(movedChild, false, &disk), kx::vhd::kParentNotFound);
    EXPECT_EQ(disk, nullptr);
}

TEST(ChainLocator, ParentWrittenAfterTheChildWasMadeIsRefused) {
    ScratchDir dir;
    const std::string base = dir / "base.vhdx", child = dir / "child.avhdx";
    MakePair(dir, base, child);
    {
        // Writing the parent gives it a new data write identifier.
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(OpenPosix(base, true, &disk), 0u);
        const uint8_t x = 1;
        ASSERT_EQ(disk->Write(0, 1, &x), 0u);
    }
    std::unique_ptr<VhdxDisk> disk;
    EXPECT_EQ(OpenPosix(child, false, &disk), kx::vhd::kChildParentIdMismatch);
}

TEST(ChainLocator, LoopIsRefused) {
    // Two differencing disks naming each other: each one's linkage is the
    // other's data write identifier, so only the loop check stops them.
    ScratchDir dir;
    const std::string base = dir / "a.vhdx", b = dir / "b.avhdx", c = dir / "c.avhdx";
    MakePair(dir, base, b);
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(VhdxDisk::Create(Posix(), U16(c), Params(DiskKind::kDifferencing, 0, 1, 512, b), &disk), 0u);
    disk.reset();
    // Rewrite b's locator to point at c, with c's data write identifier.
    ASSERT_EQ(OpenPosix(c, false, &disk), 0u);
    const std::u16string cGuid = kx::vhdx::FormatGuid(disk->DataWriteGuid());
    ASSERT_EQ(OpenPosix(b, false, &disk), 0u);
    std::u16string bBase = kx::vhdx::FormatGuid(disk->Parent()->DataWriteGuid());
    for (char16_t& ch : bBase) ch = static_cast<char16_t>(std::tolower(ch));
    disk.reset();
    Bytes raw = ReadFile(b);
    auto replace = [&](const std::u16string& from, const std::u16string& to) {
        ASSERT_EQ(from.size(), to.size());
        const auto* f = reinterpret_cast<const uint8_t*>(from.data());
        auto it = std::search(raw.begin(), raw.end(), f, f + from.size() * 2);
        ASSERT_NE(it, raw.end());
        std::memcpy(&*it, to.data(), to.size() * 2);
    };
    replace(bBase, cGuid);
    replace(u"a.vhdx", u"c.avhd");  // the absolute path; the relative one follows
    replace(u"a.vhdx", u"c.avhd");
    vhdtest::WriteFile(b, raw);
    std::filesystem::rename(c, dir / "c.avhd");
    EXPECT_EQ(OpenPosix(dir / "c.avhd", false, &disk), kx::vhd::kChainCycleDetected);
    EXPECT_EQ(OpenPosix(b, false, &disk), kx::vhd::kChainCycleDetected);
}

}  // namespace
}  // namespace vhdxtest
