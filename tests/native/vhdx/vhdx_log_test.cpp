// The log, from the outside: entries built here byte by byte (with a CRC-32C
// of this file's own) are replayed on open, in memory for a read-only open
// and into the file for a writable one; torn and broken logs; and crashes
// cut into allocating writes at every write call.
#include <cstring>
#include <functional>

#include "platform/vhdx/vhdx_format.h"
#include "vhdx_test_util.h"

namespace vhdxtest {
namespace {

using kx::vhdx::Guid;

uint32_t Crc32cBitwise(const uint8_t* p, size_t n) {
    uint32_t crc = 0xFFFFFFFF;
    for (size_t i = 0; i < n; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0x82F63B78u & (0u - (crc & 1)));
    }
    return ~crc;
}

template <class T>
void Put(Bytes& b, size_t at, T v) {
    for (size_t i = 0; i < sizeof(T); ++i) b.at(at + i) = static_cast<uint8_t>(v >> (8 * i));
}
template <class T>
T Get(const Bytes& b, size_t at) {
    T v = 0;
    for (size_t i = sizeof(T); i-- > 0;) v = static_cast<T>(v << 8 | b.at(at + i));
    return v;
}
void Seal(Bytes& b, size_t at, size_t length) {
    Put<uint32_t>(b, at + 4, 0);
    Put<uint32_t>(b, at + 4, Crc32cBitwise(&b[at], length));
}

// The current header of an image: its offset (64 or 128 KiB).
size_t CurrentHeader(const Bytes& img) {
    return Get<uint64_t>(img, 128 * 1024 + 8) > Get<uint64_t>(img, 64 * 1024 + 8) ? 128 * 1024 : 64 * 1024;
}
Guid LogGuidOf(const Bytes& img) {
    Guid g;
    std::memcpy(g.data(), &img[CurrentHeader(img) + 48], 16);
    return g;
}
// Makes the other header current, owning the log through `logGuid`.
void SetLogGuid(Bytes& img, const Guid& logGuid) {
    const size_t cur = CurrentHeader(img), other = cur == 65536 ? 131072 : 65536;
    std::memcpy(&img[other], &img[cur], 4096);
    Put<uint64_t>(img, other + 8, Get<uint64_t>(img, cur + 8) + 1);
    std::memcpy(&img[other + 48], logGuid.data(), 16);
    Seal(img, other, 4096);
}

struct Descriptor {
    uint64_t fileOffset;
    Bytes sector;         // 4096 bytes: a data descriptor
    uint64_t zeroLength;  // otherwise a zero descriptor
};

// One log entry: a 4 KiB header sector with the descriptors, then one data
// sector per data descriptor (its first 8 and last 4 bytes kept in the
// descriptor, the sequence number split around the rest).
Bytes Entry(uint64_t seq, uint32_t tail, const Guid& logGuid, uint64_t flushed, uint64_t last,
            const std::vector<Descriptor>& descs) {
    size_t dataSectors = 0;
    for (const auto& d : descs) dataSectors += d.sector.empty() ? 0 : 1;
    Bytes e(4096 * (1 + dataSectors), 0);
    std::memcpy(&e[0], "loge", 4);
    Put<uint32_t>(e, 8, static_cast<uint32_t>(e.size()));
    Put<uint32_t>(e, 12, tail);
    Put<uint64_t>(e, 16, seq);
    Put<uint32_t>(e, 24, static_cast<uint32_t>(descs.size()));
    std::memcpy(&e[32], logGuid.data(), 16);
    Put<uint64_t>(e, 48, flushed);
    Put<uint64_t>(e, 56, last);
    size_t data = 1;
    for (size_t i = 0; i < descs.size(); ++i) {
        const size_t d = 64 + 32 * i;
        Put<uint64_t>(e, d + 16, descs[i].fileOffset);
        Put<uint64_t>(e, d + 24, seq);
        if (descs[i].sector.empty()) {
            std::memcpy(&e[d], "zero", 4);
            Put<uint64_t>(e, d + 8, descs[i].zeroLength);
            continue;
        }
        std::memcpy(&e[d], "desc", 4);
        std::memcpy(&e[d + 4], &descs[i].sector[4092], 4);
        std::memcpy(&e[d + 8], &descs[i].sector[0], 8);
        const size_t s = 4096 * data++;
        std::memcpy(&e[s], "data", 4);
        Put<uint32_t>(e, s + 4, static_cast<uint32_t>(seq >> 32));
        std::memcpy(&e[s + 8], &descs[i].sector[8], 4084);
        Put<uint32_t>(e, s + 4092, static_cast<uint32_t>(seq));
    }
    Seal(e, 0, e.size());
    return e;
}

// A dynamic disk of 8 MiB with 1 MiB blocks and block 0 written, in memory,
// and where its log and allocation table sit.
struct Fixture {
    kxnative::MemoryFileSystem fs;
    std::u16string path = u"/d/disk.vhdx";
    Bytes model = Bytes(8 * kMiB, 0);
    uint64_t logAt = 0, batAt = 0, block0At = 0;

