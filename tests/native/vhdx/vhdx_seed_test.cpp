// The fuzz seeds of fuzz/corpus/vhdx: images of each kind in the compact
// sparse form, rebuilt here. Each stored seed must still open and read;
// KX_WRITE_VHDX_SEEDS=1 rewrites them.
#include <cstdlib>
#include <filesystem>

#include "sparse_image.h"
#include "vhdx_test_util.h"

namespace vhdxtest {
namespace {

std::map<std::string, Bytes> MakeSeeds() {
    std::map<std::string, Bytes> seeds;
    const Bytes data(5000, 0x5C);
    auto made = [&](const std::string& name, const CreateParams& p, const std::vector<uint64_t>& writes) {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<VhdxDisk> disk;
        EXPECT_EQ(VhdxDisk::Create(fs, u"/d/base.vhdx", Params(DiskKind::kDynamic, 8 * kMiB, 1), &disk), 0u);
        disk.reset();
        const std::u16string path = u"/d/" + U16(name);
        EXPECT_EQ(VhdxDisk::Create(fs, path, p, &disk), 0u) << name;
        for (uint64_t at : writes) EXPECT_EQ(disk->Write(at, data.size(), data.data()), 0u);
        disk.reset();
        seeds[name] = CompactSparse(fs.Get(path));
    };
    made("dynamic-512", Params(DiskKind::kDynamic, 8 * kMiB, 1), {0, 5 * kMiB + 3});
    made("fixed-4096", Params(DiskKind::kFixed, 3 * kMiB, 1, 4096), {0, kMiB + 4096});
    made("differencing", Params(DiskKind::kDifferencing, 0, 1, 512, "/d/base.vhdx"), {100, 3 * kMiB});

    // A write cut after its log entry: the table change is only in the log.
    for (long n = 1; n < 40; ++n) {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<VhdxDisk> disk;
        EXPECT_EQ(VhdxDisk::Create(fs, u"/d/log.vhdx", Params(DiskKind::kDynamic, 8 * kMiB, 1), &disk), 0u);
        disk.reset();
        EXPECT_EQ(OpenMem(fs, u"/d/log.vhdx", true, &disk), 0u);
        fs.writesLeft = n;
        disk->Write(2 * kMiB, data.size(), data.data());
        fs.writesLeft = 0;
        disk.reset();
        fs.writesLeft = -1;
        const Bytes raw = fs.Get(u"/d/log.vhdx");
        uint8_t b = 0;
        // The table in place still says "not present", yet the disk reads
        // the data: the log carried it.
        if (OpenMem(fs, u"/d/log.vhdx", false, &disk) == 0 && disk->Read(2 * kMiB, 1, &b) == 0 && b == 0x5C &&
            raw[3 * kMiB + 16] == 0) {
            seeds["log-pending"] = CompactSparse(raw);
            break;
        }
    }
    EXPECT_EQ(seeds.count("log-pending"), 1u);

    ScratchDir dir;
    std::string log;
    const std::string q = dir / "q.vhdx";
    EXPECT_EQ(RunCommand("qemu-img create -f vhdx -o block_size=1M '" + q + "' 4M && qemu-io -f vhdx -c 'write -P 7 0 4096' "
                         "-c 'write -P 9 3145728 512' '" + q + "'",
                         &log),
              0)
        << log;
    seeds["qemu-dynamic"] = CompactSparse(ReadFile(q));
    return seeds;
}

TEST(FuzzSeeds, StoredSeedsOpenAndRead) {
    const std::map<std::string, Bytes> seeds = MakeSeeds();
    const std::filesystem::path corpus = KX_SEED_DIR;
    if (const char* w = std::getenv("KX_WRITE_VHDX_SEEDS"); w && std::string(w) == "1") {
        std::filesystem::create_directories(corpus);
        for (const auto& [name, bytes] : seeds) vhdtest::WriteFile((corpus / name).string(), bytes);
    }
    for (const auto& [name, fresh] : seeds) {
        SCOPED_TRACE(name);
        const Bytes stored = ReadFile((corpus / name).string());
        ASSERT_FALSE(stored.empty()) << "seed missing: run with KX_WRITE_VHDX_SEEDS=1";
        EXPECT_LT(stored.size(), 48u * 1024) << "seeds stay small";
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<VhdxDisk> disk;
        const Status s = VhdxDisk::Open(std::make_unique<SparseFile>(stored.data(), stored.size(), 64 * kMiB),
                                        u"/d/seed.vhdx", false, fs, &disk);
        if (name == "differencing") {
            EXPECT_EQ(s, kx::vhd::kParentNotFound);  // the fuzzer sees the child alone
            continue;
        }
        ASSERT_EQ(s, 0u);
        Bytes all(disk->Size());
        EXPECT_EQ(disk->Read(0, all.size(), all.data()), 0u);
        EXPECT_NE(std::count(all.begin(), all.end(), 0), static_cast<long>(all.size()));
    }
}

}  // namespace
}  // namespace vhdxtest
