// Damaged and hostile files: each refused with its own code, or (one bad
// header) opened through the good copy; failing file layers give statuses,
// never crashes.
#include <cstring>
#include <functional>

#include "platform/vhdx/vhdx_format.h"
#include "vhdx_test_util.h"

namespace vhdxtest {
namespace {

using namespace kx::vhd;
using kx::vhdx::LoadLe;
using kx::vhdx::SealStructure;
using kx::vhdx::StoreLe;

// A dynamic 6 MiB disk with two blocks written, as bytes.
struct Image {
    Bytes bytes;
    Bytes model = Bytes(6 * kMiB, 0);
    uint64_t bat = 0, meta = 0;

    Image() {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<VhdxDisk> disk;
        EXPECT_EQ(VhdxDisk::Create(fs, u"/x.vhdx", Params(DiskKind::kDynamic, model.size(), 1), &disk), 0u);
        EXPECT_EQ(WriteBoth(*disk, model, 100, 5000, 1), 0u);
        EXPECT_EQ(WriteBoth(*disk, model, 4 * kMiB, 5000, 2), 0u);
        disk.reset();
        bytes = fs.Get(u"/x.vhdx");
        for (uint32_t i = 0; i < 2; ++i) {
            const uint8_t* e = &bytes[192 * 1024 + 16 + 32 * i];
            Guid id;
            std::memcpy(id.data(), e, 16);
            (id == kx::vhdx::kBatRegion ? bat : meta) = LoadLe<uint64_t>(e + 16);
        }
    }
    // The metadata item `id`'s bytes.
    uint8_t* Item(const Guid& id) {
        for (uint32_t i = 0; i < LoadLe<uint16_t>(&bytes[meta + 10]); ++i) {
            const uint8_t* e = &bytes[meta + 32 + 32 * i];
            if (std::memcmp(e, id.data(), 16) == 0) return &bytes[meta + LoadLe<uint32_t>(e + 16)];
        }
        return nullptr;
    }
    void EditRegions(const std::function<void(uint8_t* table)>& edit) {
        for (size_t at : {192 * 1024, 256 * 1024}) {
            edit(&bytes[at]);
            SealStructure(&bytes[at], 64 * 1024, 4);
        }
    }
};

struct CorruptCase {
    const char* name;
    Status expected;
    std::function<void(Image&)> damage;
};

TEST(Corruption, RefusedWithItsCode) {
    const CorruptCase cases[] = {
        {"no file identifier", kNotVirtualDisk, [](Image& m) { m.bytes[0] = 'X'; }},
        {"shorter than the header area", kInvalidFileSize, [](Image& m) { m.bytes.resize(200 * 1024); }},
        {"both header checksums wrong", kFooterChecksumMismatch,
         [](Image& m) { m.bytes[64 * 1024 + 100] ^= 1, m.bytes[128 * 1024 + 100] ^= 1; }},
        {"unknown header version", kFormatUnsupportedVersion,
         [](Image& m) {
             for (size_t at : {64 * 1024, 128 * 1024}) {
                 StoreLe<uint16_t>(&m.bytes[at + 66], 2);
                 SealStructure(&m.bytes[at], 4096, 4);
             }
         }},
        {"log outside the file", kFooterCorrupt,
         [](Image& m) {
             for (size_t at : {64 * 1024, 128 * 1024}) {
                 StoreLe<uint64_t>(&m.bytes[at + 72], 1ull << 40);
                 SealStructure(&m.bytes[at], 4096, 4);
             }
         }},
        {"both region tables' checksums wrong", kSparseHeaderChecksumMismatch,
         [](Image& m) { m.bytes[192 * 1024 + 40] ^= 1, m.bytes[256 * 1024 + 40] ^= 1; }},
        {"metadata region overlapping the table", kSparseHeaderCorrupt,
         [](Image& m) {
             m.EditRegions([&](uint8_t* t) {
                 for (int i = 0; i < 2; ++i) StoreLe<uint64_t>(t + 16 + 32 * i + 16, m.bat);
             });
         }},
        {"region overlapping the log", kSparseHeaderCorrupt,
         [](Image& m) { m.EditRegions([](uint8_t* t) { StoreLe<uint64_t>(t + 16 + 16, kMiB); }); }},
        {"unknown required region", kFormatUnsupportedVersion,
         [](Image& m) {
             m.EditRegions([](uint8_t* t) {
                 StoreLe<uint32_t>(t + 8, 3);
                 std::memset(t + 16 + 64, 0x5A, 16);
                 StoreLe<uint64_t>(t + 16 + 64 + 16, 40 * kMiB);
                 StoreLe<uint32_t>(t + 16 + 64 + 24, static_cast<uint32_t>(kMiB));
                 StoreLe<uint32_t>(t + 16 + 64 + 28, 1);
             });
             m.bytes.resize(41 * kMiB);
         }},
        {"metadata signature", kMetadataReadFailure, [](Image& m) { m.bytes[m.meta] = 'x'; }},
        {"block size not a power of two", kInvalidBlockSize,
         [](Image& m) { StoreLe<uint32_t>(m.Item(kx::vhdx::kFileParametersItem), 3u << 20); }},
        {"block size below 1 MiB", kInvalidBlockSize,
         [](Image& m) { StoreLe<uint32_t>(m.Item(kx::vhdx::kFileParametersItem), 512u << 10); }},
        {"block size above 256 MiB", kInvalidBlockSize,
         [](Image& m) { StoreLe<uint32_t>(m.Item(kx::vhdx::kFileParametersItem), 512u << 20); }},
        {"logical sector size 1024", kInvalidSize,
         [](Image& m) { StoreLe<uint32_t>(m.Item(kx::vhdx::kLogicalSectorItem), 1024); }},
        {"physical sector size 8192", kInvalidSize,
         [](Image& m) { StoreLe<uint32_t>(m.Item(kx::vhdx::kPhysicalSectorItem), 8192); }},
        {"virtual size not whole sectors", kInvalidSize,
         [](Image& m) { StoreLe<uint64_t>(m.Item(kx::vhdx::kVirtualDiskSizeItem), 6 * kMiB + 100); }},
        {"table too small for the size", kBlockAllocationTableCorrupt,
         [](Image& m) { StoreLe<uint64_t>(m.Item(kx::vhdx::kVirtualDiskSizeItem), 1ull << 40); }},
        {"parent flag without a locator", kMetadataReadFailure,
         [](Image& m) { StoreLe<uint32_t>(m.Item(kx::vhdx::kFileParametersItem) + 4, 2); }},
        {"unknown required metadata item", kFormatUnsupportedVersion,
         [](Image& m) {
             uint8_t* e = &m.bytes[m.meta + 32 + 32 * LoadLe<uint16_t>(&m.bytes[m.meta + 10])];
             StoreLe<uint16_t>(&m.bytes[m.meta + 10], LoadLe<uint16_t>(&m.bytes[m.meta + 10]) + 1);
             std::memset(e, 0x77, 16);
             StoreLe<uint32_t>(e + 16, 128 * 1024);
             StoreLe<uint32_t>(e + 20, 8);
             StoreLe<uint32_t>(e + 24, 4);
         }},
        {"block entry past the end of the file", kBlockAllocationTableCorrupt,
         [](Image& m) { StoreLe<uint64_t>(&m.bytes[m.bat + 8], (uint64_t{4096} << 20) | 6); }},
        {"two blocks at one offset", kBlockAllocationTableCorrupt,
         [](Image& m) { std::memcpy(&m.bytes[m.bat + 4 * 8], &m.bytes[m.bat], 8); }},
        {"block over the allocation table", kBlockAllocationTableCorrupt,
         [](Image& m) { StoreLe<uint64_t>(&m.bytes[m.bat + 8], (m.bat >> 20) << 20 | 6); }},
        {"block state that does not exist", kBlockAllocationTableCorrupt,
         [](Image& m) { StoreLe<uint64_t>(&m.bytes[m.bat + 8], 5); }},
        {"partially present block in a plain disk", kBlockAllocationTableCorrupt,
         [](Image& m) { m.bytes[m.bat] = static_cast<uint8_t>((m.bytes[m.bat] & ~7) | 7); }},
        {"file cut inside a block", kBlockAllocationTableCorrupt,
         [](Image& m) { m.bytes.resize(m.bytes.size() - kMiB / 2); }},
    };
    for (const CorruptCase& c : cases) {
        SCOPED_TRACE(c.name);
        Image m;
        c.damage(m);
        for (bool writable : {false, true}) {
            kxnative::MemoryFileSystem fs;
            fs.Put(u"/x.vhdx", m.bytes);
            std::unique_ptr<VhdxDisk> disk;
            EXPECT_EQ(OpenMem(fs, u"/x.vhdx", writable, &disk), c.expected) << (writable ? "writable" : "read-only");
            EXPECT_EQ(disk, nullptr);
            EXPECT_TRUE(fs.Get(u"/x.vhdx") == m.bytes) << "a refused file was written";
        }
    }
}

TEST(Corruption, OneBadHeaderOrRegionTableFallsBackToTheOther) {
    for (size_t at : {64 * 1024, 128 * 1024, 192 * 1024, 256 * 1024}) {
        SCOPED_TRACE(at);
        Image m;
        m.bytes[at + 200] ^= 0x40;
        kxnative::MemoryFileSystem fs;
        fs.Put(u"/x.vhdx", m.bytes);
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(OpenMem(fs, u"/x.vhdx", true, &disk), 0u);
        EXPECT_TRUE(ReadAll(*disk, 65536 + 512) == m.model);
        // A write replaces the damaged header with a good one.
        ASSERT_EQ(WriteBoth(*disk, m.model, 3, 10, 9), 0u);
        disk.reset();
        ASSERT_EQ(OpenMem(fs, u"/x.vhdx", false, &disk), 0u);
        EXPECT_TRUE(ReadAll(*disk, 1 << 20) == m.model);
        if (at < 192 * 1024) {
            kx::vhdx::Header h;
            const Bytes now = fs.Get(u"/x.vhdx");
            EXPECT_EQ(kx::vhdx::ParseHeader(&now[64 * 1024], &h), 0u);
            EXPECT_EQ(kx::vhdx::ParseHeader(&now[128 * 1024], &h), 0u);
        }
    }
}

TEST(Corruption, FailingFileLayerGivesItsStatus) {
    Image m;
    // Every read count from 0 until the open and a full read succeed.
    for (long n = 0;; ++n) {
        kxnative::MemoryFileSystem fs;
        fs.Put(u"/x.vhdx", m.bytes);
        fs.readsLeft = n;
        std::unique_ptr<VhdxDisk> disk;
        Status s = OpenMem(fs, u"/x.vhdx", false, &disk);
        if (s == 0) {
            Bytes all(m.model.size());
            s = disk->Read(0, all.size(), all.data());
            if (s == 0) {
                EXPECT_TRUE(all == m.model);
                break;
            }
        }
        EXPECT_EQ(s, kxnative::MemoryFileSystem::kIoFault) << n;
        ASSERT_LT(n, 100);
    }
    // A full disk while allocating: the write fails, the disk stays readable.
    kxnative::MemoryFileSystem fs;
    fs.Put(u"/x.vhdx", m.bytes);
    fs.maxFileBytes = m.bytes.size() + kMiB / 2;
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(OpenMem(fs, u"/x.vhdx", true, &disk), 0u);
    const Bytes data(4096, 0xEE);
    EXPECT_EQ(disk->Write(2 * kMiB, data.size(), data.data()), kxnative::MemoryFileSystem::kDiskFull);
    EXPECT_TRUE(ReadAll(*disk, 1 << 20) == m.model);
    disk.reset();
    ASSERT_EQ(OpenMem(fs, u"/x.vhdx", false, &disk), 0u);
    EXPECT_TRUE(ReadAll(*disk, 1 << 20) == m.model);
}

TEST(Corruption, CallerErrors) {
    Image m;
    kxnative::MemoryFileSystem fs;
    fs.Put(u"/x.vhdx", m.bytes);
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(OpenMem(fs, u"/x.vhdx", false, &disk), 0u);
    uint8_t b[16];
    EXPECT_EQ(disk->Read(m.model.size() - 8, 16, b), kInvalidParameter);
    EXPECT_EQ(disk->Read(~0ull - 4, 8, b), kInvalidParameter);
    EXPECT_EQ(disk->Write(0, 1, b), kAccessDenied);
    EXPECT_TRUE(fs.Get(u"/x.vhdx") == m.bytes);
    const struct {
        CreateParams p;
        const char* what;
    } bad[] = {
        {Params(DiskKind::kDynamic, 0, 1), "empty"},
        {Params(DiskKind::kDynamic, kMiB + 100, 1), "not whole sectors"},
        {Params(DiskKind::kDynamic, kMiB, 3), "block size"},
        {Params(DiskKind::kDynamic, kMiB, 1, 1024), "sector size"},
        {Params(DiskKind::kDynamic, (64ull << 40) + 4096, 256), "too large"},
        {Params(DiskKind::kDifferencing, 0, 1, 512, ""), "no parent"},
    };
    for (const auto& c : bad) {
        EXPECT_EQ(VhdxDisk::Create(fs, u"/new.vhdx", c.p, &disk), kInvalidParameter) << c.what;
        EXPECT_FALSE(fs.Exists(u"/new.vhdx")) << c.what;
    }
    EXPECT_EQ(VhdxDisk::Create(fs, u"/new.avhdx", Params(DiskKind::kDifferencing, 0, 1, 512, "/none.vhdx"), &disk),
              kParentNotFound);
    EXPECT_EQ(VhdxDisk::Create(fs, u"/x.vhdx", Params(DiskKind::kDynamic, kMiB, 1), &disk), kFileExists);
    // A creation that fails half-way leaves no file behind.
    fs.writesLeft = 2;
    EXPECT_EQ(VhdxDisk::Create(fs, u"/half.vhdx", Params(DiskKind::kFixed, 4 * kMiB, 1), &disk),
              kxnative::MemoryFileSystem::kIoFault);
    EXPECT_FALSE(fs.Exists(u"/half.vhdx"));
}

TEST(Geometry, VhdRuleOnLogicalSectors) {
    // Expected values worked out by hand from the VHD geometry rule.
    const struct {
        uint64_t size;
        uint32_t logical;
        uint64_t c;
        uint32_t h, s;
    } cases[] = {
        {4 * kMiB, 512, 120, 4, 17},            // 8192 sectors
        {4 * kMiB, 4096, 15, 4, 17},            // 1024 sectors: 60 tracks over at least 4 heads
        {2ull << 30, 512, 4161, 16, 63},        // 4194304 sectors
        {200ull << 30, 512, 65535, 16, 255},    // capped
    };
    for (const auto& c : cases) {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(VhdxDisk::Create(fs, u"/g.vhdx", Params(DiskKind::kDynamic, c.size, 32, c.logical), &disk), 0u);
        const kx::vhdx::Geometry g = disk->GetGeometry();
        EXPECT_EQ(g.cylinders, c.c) << c.size << "/" << c.logical;
        EXPECT_EQ(g.heads, c.h);
        EXPECT_EQ(g.sectorsPerTrack, c.s);
        EXPECT_EQ(g.bytesPerSector, c.logical);
    }
}

}  // namespace
}  // namespace vhdxtest
