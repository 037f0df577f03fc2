// Reads, writes and sector bitmaps of single disks and of chains, against a
// byte-exact model of what each disk should hold and the sectors written.
#include <set>

#include "vhd_test_util.h"

namespace vhdtest {
namespace {

struct Layout {
    const char* name;
    DiskType type;
    uint32_t blockSize;
};

class VhdRoundTrip : public ::testing::TestWithParam<Layout> {};

// The bitmap answer for [start, start + 8 * bytes), computed from the set of
// sectors written to this file.
void ExpectBitmap(VhdDisk& disk, const std::set<uint64_t>& present, bool all, uint64_t start, uint32_t bytes) {
    Bytes bits(bytes + 4, 0xAA);
    uint64_t aligned = 1, valid = 1;
    ASSERT_EQ(disk.GetBitmap(start, bytes, &aligned, &valid, bits.data()), 0u);
    ASSERT_EQ(aligned, start / 8 * 8);
    const uint64_t total = disk.SectorCount();
    ASSERT_EQ(valid, aligned >= total ? 0 : std::min<uint64_t>(8ull * bytes, total - aligned)) << start;
    for (uint64_t i = 0; i < 8ull * bytes; ++i) {
        const bool want = i < valid && (all || present.count(aligned + i));
        ASSERT_EQ((bits[i / 8] >> (i % 8)) & 1, want ? 1 : 0) << "start " << start << " bit " << i;
    }
    for (uint32_t i = bytes; i < bytes + 4; ++i) ASSERT_EQ(bits[i], 0xAA) << "wrote past the buffer";
}

TEST_P(VhdRoundTrip, ScatteredWritesReadBack) {
    const Layout& L = GetParam();
    ScratchDir dir;
    const uint32_t spb = L.blockSize / kSector;
    const uint64_t total = 3ull * spb + 301;  // not a block multiple, nor a multiple of 8
    Bytes model(total * kSector);
    std::unique_ptr<VhdDisk> disk;
    std::string parent;
    if (L.type == DiskType::kDifferencing) {
        parent = dir / "parent.vhd";
        ASSERT_EQ(CreatePosix(parent, DiskType::kDynamic, total * kSector, &disk, {}, L.blockSize), 0u);
        for (uint64_t s : {uint64_t{0}, uint64_t{spb - 8}, uint64_t{2} * spb + 5, total - 40})
            WriteBoth(*disk, model, s, 33, 1);
        disk.reset();
    }
    const Bytes parentBefore = parent.empty() ? Bytes{} : ReadFile(parent);
    ASSERT_EQ(CreatePosix(dir / "d.vhd", L.type, total * kSector, &disk, parent, L.blockSize), 0u);
    ASSERT_EQ(disk->SectorCount(), total);
    uint32_t seed = 2;
    std::set<uint64_t> present;
    for (auto [first, count] : EdgeWrites(spb, total)) {
        WriteBoth(*disk, model, first, count, seed++);
        for (uint64_t i = first; i < first + count; ++i) present.insert(i);
    }
    EXPECT_EQ(ReadAll(*disk), model);
    ASSERT_EQ(disk->Flush(), 0u);

    // A fresh object sees the same, through no cache.
    ASSERT_EQ(OpenPosix(dir / "d.vhd", false, &disk), 0u);
    EXPECT_EQ(ReadAll(*disk), model);
    if (!parent.empty()) EXPECT_EQ(ReadFile(parent), parentBefore);

    // Its bitmap: every sector of a fixed disk, else the sectors written to
    // this file (not its parent's), for requests starting and ending anywhere.
    for (uint64_t start : std::initializer_list<uint64_t>{0, 5, 8, spb - 6, spb, 2ull * spb + 1, total - 9, total - 1,
                                                          total, total + 100})
        for (uint32_t bytes : {0u, 1u, 3u, 512u, 700u, 2000u})
            ExpectBitmap(*disk, present, L.type == DiskType::kFixed, start, bytes);
    uint64_t aligned, valid;
    uint8_t byte;
    EXPECT_EQ(disk->GetBitmap(0, 0, &aligned, &valid, nullptr), 0u);
    EXPECT_EQ(valid, 0u);
    EXPECT_EQ(disk->GetBitmap(0, 1, nullptr, &valid, &byte), kx::vhd::kInvalidParameter);
    EXPECT_EQ(disk->GetBitmap(0, 1, &aligned, &valid, nullptr), kx::vhd::kInvalidParameter);

    // And keeps taking writes after a reopen.
    ASSERT_EQ(OpenPosix(dir / "d.vhd", true, &disk), 0u);
    WriteBoth(*disk, model, spb + 1, 2 * spb, seed++);
    WriteBoth(*disk, model, total - 2, 2, seed++);
    ASSERT_EQ(OpenPosix(dir / "d.vhd", false, &disk), 0u);
    EXPECT_EQ(ReadAll(*disk), model);
}

INSTANTIATE_TEST_SUITE_P(Layouts, VhdRoundTrip,
                         ::testing::Values(Layout{"Fixed", DiskType::kFixed, 2u << 20},
                                           Layout{"Dynamic", DiskType::kDynamic, 2u << 20},
                                           Layout{"Dynamic4K", DiskType::kDynamic, 4096},
                                           Layout{"Dynamic8M", DiskType::kDynamic, 8u << 20},
                                           Layout{"Differencing", DiskType::kDifferencing, 2u << 20},
                                           Layout{"Differencing4K", DiskType::kDifferencing, 4096}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(VhdIo, RejectsOutOfRangeAndReadOnlyAccess) {
    kxnative::MemoryFileSystem mem;
    std::unique_ptr<VhdDisk> disk;
    ASSERT_EQ(VhdDisk::Create(mem, u"/d.vhd", {.size = 3 * kMiB}, &disk), 0u);
    uint8_t buf[2 * kSector] = {};
    const uint64_t n = disk->SectorCount();
    for (auto [first, count] : std::vector<std::pair<uint64_t, uint32_t>>{{n, 1}, {n - 1, 2}, {~0ull, 2}, {1, ~0u}}) {
        EXPECT_EQ(disk->Read(first, count, buf), kx::vhd::kInvalidParameter) << first;
        EXPECT_EQ(disk->Write(first, count, buf), kx::vhd::kInvalidParameter) << first;
    }
    EXPECT_EQ(disk->Read(0, 1, nullptr), kx::vhd::kInvalidParameter);
    EXPECT_EQ(disk->Read(n, 0, buf), 0u);
    disk.reset();
    EXPECT_EQ(mem.Get(u"/d.vhd").size(), 512u + 1024 + 512 + 512);  // nothing was allocated

    ASSERT_EQ(OpenMem(mem, u"/d.vhd", &disk), 0u);
    EXPECT_EQ(disk->Write(0, 1, buf), kx::vhd::kAccessDenied);
    EXPECT_EQ(disk->Flush(), 0u);
}

// A write that fails part-way, at any of its file writes, leaves an image
// that opens and reads each sector as before or as after.
TEST(VhdIo, FailedWritesLeaveAConsistentImage) {
    const std::vector<std::pair<uint64_t, uint32_t>> writes = {{10, 4}, {4090, 12}, {20000, 3}, {12, 8}, {8200, 1}};
    for (long allowed = 0;; ++allowed) {
        kxnative::MemoryFileSystem mem;
        std::unique_ptr<VhdDisk> disk;
        ASSERT_EQ(VhdDisk::Create(mem, u"/d.vhd", {DiskType::kDynamic, 12 * kMiB, 2 * kMiB, {}}, &disk), 0u);
        Bytes before(12 * kMiB), after(12 * kMiB);
        mem.writesLeft = allowed;
        size_t done = 0;
        for (; done < writes.size(); ++done) {
            if (const Status s = WriteModel(*disk, after, writes[done].first, writes[done].second, 7)) {
                ASSERT_EQ(s, kxnative::MemoryFileSystem::kIoFault);
                break;
            }
            before = after;
        }
        mem.writesLeft = -1;
        // The object that saw the failure and a fresh one agree.
        uint8_t liveBits[64], bits[64];
        uint64_t aligned, valid;
        ASSERT_EQ(disk->GetBitmap(0, sizeof liveBits, &aligned, &valid, liveBits), 0u);
        const Bytes live = ReadAll(*disk);
        disk.reset();
        ASSERT_EQ(OpenMem(mem, u"/d.vhd", &disk), 0u) << allowed;
        const Bytes got = ReadAll(*disk);
        ASSERT_EQ(disk->GetBitmap(0, sizeof bits, &aligned, &valid, bits), 0u);
        ASSERT_EQ(0, memcmp(bits, liveBits, sizeof bits)) << allowed;
        ASSERT_EQ(got, live) << allowed;
        for (size_t at = 0; at < got.size(); at += kSector) {
            const bool asBefore = std::equal(&got[at], &got[at] + kSector, &before[at]);
            const bool asAfter = std::equal(&got[at], &got[at] + kSector, &after[at]);
            ASSERT_TRUE(asBefore || asAfter) << "allowed " << allowed << " sector " << at / kSector;
        }
        if (done == writes.size()) break;
        ASSERT_LT(allowed, 200);
    }
}

}  // namespace
}  // namespace vhdtest
