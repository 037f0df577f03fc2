// Disks this library creates and writes, read back by qemu-img and libvhdi
// and compared with a model of what was written.
#include <atomic>
#include <cstring>
#include <map>
#include <thread>

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

namespace vhdxtest {
namespace {

// Disks past their first chunk: writes allocate blocks whose table entries
// sit after a sector bitmap entry, and (differencing) a second and third
// sector bitmap block. Checked in windows against qemu-img and libvhdi.
TEST(CreatedDiskLarge, WritesBeyondTheFirstChunk) {
    ScratchDir dir;
    const std::string base = dir / "big.vhdx", child = dir / "big-child.avhdx", raw = dir / "big.raw";
    const uint64_t size = 9ull << 30;
    const std::vector<uint64_t> baseSpots = {(4ull << 30) - 700, (8ull << 30) + 12345};
    const std::vector<uint64_t> childSpots = {(4ull << 30) + 3, (8ull << 30) + 12000, size - 5000};
    std::map<uint64_t, Bytes> model;  // window start -> bytes
    auto window = [](uint64_t at) { return at / kMiB * kMiB - kMiB; };
    for (uint64_t at : baseSpots) model[window(at)] = Bytes(3 * kMiB, 0);
    for (uint64_t at : childSpots) model[window(at)] = Bytes(std::min<uint64_t>(3 * kMiB, size - window(at)), 0);
    auto write = [&](VhdxDisk& disk, uint64_t at, size_t n, uint32_t seed) {
        Bytes data(n);
        std::mt19937 gen(seed);
        for (auto& b : data) b = static_cast<uint8_t>(gen());
        for (auto& [from, bytes] : model)
            for (size_t i = 0; i < n; ++i)
                if (at + i >= from && at + i < from + bytes.size()) bytes[at + i - from] = data[i];
        return disk.Write(at, n, data.data());
    };
    std::unique_ptr<VhdxDisk> disk;
    ASSERT_EQ(VhdxDisk::Create(Posix(), U16(base), Params(DiskKind::kDynamic, size, 1), &disk), 0u);
    for (uint64_t at : baseSpots) ASSERT_EQ(write(*disk, at, 5000, static_cast<uint32_t>(at)), 0u);
    disk.reset();
    std::string log;
    EXPECT_EQ(RunCommand("qemu-img check -f vhdx '" + base + "'", &log), 0) << log;
    ASSERT_EQ(RunCommand("qemu-img convert -f vhdx -O raw '" + base + "' '" + raw + "'", &log), 0) << log;
    FILE* f = fopen(raw.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    for (uint64_t at : baseSpots) {
        const Bytes& want = model[window(at)];
        Bytes got(want.size());
        ASSERT_EQ(fseeko(f, static_cast<off_t>(window(at)), SEEK_SET), 0);
        ASSERT_EQ(fread(got.data(), 1, got.size(), f), got.size());
        EXPECT_TRUE(got == want) << "qemu-img at " << at << ": " << FirstDifference(got, want);
    }
    fclose(f);

    ASSERT_EQ(VhdxDisk::Create(Posix(), U16(child), Params(DiskKind::kDifferencing, 0, 1, 512, base), &disk), 0u);
    for (uint64_t at : childSpots) ASSERT_EQ(write(*disk, at, 3000, static_cast<uint32_t>(at) + 1), 0u);
    disk.reset();
    ASSERT_EQ(OpenPosix(child, false, &disk), 0u);
    std::string script = "import pyvhdi,sys\nb=pyvhdi.file();b.open('" + base + "')\nc=pyvhdi.file();c.open('" + child +
                         "')\nc.set_parent(b)\n";
    for (const auto& [from, want] : model) {
        Bytes got(want.size());
        ASSERT_EQ(disk->Read(from, got.size(), got.data()), 0u);
        EXPECT_TRUE(got == want) << "own read at " << from << ": " << FirstDifference(got, want);
        const std::string out = dir / ("w" + std::to_string(from));
        script += "open('" + out + "','wb').write(c.read_buffer_at_offset(" + std::to_string(want.size()) + "," +
                  std::to_string(from) + "))\n";
    }
    vhdtest::WriteFile(dir / "read.py", Bytes(script.begin(), script.end()));
    ASSERT_EQ(RunCommand("/usr/bin/python3 '" + dir / "read.py" + "'", &log), 0) << log;
    for (const auto& [from, want] : model) {
        const Bytes got = ReadFile(dir / ("w" + std::to_string(from)));
        EXPECT_TRUE(got == want) << "libvhdi at " << from << ": " << FirstDifference(got, want);
    }
}

// Threads writing and reading disjoint ranges of one disk at once, many of
// the writes allocating blocks: the calls are serialised, nothing is lost.
TEST(CreatedDiskThreads, ConcurrentWritesAndReads) {
    kxnative::MemoryFileSystem fs;
    std::unique_ptr<VhdxDisk> disk;
    const uint64_t size = 32 * kMiB;
    ASSERT_EQ(VhdxDisk::Create(fs, u"/t.vhdx", Params(DiskKind::kDynamic, size, 1), &disk), 0u);
    Bytes model(size, 0);
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            std::mt19937 gen(t);
            for (int i = 0; i < 40; ++i) {
                // Thread t owns every fourth 256 KiB stripe.
                const uint64_t stripe = (gen() % (size / (256 * 1024) / 4)) * 4 + t;
                const uint64_t at = stripe * 256 * 1024 + gen() % 1000;
                const size_t n = 1 + gen() % 200000;
                Bytes data(n);
                for (auto& b : data) b = static_cast<uint8_t>(gen());
                const size_t m = static_cast<size_t>(std::min<uint64_t>(n, (stripe + 1) * 256 * 1024 - at));
                std::memcpy(&model[at], data.data(), m);
                if (disk->Write(at, m, data.data())) ++failures;
                Bytes back(m);
                if (disk->Read(at, m, back.data()) || std::memcmp(back.data(), data.data(), m)) ++failures;
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    disk.reset();
    ASSERT_EQ(OpenMem(fs, u"/t.vhdx", false, &disk), 0u);
    const Bytes got = ReadAll(*disk, 1 << 20);
    EXPECT_TRUE(got == model) << FirstDifference(got, model);
}

}  // namespace
}  // namespace vhdxtest