    Fixture() {
        std::unique_ptr<VhdxDisk> disk;
        EXPECT_EQ(VhdxDisk::Create(fs, path, Params(DiskKind::kDynamic, model.size(), 1), &disk), 0u);
        EXPECT_EQ(WriteBoth(*disk, model, 0, kMiB, 7), 0u);
        disk.reset();
        const Bytes img = fs.Get(path);
        logAt = Get<uint64_t>(img, CurrentHeader(img) + 72);
        // The allocation table region from the region table.
        for (uint32_t i = 0; i < Get<uint32_t>(img, 192 * 1024 + 8); ++i) {
            const size_t e = 192 * 1024 + 16 + 32 * i;
            if (Get<uint32_t>(img, e) == 0x2DC27766) batAt = Get<uint64_t>(img, e + 16);
        }
        block0At = (Get<uint64_t>(img, batAt) >> 20) << 20;
    }
};

// A log moving block 3 to fresh bytes at the end of the file, rewriting a
// sector of block 0 and zeroing 8 KiB of it; `model` updated to match.
Bytes LogTwoEntries(const Fixture& f, Bytes img, Bytes& model, const Guid& logGuid, bool tornSecond) {
    const uint64_t newBlock = (img.size() + kMiB - 1) / kMiB * kMiB;
    img.resize(newBlock + kMiB);
    for (size_t i = 0; i < kMiB; ++i) img[newBlock + i] = model[3 * kMiB + i] = static_cast<uint8_t>(i * 31 + 5);
    Bytes batPage(img.begin() + f.batAt, img.begin() + f.batAt + 4096);
    Put<uint64_t>(batPage, 3 * 8, (newBlock >> 20) << 20 | 6);
    Bytes sector(4096);
    for (size_t i = 0; i < sector.size(); ++i) sector[i] = static_cast<uint8_t>(0xA0 ^ i);
    const uint64_t last = img.size() + 2 * kMiB;  // the file is to grow
    const Bytes e1 = Entry(10, 0, logGuid, img.size(), last, {{f.batAt, batPage, 0}});
    Bytes e2 = Entry(11, 0, logGuid, img.size(), last,
                     {{f.block0At + 8192, sector, 0}, {f.block0At + 65536, {}, 8192}});
    if (tornSecond) e2[5000] ^= 1;
    else {
        std::memcpy(&model[8192], sector.data(), 4096);
        std::memset(&model[65536], 0, 8192);
    }
    std::memcpy(&img[f.logAt], e1.data(), e1.size());
    std::memcpy(&img[f.logAt + e1.size()], e2.data(), e2.size());
    SetLogGuid(img, logGuid);
    return img;
}

TEST(LogReplay, ReadOnlyShowsReplayedContentAndLeavesTheFile) {
    for (bool torn : {false, true}) {
        SCOPED_TRACE(torn ? "torn second entry" : "two whole entries");
        Fixture f;
        Bytes model = f.model;
        const Guid logGuid = kx::vhdx::NewGuid();
        const Bytes img = LogTwoEntries(f, f.fs.Get(f.path), model, logGuid, torn);
        f.fs.Put(f.path, img);
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(OpenMem(f.fs, f.path, false, &disk), 0u);
        const Bytes got = ReadAll(*disk, 70001);
        EXPECT_TRUE(got == model) << FirstDifference(got, model);
        disk.reset();
        EXPECT_TRUE(f.fs.Get(f.path) == img) << "a read-only open wrote to the file";
    }
}

TEST(LogReplay, WritableOpenReplaysIntoTheFileThenWrites) {
    ScratchDir dir;
    Fixture f;
    Bytes model = f.model;
    const Guid logGuid = kx::vhdx::NewGuid();
    const Bytes img = LogTwoEntries(f, f.fs.Get(f.path), model, logGuid, false);
    const std::string image = dir / "replay.vhdx";
    vhdtest::WriteFile(image, img);
    {
        std::unique_ptr<VhdxDisk> disk;
        ASSERT_EQ(OpenPosix(image, true, &disk), 0u);
        // Replayed before the first write; the write then allocates a block.
        ASSERT_EQ(WriteBoth(*disk, model, 5 * kMiB + 100, 3000, 9), 0u);
        const Bytes got = ReadAll(*disk, 80001);
        EXPECT_TRUE(got == model) << FirstDifference(got, model);
    }
    const Bytes after = ReadFile(image);
    EXPECT_TRUE(Guid{} == LogGuidOf(after)) << "the log is still in use";
    EXPECT_GE(after.size(), img.size() + 2 * kMiB);
    std::string log;
    EXPECT_EQ(RunCommand("qemu-img check -f vhdx '" + image + "'", &log), 0) << log;
    const Bytes qemu = QemuRaw(image, dir);
    EXPECT_TRUE(qemu == model) << "qemu-img: " << FirstDifference(qemu, model);
}

TEST(LogReplay, LogsThatCannotReplayAreRefused) {
    struct Case {
        const char* name;
        kx::vhd::Status expected;
        std::function<void(Fixture&, Bytes&, const Guid&)> damage;
    };
    const Case cases[] = {
        {"tail names no entry", kx::vhd::kMetadataReadFailure,
         [](Fixture& f, Bytes& img, const Guid& g) {
             const Bytes e = Entry(5, 64 * 1024, g, img.size(), img.size(), {{f.block0At, Bytes(4096, 1), 0}});
             std::memcpy(&img[f.logAt], e.data(), e.size());
         }},
        {"sequence broken between tail and head", kx::vhd::kMetadataReadFailure,
         [](Fixture& f, Bytes& img, const Guid& g) {
             const Bytes e1 = Entry(5, 0, g, img.size(), img.size(), {{f.block0At, Bytes(4096, 1), 0}});
             const Bytes e2 = Entry(7, 0, g, img.size(), img.size(), {{f.block0At, Bytes(4096, 2), 0}});
             std::memcpy(&img[f.logAt], e1.data(), e1.size());
             std::memcpy(&img[f.logAt + e1.size()], e2.data(), e2.size());
         }},
        {"write into the file's first MiB", kx::vhd::kMetadataReadFailure,
         [](Fixture& f, Bytes& img, const Guid& g) {
             const Bytes e = Entry(5, 0, g, img.size(), img.size(), {{64 * 1024, Bytes(4096, 1), 0}});
             std::memcpy(&img[f.logAt], e.data(), e.size());
         }},
        {"write past the recorded file end", kx::vhd::kMetadataReadFailure,
         [](Fixture& f, Bytes& img, const Guid& g) {
             const Bytes e = Entry(5, 0, g, img.size(), img.size(), {{img.size(), Bytes(4096, 1), 0}});
             std::memcpy(&img[f.logAt], e.data(), e.size());
         }},
        {"file shorter than the log says was flushed", kx::vhd::kInvalidFileSize,
         [](Fixture& f, Bytes& img, const Guid& g) {
             const Bytes e = Entry(5, 0, g, img.size() + kMiB, img.size() + kMiB, {{f.block0At, Bytes(4096, 1), 0}});
             std::memcpy(&img[f.logAt], e.data(), e.size());
         }},
    };
    for (const Case& c : cases) {
        for (bool writable : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (writable ? ", writable" : ", read-only"));
            Fixture f;
            Bytes img = f.fs.Get(f.path);
            const Guid g = kx::vhdx::NewGuid();
            c.damage(f, img, g);
            SetLogGuid(img, g);
            f.fs.Put(f.path, img);
            std::unique_ptr<VhdxDisk> disk;
            EXPECT_EQ(OpenMem(f.fs, f.path, writable, &disk), c.expected);
            EXPECT_EQ(disk, nullptr);
            EXPECT_TRUE(f.fs.Get(f.path) == img) << "a refused log changed the file";
        }
    }
}

