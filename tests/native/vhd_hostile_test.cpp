// Damaged and hostile images: each is refused with its own code, or, where
// the damage is recoverable, read correctly; none may crash.
#include <functional>

#include "vhd_test_util.h"

namespace vhdtest {
namespace {

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
        WriteBoth(*disk, m, 0, 4, 1);
        WriteBoth(*disk, m, 24, 8, 1);
        WriteBoth(*disk, m, 127, 1, 1);
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
    uint8_t bits[16];
    uint64_t aligned, valid;
    img.mem.readsLeft = 0;
    EXPECT_EQ(disk->Read(0, static_cast<uint32_t>(disk->SectorCount()), all.data()), Mem::kIoFault);
    EXPECT_EQ(disk->GetBitmap(40, sizeof bits, &aligned, &valid, bits), Mem::kIoFault);
    img.mem.readsLeft = -1;
    EXPECT_EQ(ReadAll(*disk), img.expectedChild);
}

}  // namespace
}  // namespace vhdtest
