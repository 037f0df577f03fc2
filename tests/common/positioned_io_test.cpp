// Positioned reads and writes: their codes inside, at and past the end of a
// file (an offset that only its high half puts past the end included) and on
// unusable handles, and threads sharing one handle without disturbing each
// other's offsets. Both ways the helper can
// go are checked: the native call and the OVERLAPPED one the benchmarks use
// for comparison.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "common/positioned_io.h"
#include "common/unique_resource.h"
#include "kx_test.h"

namespace {

using kx::unique_hfile;

unique_hfile Open(const std::wstring& path, DWORD access) {
    return unique_hfile(::CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr));
}

uint8_t Pattern(uint64_t at) { return static_cast<uint8_t>(at * 31 + (at >> 9)); }

class PositionedIo : public testing::TestWithParam<bool> {
protected:
    void SetUp() override { kx::io::testing::UseOverlappedOffsets(GetParam()); }
    void TearDown() override { kx::io::testing::UseOverlappedOffsets(false); }
    kxtest::ScratchDir dir_;
};

TEST_P(PositionedIo, CodesAndCountsAtEveryPlace) {
    std::vector<uint8_t> content(1000);
    for (size_t i = 0; i < content.size(); ++i) content[i] = Pattern(i);
    const std::wstring path = dir_ / L"f.bin";
    kxtest::WriteBytes(path, content.data(), content.size());
    unique_hfile f = Open(path, GENERIC_READ);
    ASSERT_TRUE(f);

    struct Case {
        const char* name;
        uint64_t offset;
        DWORD size, rc, done;
    };
    const Case cases[] = {
        {"inside", 10, 100, 0, 100},
        {"short at the end", 900, 512, 0, 100},
        {"at the end", 1000, 16, ERROR_HANDLE_EOF, 0},
        {"past the end", 5000, 16, ERROR_HANDLE_EOF, 0},
        {"high dword only", 1ull << 32, 16, ERROR_HANDLE_EOF, 0},
    };
    for (const Case& c : cases) {
        std::vector<uint8_t> buf(c.size, 0xEE);
        DWORD done = 12345;
        EXPECT_EQ(kx::io::ReadAt(f.get(), c.offset, buf.data(), c.size, &done), c.rc) << c.name;
        EXPECT_EQ(done, c.done) << c.name;
        if (c.rc) {
            EXPECT_EQ(::GetLastError(), c.rc) << c.name;
        }
        for (DWORD i = 0; i < done; ++i) ASSERT_EQ(buf[i], Pattern(c.offset + i)) << c.name << " byte " << i;
    }

    DWORD done = 7;
    uint8_t byte = 1;
    EXPECT_EQ(kx::io::WriteAt(f.get(), 0, &byte, 1, &done), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(done, 0u);
    EXPECT_EQ(kx::io::ReadAt(INVALID_HANDLE_VALUE, 0, &byte, 1, &done), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(kx::io::WriteAt(nullptr, 0, &byte, 1, &done), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

// Threads write interleaved records through one handle, reading each back
// at once while the others write; the file read whole afterwards through
// another handle must hold every record where it belongs.
TEST_P(PositionedIo, ThreadsShareOneHandle) {
    constexpr int kThreads = 6, kRecords = 300;
    constexpr DWORD kRecord = 512;
    const std::wstring path = dir_ / L"shared.bin";
    unique_hfile f = Open(path, GENERIC_READ | GENERIC_WRITE);
    ASSERT_TRUE(f);
    auto offsetOf = [](int t, int i) { return (uint64_t{static_cast<unsigned>(i)} * kThreads + t) * kRecord; };
    std::vector<int> mismatches(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            std::vector<uint8_t> rec(kRecord), back(kRecord);
            for (int i = 0; i < kRecords; ++i) {
                const uint64_t at = offsetOf(t, i);
                for (DWORD k = 0; k < kRecord; ++k) rec[k] = Pattern(at + k);
                DWORD done = 0;
                if (kx::io::WriteAt(f.get(), at, rec.data(), kRecord, &done) || done != kRecord) ++mismatches[t];
                if (kx::io::ReadAt(f.get(), at, back.data(), kRecord, &done) || done != kRecord || back != rec)
                    ++mismatches[t];
            }
        });
    for (std::thread& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(mismatches[t], 0) << "thread " << t;
    f.reset();

    const std::vector<uint8_t> all = kxtest::ReadBytes(path);
    ASSERT_EQ(all.size(), size_t{kThreads} * kRecords * kRecord);
    for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i], Pattern(i)) << "byte " << i;
}

INSTANTIATE_TEST_SUITE_P(BothWays, PositionedIo, testing::Values(false, true),
                         [](const testing::TestParamInfo<bool>& p) { return p.param ? "Overlapped" : "Native"; });

}  // namespace