TEST(LogReplay, EntriesOfAnotherLogAreIgnored) {
    Fixture f;
    Bytes img = f.fs.Get(f.path);
    const Bytes e = Entry(5, 0, kx::vhdx::NewGuid(), img.size(), img.size(), {{f.block0At, Bytes(4096, 1), 0}});
    std::memcpy(&img[f.logAt], e.data(), e.size());
    SetLogGuid(img, kx::vhdx::NewGuid());
    f.fs.Put(f.path, img);
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(OpenMem(f.fs, f.path, false, &disk), 0u);
    EXPECT_TRUE(ReadAll(*disk, 1 << 20) == f.model);
}

// Crash safety: the file layer stops writing after N calls, for every N up
// to the number the write needs; the image reopened (and so replayed) then
// shows the old content or the new, never a mix, and a writable reopen
// brings the file itself to the same state.
struct CrashCase {
    const char* name;
    bool differencing;
    uint64_t offset;
    size_t bytes;
};

TEST(CrashSafety, AllocatingWriteCutAtEveryWriteCall) {
    const CrashCase cases[] = {
        {"plain block, partial sectors", false, 2 * kMiB + 700, 5000},
        {"plain block, whole block", false, 4 * kMiB, kMiB},
        {"differencing block and its bitmap", true, 3 * kMiB + 4096 + 3, 9000},
    };
    for (const CrashCase& c : cases) {
        SCOPED_TRACE(c.name);
        Fixture f;
        std::u16string path = f.path;
        Bytes before = f.model;
        if (c.differencing) {
            path = u"/d/child.avhdx";
            std::unique_ptr<VhdxDisk> child;
            ASSERT_EQ(VhdxDisk::Create(f.fs, path, Params(DiskKind::kDifferencing, 0, 1, 512, "/d/disk.vhdx"), &child),
                      0u);
            ASSERT_EQ(WriteBoth(*child, before, 5 * kMiB, 4096, 3), 0u);  // the bitmap block exists
        }
        const Bytes image = f.fs.Get(path);
        Bytes after = before;
        std::mt19937 gen(42);
        Bytes data(c.bytes);
        for (auto& b : data) b = static_cast<uint8_t>(gen());
        std::memcpy(&after[c.offset], data.data(), data.size());

        bool completed = false;
        int sawOld = 0, sawNew = 0;  // cut writes that left the old and the new content
        for (long n = 0; n < 64 && !completed; ++n) {
            SCOPED_TRACE("writes allowed: " + std::to_string(n));
            f.fs.Put(path, image);
            {
                std::unique_ptr<VhdxDisk> disk;
                ASSERT_EQ(OpenMem(f.fs, path, true, &disk), 0u);
                f.fs.writesLeft = n;
                completed = disk->Write(c.offset, data.size(), data.data()) == 0;
                f.fs.writesLeft = 0;  // the process dies: not even the close writes
            }
            f.fs.writesLeft = -1;
            for (bool writable : {false, true}) {
                std::unique_ptr<VhdxDisk> disk;
                ASSERT_EQ(OpenMem(f.fs, path, writable, &disk), 0u) << (writable ? "writable" : "read-only");
                const Bytes got = ReadAll(*disk, 1 << 20);
                if (completed) EXPECT_TRUE(got == after) << FirstDifference(got, after);
                else EXPECT_TRUE(got == before || got == after) << "a mix: " << FirstDifference(got, before);
                if (!completed && !writable) (got == before ? sawOld : sawNew) += got == before || got == after;
            }
        }
        EXPECT_TRUE(completed);
        // Some cuts fall after the log entry and before the table is
        // updated in place: only the replay shows the new content there.
        EXPECT_GT(sawOld, 0);
        EXPECT_GT(sawNew, 0);
    }
}

}  // namespace
}  // namespace vhdxtest
