// Geometry and creation of disks.
#include "vhd_test_util.h"

namespace vhdtest {
namespace {

TEST(VhdGeometry, ChsFollowsTheFormatTable) {
    struct Case { uint64_t sectors; uint16_t c; uint8_t h, s; };
    for (const Case& k : std::vector<Case>{
             {1024 * kMiB / kSector, 2080, 16, 63},
             {200 * kMiB / kSector, 825, 16, 31},          // the 31-sector branch
             {65535ull * 16 * 63 - 1, 65534, 16, 63},       // just below the 255-sector branch
             {65535ull * 16 * 63, 16191, 16, 255},
             {2040ull * 1024 * kMiB / kSector, 65535, 16, 255},  // capped
             {1, 0, 4, 17},
         }) {
        const kx::vhd::Chs chs = kx::vhd::ChsForSectors(k.sectors);
        EXPECT_EQ(std::tuple(chs.cylinders, chs.heads, chs.sectorsPerTrack), std::tuple(k.c, k.h, k.s)) << k.sectors;
    }
}

TEST(VhdCreate, RejectsBadRequestsAndLeavesNoFile) {
    kxnative::MemoryFileSystem mem;
    mem.Put(u"/junk.vhd", Bytes(4096, 0x5A));
    std::unique_ptr<VhdDisk> disk;
    const uint32_t bs = kx::vhd::kDefaultBlockSize;
    struct Case { kx::vhd::CreateParams params; Status expected; };
    std::vector<Case> cases = {
        {{.type = DiskType::kDynamic, .size = 0}, kx::vhd::kInvalidSize},
        {{.type = DiskType::kFixed, .size = kx::vhd::kMaxDiskSize + 1}, kx::vhd::kInvalidSize},
        {{.type = static_cast<DiskType>(5), .size = kMiB}, kx::vhd::kInvalidParameter},
        {{DiskType::kDifferencing, 0, bs, u"/missing.vhd"}, kx::vhd::kParentNotFound},
        {{DiskType::kDifferencing, 0, bs, u"/junk.vhd"}, kx::vhd::kFooterMissing},
    };
    for (uint32_t bad : {0u, 2048u, 3000u, 3u * 4096, 512u << 20})
        cases.push_back({{DiskType::kDynamic, kMiB, bad, {}}, kx::vhd::kInvalidParameter});
    for (const Case& c : cases) {
        EXPECT_EQ(VhdDisk::Create(mem, u"/new.vhd", c.params, &disk), c.expected) << c.params.blockSize;
        EXPECT_FALSE(mem.Exists(u"/new.vhd"));
        EXPECT_EQ(disk, nullptr);
    }

    // A size is rounded up to whole sectors; an existing file is left alone.
    ASSERT_EQ(VhdDisk::Create(mem, u"/new.vhd", {DiskType::kDynamic, 1000, 4096, {}}, &disk), 0u);
    EXPECT_EQ(disk->Size(), 1024u);
    disk.reset();
    const Bytes before = mem.Get(u"/new.vhd");
    EXPECT_EQ(VhdDisk::Create(mem, u"/new.vhd", {.size = kMiB}, &disk), kx::vhd::kFileExists);
    EXPECT_EQ(mem.Get(u"/new.vhd"), before);
}

// A creation that fails at any write returns that failure and removes what
// it had written.
TEST(VhdCreate, FailureAtAnyWriteRemovesTheFile) {
    for (DiskType type : {DiskType::kFixed, DiskType::kDynamic, DiskType::kDifferencing}) {
        kxnative::MemoryFileSystem mem;
        std::unique_ptr<VhdDisk> disk;
        ASSERT_EQ(VhdDisk::Create(mem, u"/base.vhd", {.size = 3 * kMiB}, &disk), 0u);
        const kx::vhd::CreateParams p = {type, 3 * kMiB, kx::vhd::kDefaultBlockSize, u"/base.vhd"};
        for (long allowed = 0;; ++allowed) {
            mem.writesLeft = allowed;
            const Status s = VhdDisk::Create(mem, u"/d/new.vhd", p, &disk);
            mem.writesLeft = -1;
            if (s == 0) {
                EXPECT_GT(allowed, 0);
                break;
            }
            ASSERT_EQ(s, kxnative::MemoryFileSystem::kIoFault);
            ASSERT_FALSE(mem.Exists(u"/d/new.vhd")) << allowed;
            ASSERT_LT(allowed, 100);
        }
    }
}

}  // namespace
}  // namespace vhdtest
