// Disks and chains against a byte-exact model of what each should hold and
// the sectors written; damaged and hostile images; cross-checks with qemu and
// libvhdi (through its Python binding), skipped where the tool is missing.
#include <functional>
#include <set>

#include "vhd_test_util.h"

namespace vhdtest {
namespace {

TEST(VhdGeometry, ChsFollowsTheFormatTable) {
    struct Case { uint64_t sectors; uint16_t c; uint8_t h, s; };
    for (const Case& k : std::vector<Case>{
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
    struct Case { kx::vhd::CreateParams params; Status expected; };
    std::vector<Case> cases = {
        {{.type = DiskType::kDynamic, .size = 0}, kx::vhd::kInvalidSize},
        {{.type = DiskType::kFixed, .size = kx::vhd::kMaxDiskSize + 1}, kx::vhd::kInvalidSize},
        {{.type = static_cast<DiskType>(5), .size = kMiB}, kx::vhd::kInvalidParameter},
        {{.type = DiskType::kDifferencing, .parentPath = u"/missing.vhd"}, kx::vhd::kParentNotFound},
        {{.type = DiskType::kDifferencing, .parentPath = u"/junk.vhd"}, kx::vhd::kFooterMissing},
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

struct Layout {
    const char* name;
    DiskType type;
    uint32_t blockSize;
};

class VhdRoundTrip : public ::testing::TestWithParam<Layout> {};

// The bitmap answer for [start, start + 8 * bytes), computed from the set of
// sectors written to this file.
void ExpectBitmap(VhdDisk& disk, const std::set<uint64_t>& present, bool all, uint64_t start, uint32_t bytes) {
    Bytes bits(bytes, 0xAA);  // exactly: the sanitizers see any write past it
    uint64_t aligned = 1, valid = 1;
    ASSERT_EQ(disk.GetBitmap(start, bytes, &aligned, &valid, bits.data()), 0u);
    ASSERT_EQ(aligned, start / 8 * 8);
    const uint64_t total = disk.SectorCount();
    ASSERT_EQ(valid, aligned >= total ? 0 : std::min<uint64_t>(8ull * bytes, total - aligned)) << start;
    for (uint64_t i = 0; i < 8ull * bytes; ++i) {
        const bool want = i < valid && (all || present.count(aligned + i));
        ASSERT_EQ((bits[i / 8] >> (i % 8)) & 1, want ? 1 : 0) << "start " << start << " bit " << i;
    }
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
    auto write = [&](uint64_t first, uint32_t count) {
        WriteBoth(*disk, model, first, count, seed++);
        for (uint64_t i = first; i < first + count; ++i) present.insert(i);
    };
    for (auto [first, count] : EdgeWrites(spb, total)) write(first, count);
    EXPECT_EQ(ReadAll(*disk), model);
    ASSERT_EQ(disk->Flush(), 0u);

    // Reopened, it keeps taking writes; a fresh object sees them all,
    // through no cache.
    ASSERT_EQ(OpenPosix(dir / "d.vhd", true, &disk), 0u);
    write(spb + 1, 2 * spb);
    write(total - 2, 2);
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
    EXPECT_EQ(disk->GetBitmap(0, 1, nullptr, &valid, &byte), kx::vhd::kInvalidParameter);
    EXPECT_EQ(disk->GetBitmap(0, 1, &aligned, &valid, nullptr), kx::vhd::kInvalidParameter);
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

TEST(VhdChain, ParentIsFoundAfterTheChainMoves) {
    ScratchDir dir;
    fs::create_directories(dir.path() / "old/a");
    fs::create_directories(dir.path() / "old/b");
    const Bytes model = MakeChain(dir / "old/a/base.vhd", dir / "old/b/mid.vhd", dir / "old/b/top.vhd",
                                  DiskType::kFixed);
    std::unique_ptr<VhdDisk> top;
    ASSERT_EQ(OpenPosix(dir / "old/b/top.vhd", false, &top), 0u);
    ASSERT_EQ(top->Parent()->Parent()->Type(), DiskType::kFixed);
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

using Mem = kxnative::MemoryFileSystem;
namespace v = kx::vhd;
using F = v::RawFooter;
using H = v::RawDynamicHeader;

constexpr uint64_t kDiskSize = 64 * 1024;  // 16 blocks of 4 KiB
constexpr size_t kHeader = 512;

// Small in-memory images: /f.vhd fixed, /d.vhd dynamic with blocks 0, 3 and
// 15 present, /c.vhd a child of /d.vhd with one block.
struct Images {
    Images() {
        std::unique_ptr<VhdDisk> disk;
        EXPECT_EQ(VhdDisk::Create(mem, u"/f.vhd", {DiskType::kFixed, kDiskSize, 4096, {}}, &disk), 0u);
        EXPECT_EQ(VhdDisk::Create(mem, u"/d.vhd", {DiskType::kDynamic, kDiskSize, 4096, {}}, &disk), 0u);
        Bytes m(kDiskSize);
        for (auto [first, count] : {std::pair<uint64_t, uint32_t>{0, 4}, {24, 8}, {127, 1}})
            WriteBoth(*disk, m, first, count, 1);
        expectedDynamic = m;
        EXPECT_EQ(VhdDisk::Create(mem, u"/c.vhd", {DiskType::kDifferencing, 0, 4096, u"/d.vhd"}, &disk), 0u);
        WriteBoth(*disk, m, 40, 2, 2);
        disk.reset();
        expectedChild = m;
        fixed = mem.Get(u"/f.vhd");
        dynamic = mem.Get(u"/d.vhd");
        child = mem.Get(u"/c.vhd");
    }
    Status Open(const std::u16string& path, const Bytes& bytes, std::unique_ptr<VhdDisk>* disk) {
        mem.Put(path, bytes);
        return OpenMem(mem, path, disk);
    }
    Mem mem;
    Bytes fixed, dynamic, child, expectedDynamic, expectedChild;
};

// Applies `edit` to both copies of the footer (the front one only where the
// file has it) and reseals their checksums.
void EditFooters(Bytes& b, const std::function<void(F&)>& edit, bool reseal = true) {
    std::vector<size_t> at = {b.size() - kSector};
    if (b.size() > 2 * kSector && memcmp(b.data(), &b[b.size() - kSector], 8) == 0) at.push_back(0);
    for (size_t a : at) EditRaw<F>(b, a, edit, reseal);
}
size_t Table(const Bytes& b) { return static_cast<size_t>(GetRaw<H>(b, kHeader).tableOffset.get()); }

// An edit that sets one big-endian field of a footer or header.
template <class Raw, class T>
std::function<void(Raw&)> Set(v::BigEndian<T> Raw::*field, uint64_t value) {
    return [=](Raw& r) { (r.*field).set(static_cast<T>(value)); };
}

struct Case {
    const char* name;
    char image;  // 'f'ixed, 'd'ynamic, 'c'hild
    std::function<void(Bytes&)> edit;
    Status expected;
};

TEST(VhdHostile, DamagedImagesGiveTheirCodes) {
    auto footer = [](std::function<void(F&)> edit) { return [=](Bytes& b) { EditFooters(b, edit); }; };
    auto header = [](std::function<void(H&)> edit) { return [=](Bytes& b) { EditRaw<H>(b, kHeader, edit); }; };
    auto batEntry = [](size_t i, std::function<uint32_t(const Bytes&)> value) {
        return [=](Bytes& b) { SetBatEntry(b, Table(b), i, value(b)); };
    };
    auto entry = [](size_t i) { return [=](const Bytes& b) { return BatEntry(b, Table(b), i); }; };
    const uint64_t huge = v::kMaxDiskSize;
    const std::vector<Case> cases = {
        {"Empty", 'd', [](Bytes& b) { b.clear(); }, v::kFooterMissing},
        {"NoCookie", 'd', [](Bytes& b) { EditFooters(b, [](F& f) { f.cookie[0] = 'X'; }, false); }, v::kFooterMissing},
        {"BadChecksum", 'd', [](Bytes& b) { EditFooters(b, [](F& f) { f.checksum.bytes[0] ^= 1; }, false); },
         v::kFooterChecksumMismatch},
        {"FixedNoCookie", 'f', [](Bytes& b) { b[b.size() - kSector] = 'X'; }, v::kFooterMissing},
        {"Version2", 'd', footer(Set(&F::version, 0x00020000)), v::kFormatUnsupportedVersion},
        {"Type1", 'd', footer(Set(&F::diskType, 1)), v::kInvalidType},
        {"Type5", 'd', footer(Set(&F::diskType, 5)), v::kInvalidType},
        {"SizeZero", 'd', footer(Set(&F::currentSize, 0)), v::kInvalidSize},
        {"SizeNotSectors", 'd', footer(Set(&F::currentSize, 1000)), v::kInvalidSize},
        {"SizeTooLarge", 'd', footer(Set(&F::currentSize, huge + kSector)), v::kInvalidSize},
        {"FixedFileTooShort", 'f', footer(Set(&F::currentSize, 2 * kDiskSize)), v::kInvalidFileSize},
        {"NoDataOffset", 'd', footer(Set(&F::dataOffset, ~0ull)), v::kFooterCorrupt},
        {"DataOffsetZero", 'd', footer(Set(&F::dataOffset, 0)), v::kFooterCorrupt},
        {"DataOffsetAtFooter", 'd', [&](Bytes& b) { footer(Set(&F::dataOffset, b.size() - kSector))(b); }, v::kFooterCorrupt},
        {"HeaderCookie", 'd', [](Bytes& b) { b[kHeader + 1] = 'X'; }, v::kSparseHeaderCorrupt},
        {"HeaderChecksum", 'd', [](Bytes& b) { b[kHeader + 40] ^= 1; }, v::kSparseHeaderChecksumMismatch},
        {"HeaderVersion", 'd', header(Set(&H::version, 0x00020000)), v::kSparseHeaderUnsupportedVersion},
        {"BlockSizeZero", 'd', header(Set(&H::blockSize, 0)), v::kInvalidBlockSize},
        {"BlockSizeOdd", 'd', header(Set(&H::blockSize, 6144)), v::kInvalidBlockSize},
        {"BlockSizeHuge", 'd', header(Set(&H::blockSize, 512u << 20)), v::kInvalidBlockSize},
        {"TooFewEntries", 'd', header(Set(&H::maxTableEntries, 15)), v::kBlockAllocationTableCorrupt},
        {"TableAtZero", 'd', header(Set(&H::tableOffset, 0)), v::kBlockAllocationTableCorrupt},
        {"TablePastEnd", 'd', header(Set(&H::tableOffset, 1ull << 40)), v::kBlockAllocationTableCorrupt},
        {"TableRunsPastEnd", 'd', [&](Bytes& b) { header(Set(&H::tableOffset, b.size() - kSector - 32))(b); }, v::kBlockAllocationTableCorrupt},
        {"EntryPastEnd", 'd', batEntry(1, [](const Bytes&) { return 0x10000u; }), v::kBlockAllocationTableCorrupt},
        // Block 0 moved over the table (past the header), clear of other blocks.
        {"EntryOverTable", 'd', batEntry(0, [](const Bytes&) { return 3u; }), v::kBlockAllocationTableCorrupt},
        {"EntryIntoFooter", 'd', batEntry(15, [&](const Bytes& b) { return entry(15)(b) + 1; }),
         v::kBlockAllocationTableCorrupt},
        {"EntriesOverlap", 'd', batEntry(1, [&](const Bytes& b) { return entry(0)(b) + 8; }),
         v::kBlockAllocationTableCorrupt},
        // A size whose table would be gigabytes: refused before any allocation.
        {"AbsurdSize", 'd',
         [&](Bytes& b) {
             footer(Set(&F::currentSize, huge))(b);
             header(Set(&H::maxTableEntries, huge / 4096))(b);
         },
         v::kBlockAllocationTableCorrupt},
        {"LocatorTooLong", 'c', header([](H& h) { h.locators[0].dataLength.set(0x7FFFFFFF); }), v::kSparseHeaderCorrupt},
        {"LocatorPastEnd", 'c', header([](H& h) { h.locators[0].dataOffset.set(1ull << 40); }), v::kSparseHeaderCorrupt},
        {"LocatorOffsetWraps", 'c', header([](H& h) { h.locators[0].dataOffset.set(~0ull - 4); }), v::kSparseHeaderCorrupt},
        {"NoWayToTheParent", 'c',
         header([](H& h) {
             for (v::RawParentLocator& l : h.locators) l.platformCode.set(0);
             std::memset(h.parentName, 0, sizeof h.parentName);
         }),
         v::kParentNotFound},
        // Recoverable: the size is the footer's current size, never the
        // product of the geometry (which may be anything in a foreign file);
        // the trailing footer cut off while the front copy remains.
        {"GeometryIgnored", 'd', footer([](F& f) { f.cylinders.set(1), f.heads = 1, f.sectorsPerTrack = 1; }), 0},
        {"TrailingFooterCutOff", 'd', [](Bytes& b) { b.resize(b.size() - kSector); }, 0},
    };
    Images img;
    for (const Case& c : cases) {
        Bytes b = c.image == 'f' ? img.fixed : c.image == 'd' ? img.dynamic : img.child;
        c.edit(b);
        std::unique_ptr<VhdDisk> disk;
        ASSERT_EQ(img.Open(u"/x/case.vhd", b, &disk), c.expected) << c.name;
        if (c.expected == 0) EXPECT_EQ(ReadAll(*disk), img.expectedDynamic) << c.name;
    }
}

// Every byte of the metadata flipped in turn: whatever opens must read and
// report bitmaps within bounds (the sanitizers watch).
TEST(VhdHostile, SingleByteDamageNeverCrashes) {
    Images img;
    for (const Bytes* base : {&img.dynamic, &img.child}) {
        // The footer copy, header and table, then the trailing footer.
        for (size_t at = 0; at < base->size(); at = at + 1 == Table(*base) + 512 ? base->size() - kSector : at + 1) {
            for (uint8_t mask : {0x01, 0x80, 0xFF}) {
                Bytes b = *base;
                b[at] ^= mask;
                std::unique_ptr<VhdDisk> disk;
                if (img.Open(u"/x/case.vhd", b, &disk)) continue;
                Bytes all(disk->Size());
                disk->Read(0, static_cast<uint32_t>(disk->SectorCount()), all.data());
                uint8_t bits[32];
                uint64_t aligned, valid;
                disk->GetBitmap(0, sizeof bits, &aligned, &valid, bits);
                disk->GetBitmap(disk->SectorCount() - 1, sizeof bits, &aligned, &valid, bits);
            }
        }
    }
}

// A failing file: every failure comes through as the file reported it,
// while opening a child and its parent and while reading through both.
TEST(VhdHostile, ReadFailuresComeThrough) {
    Images img;
    std::unique_ptr<VhdDisk> disk;
    for (long allowed = 0;; ++allowed) {
        img.mem.readsLeft = allowed;
        const Status s = OpenMem(img.mem, u"/c.vhd", &disk);
        img.mem.readsLeft = -1;
        if (s == 0) break;
        ASSERT_EQ(s, Mem::kIoFault) << allowed;
        ASSERT_LT(allowed, 50);
    }
    Bytes all(disk->Size());
    img.mem.readsLeft = 0;
    EXPECT_EQ(disk->Read(0, static_cast<uint32_t>(disk->SectorCount()), all.data()), Mem::kIoFault);
    img.mem.readsLeft = -1;
    EXPECT_EQ(ReadAll(*disk), img.expectedChild);
}

// The Python that has the libvhdi binding (a python3 earlier on PATH may not).
constexpr const char* kPython = "/usr/bin/python3";

// qemu sizes a VHD from its CHS geometry unless its creator is one known to
// use the footer's current size; told to, it uses the current size too.
std::string Qemu(const std::string& image) {
    return "--image-opts driver=vpc,force_size_calc=current_size,file.filename=" + image;
}

uint64_t QemuVirtualSize(const std::string& image) {
    std::string out;
    EXPECT_EQ(RunCommand("qemu-img info --output=json " + Qemu(image), &out), 0) << out;
    const size_t at = out.find("\"virtual-size\":");
    return at == std::string::npos ? 0 : std::stoull(out.substr(at + 15));
}

Bytes QemuRaw(const std::string& image, const std::string& raw) {
    std::string out;
    EXPECT_EQ(RunCommand("qemu-img convert -O raw " + Qemu(image) + " " + raw, &out), 0) << out;
    return ReadFile(raw);
}

// Images qemu makes and writes read back here as qemu reads them.
TEST(VhdInterop, QemuImagesReadIdentically) {
    if (RunCommand("command -v qemu-img && command -v qemu-io") != 0) GTEST_SKIP() << "qemu-img/qemu-io not installed";
    ScratchDir dir;
    for (const char* options : {"subformat=fixed", "subformat=dynamic", "subformat=fixed,force_size=on",
                                "subformat=dynamic,force_size=on"}) {
        SCOPED_TRACE(options);
        const std::string image = dir / "q.vhd";
        fs::remove(image);
        std::string out;
        ASSERT_EQ(RunCommand("qemu-img create -q -f vpc -o " + std::string(options) + " " + image + " 9437000", &out), 0)
            << out;
        const uint64_t size = QemuVirtualSize(image);
        ASSERT_GT(size, 8 * kMiB);
        ASSERT_EQ(RunCommand("qemu-io -c 'write -P 0x11 0 512' -c 'write -P 0x22 2096128 4096' -c 'write -P 0x33 2560 512'"
                             " -c 'write -P 0x44 4197888 4608' -c 'write -P 0x55 " + std::to_string(size - 512) + " 512' " +
                                 Qemu(image), &out), 0) << out;
        const Bytes raw = QemuRaw(image, dir / "q.raw");
        std::unique_ptr<VhdDisk> disk;
        ASSERT_EQ(OpenPosix(image, false, &disk), 0u);
        EXPECT_EQ(disk->Size(), size);
        EXPECT_EQ(ReadAll(*disk), raw);
    }
}

// Chains made here read in libvhdi as they read here, over a fixed and over
// a dynamic base.
TEST(VhdInterop, OurChainsReadIdenticallyInLibvhdi) {
    if (RunCommand(std::string(kPython) + " -c 'import pyvhdi'") != 0)
        GTEST_SKIP() << "pyvhdi not importable by " << kPython;
    ScratchDir dir;
    fs::create_directories(dir.path() / "sub");
    for (DiskType type : {DiskType::kFixed, DiskType::kDynamic}) {
        const std::vector<std::string> chain = {dir / "sub/top.vhd", dir / "mid.vhd", dir / "base.vhd"};
        for (const auto& image : chain) fs::remove(image);
        const Bytes model = MakeChain(chain[2], chain[1], chain[0], type);
        std::string cmd = std::string(kPython) + " " KX_NATIVE_DIR "/vhdi_read.py " + (dir / "vhdi.raw"), out;
        for (const auto& image : chain) cmd += " " + image;
        ASSERT_EQ(RunCommand(cmd, &out), 0) << out;
        EXPECT_EQ(ReadFile(dir / "vhdi.raw"), model) << static_cast<int>(type);
    }
}

}  // namespace
}  // namespace vhdtest
