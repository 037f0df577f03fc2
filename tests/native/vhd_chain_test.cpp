// Differencing chains: reads through parents, and finding the parent again
// after files move (qemu and libvhdi read chains too, in vhd_interop_test).
#include "vhd_test_util.h"

namespace vhdtest {
namespace {

TEST(VhdChain, ParentIsFoundAfterTheChainMoves) {
    ScratchDir dir;
    fs::create_directories(dir.path() / "old/a");
    fs::create_directories(dir.path() / "old/b");
    const Bytes model = MakeChain(dir / "old/a/base.vhd", dir / "old/b/mid.vhd", dir / "old/b/top.vhd",
                                  DiskType::kFixed);
    std::unique_ptr<VhdDisk> top;
    ASSERT_EQ(OpenPosix(dir / "old/b/top.vhd", false, &top), 0u);
    ASSERT_EQ(top->Parent()->Parent()->Type(), DiskType::kFixed);
    EXPECT_EQ(top->Parent()->Parent()->Parent(), nullptr);
    EXPECT_EQ(ReadAll(*top), model);  // through every level

    // Moved as a whole: only the relative locators still lead anywhere.
    fs::rename(dir.path() / "old", dir.path() / "new");
    ASSERT_EQ(OpenPosix(dir / "new/b/top.vhd", false, &top), 0u);
    EXPECT_EQ(ReadAll(*top), model);

    // The top moved alone: every locator now leads nowhere.
    fs::rename(dir.path() / "new/b/top.vhd", dir.path() / "top.vhd");
    EXPECT_EQ(OpenPosix(dir / "top.vhd", false, &top), kx::vhd::kParentNotFound);
    fs::rename(dir.path() / "top.vhd", dir.path() / "new/b/top.vhd");

    // The base moved beside mid, away from both of mid's locators: found by
    // the name in mid's header.
    fs::rename(dir.path() / "new/a/base.vhd", dir.path() / "new/b/base.vhd");
    ASSERT_EQ(OpenPosix(dir / "new/b/top.vhd", false, &top), 0u);
    EXPECT_EQ(ReadAll(*top), model);
}

TEST(VhdChain, BrokenChainsGiveTheirCodes) {
    ScratchDir dir;
    MakeChain(dir / "base.vhd", dir / "mid.vhd", dir / "top.vhd", DiskType::kDynamic);
    std::unique_ptr<VhdDisk> disk;
    const Bytes base = ReadFile(dir / "base.vhd"), top = ReadFile(dir / "top.vhd");

    // Another disk of the same size under the parent's name.
    fs::remove(dir.path() / "base.vhd");
    const uint64_t size = GetRaw<kx::vhd::RawFooter>(base, base.size() - kSector).currentSize.get();
    ASSERT_EQ(CreatePosix(dir / "base.vhd", DiskType::kDynamic, size, &disk), 0u);
    EXPECT_EQ(OpenPosix(dir / "top.vhd", false, &disk), kx::vhd::kChildParentIdMismatch);

    // The right parent, but of another size.
    Bytes resized = base;
    for (size_t at : {size_t{0}, resized.size() - kSector})
        EditRaw<kx::vhd::RawFooter>(resized, at, [&](kx::vhd::RawFooter& f) { f.currentSize.set(size - kSector); });
    WriteFile(dir / "base.vhd", resized);
    EXPECT_EQ(OpenPosix(dir / "top.vhd", false, &disk), kx::vhd::kChildParentSizeMismatch);

    // A loop: top's grandparent is top itself.
    WriteFile(dir / "base.vhd", top);
    EXPECT_EQ(OpenPosix(dir / "top.vhd", false, &disk), kx::vhd::kChainCycleDetected);
    EXPECT_EQ(OpenPosix(dir / "mid.vhd", false, &disk), kx::vhd::kChainCycleDetected);
}

// A stale disk where the relative locator points, sharing an ancestor with
// the real parent, is passed over for the real parent; the ancestor it
// shares is no loop.
TEST(VhdChain, StaleCopyAtTheRelativeLocationIsPassedOver) {
    ScratchDir dir;
    fs::create_directories(dir.path() / "x");
    fs::create_directories(dir.path() / "y");
    const Bytes model = MakeChain(dir / "base.vhd", dir / "mid.vhd", dir / "x/p.vhd", DiskType::kDynamic);
    std::unique_ptr<VhdDisk> disk;
    ASSERT_EQ(CreatePosix(dir / "y/c.vhd", DiskType::kDifferencing, 0, &disk, dir / "x/p.vhd"), 0u);

    // Move the child one level down; its relative locator "..\x\p.vhd" now
    // names z/x/p.vhd, where a sibling of its parent lies.
    fs::create_directories(dir.path() / "z/x");
    fs::rename(dir.path() / "y", dir.path() / "z/y");
    ASSERT_EQ(CreatePosix(dir / "z/x/p.vhd", DiskType::kDifferencing, 0, &disk, dir / "mid.vhd"), 0u);
    disk.reset();
    ASSERT_EQ(OpenPosix(dir / "z/y/c.vhd", false, &disk), 0u);
    EXPECT_EQ(ReadAll(*disk), model);
}

}  // namespace
}  // namespace vhdtest
