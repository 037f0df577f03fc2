// Geometry and creation of disks.
#include "vhd_test_util.h"

namespace vhdtest {
namespace {

using kx::vhd::ChsForSectors;

TEST(VhdGeometry, ChsFollowsTheFormatTable) {
    struct Case {
        uint64_t sectors;
        uint16_t c;
        uint8_t h, s;
    };
    for (const Case& k : std::vector<Case>{
             {10 * kMiB / kSector, 301, 4, 17},
             {1024 * kMiB / kSector, 2080, 16, 63},
             {100 * 1024 * kMiB / kSector, 51400, 16, 255},
             {200 * kMiB / kSector, 825, 16, 31},          // the 31-sector branch
             {65535ull * 16 * 63 - 1, 65534, 16, 63},       // just below the 255-sector branch
             {65535ull * 16 * 63, 16191, 16, 255},
             {2040ull * 1024 * kMiB / kSector, 65535, 16, 255},  // capped
             {1, 0, 4, 17},
         }) {
        const kx::vhd::Chs chs = ChsForSectors(k.sectors);
        EXPECT_EQ(chs.cylinders, k.c) << k.sectors;
        EXPECT_EQ(chs.heads, k.h) << k.sectors;
        EXPECT_EQ(chs.sectorsPerTrack, k.s) << k.sectors;
    }
}

TEST(VhdCreate, RejectsBadRequestsAndLeavesNoFile) {
    kxnative::MemoryFileSystem mem;
    std::unique_ptr<VhdDisk> disk;
    auto create = [&](DiskType type, uint64_t size, uint32_t blockSize, std::u16string parent = {}) {
        kx::vhd::CreateParams p;
        p.type = type;
        p.size = size;
        p.blockSize = blockSize;
        p.parentPath = parent;
        const Status s = VhdDisk::Create(mem, u"/new.vhd", p, &disk);
        if (s) {
            EXPECT_FALSE(mem.Exists(u"/new.vhd"));
            EXPECT_EQ(disk, nullptr);
        }
        return s;
    };
    const uint32_t bs = kx::vhd::kDefaultBlockSize;
    EXPECT_EQ(create(DiskType::kDynamic, 0, bs), kx::vhd::kInvalidSize);
    EXPECT_EQ(create(DiskType::kFixed, kx::vhd::kMaxDiskSize + 1, bs), kx::vhd::kInvalidSize);
    for (uint32_t bad : {0u, 2048u, 3000u, 3u * 4096, 512u << 20})
        EXPECT_EQ(create(DiskType::kDynamic, kMiB, bad), kx::vhd::kInvalidParameter) << bad;
    EXPECT_EQ(create(static_cast<DiskType>(5), kMiB, bs), kx::vhd::kInvalidParameter);
    EXPECT_EQ(create(DiskType::kDifferencing, 0, bs, u"/missing.vhd"), kx::vhd::kParentNotFound);
    mem.Put(u"/junk.vhd", Bytes(4096, 0x5A));
    EXPECT_EQ(create(DiskType::kDifferencing, 0, bs, u"/junk.vhd"), kx::vhd::kFooterMissing);

    // A size is rounded up to whole sectors; an existing file is left alone.
    ASSERT_EQ(create(DiskType::kDynamic, 1000, 4096), 0u);
    EXPECT_EQ(disk->Size(), 1024u);
    disk.reset();
    const Bytes before = mem.Get(u"/new.vhd");
    kx::vhd::CreateParams p;
    p.size = kMiB;
    EXPECT_EQ(VhdDisk::Create(mem, u"/new.vhd", p, &disk), kx::vhd::kFileExists);
    EXPECT_EQ(mem.Get(u"/new.vhd"), before);
}

// A creation that fails at any write returns that failure and removes what
// it had written.
TEST(VhdCreate, FailureAtAnyWriteRemovesTheFile) {
    for (DiskType type : {DiskType::kFixed, DiskType::kDynamic, DiskType::kDifferencing}) {
        kxnative::MemoryFileSystem mem;
        kx::vhd::CreateParams p;
        p.size = 3 * kMiB;
        std::unique_ptr<VhdDisk> base;
        ASSERT_EQ(VhdDisk::Create(mem, u"/base.vhd", p, &base), 0u);
        base.reset();
        p.type = type;
        p.parentPath = u"/base.vhd";
        for (long allowed = 0;; ++allowed) {
            std::unique_ptr<VhdDisk> disk;
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
