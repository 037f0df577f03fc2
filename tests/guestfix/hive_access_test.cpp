// The repair of a hive whose last write did not complete, on the base block
// of a real hive file (written by hivex), checked afterwards by the hive
// engine and byte by byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "guestfix/hive_access.h"
#include "kx_test.h"
#include "platform/regf/regf_hive.h"
#include "platform/win32_positioned_file.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace g = kx::guestfix;

uint32_t Get32(const Bytes& b, size_t at) { uint32_t v; std::memcpy(&v, b.data() + at, 4); return v; }
void Set32(Bytes& b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }

// A real hive whose primary sequence number ran ahead of the secondary, as a
// write cut off half-way leaves it.
Bytes DirtyHive() {
    const std::string path = std::string("Z:") + KX_SOURCE_DIR + "/fuzz/corpus/regf/hivex-25keys-1.3.hive";
    Bytes b = kxtest::ReadBytes(std::wstring(path.begin(), path.end()));
    Set32(b, 4, Get32(b, 8) + 1);
    return b;
}

kx::regf::HeaderInfo Header(const std::wstring& path) {
    std::unique_ptr<kx::vhd::PositionedFile> file;
    EXPECT_EQ(kx::vdisk::Win32FileSystem::OpenFile(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, &file), 0u);
    kx::regf::HeaderInfo info;
    EXPECT_EQ(kx::regf::Hive::ReadHeader(*file, &info), 0u);
    return info;
}

void SetSwitch(DWORD v) { kxtest::SetRegValue(g::kBackupDllKey, L"FixHiveIntegrity", v); }

}  // namespace

TEST(FixHiveIntegrity, EqualsTheSequenceNumbersAndStoresTheChecksumAsComputed) {
    kxtest::ScratchDir d;
    const std::wstring hive = d / L"system";
    SetSwitch(1);
    const Bytes before = DirtyHive();
    kxtest::WriteBytes(hive, before.data(), before.size());
    g::FixHiveIntegrity(hive);

    const Bytes after = kxtest::ReadBytes(hive);
    ASSERT_EQ(after.size(), before.size());
    EXPECT_EQ(Get32(after, 8), Get32(before, 4));
    uint32_t x = 0;
    for (size_t i = 0; i < 508; i += 4) x ^= Get32(after, i);
    EXPECT_EQ(Get32(after, 508), x);
    for (size_t i = 0; i < after.size(); ++i) {
        if ((i >= 8 && i < 12) || (i >= 508 && i < 512)) continue;
        ASSERT_EQ(after[i], before[i]) << "byte " << i;
    }
    // The hive engine finds a clean hive and walks all of it.
    EXPECT_FALSE(Header(hive).dirty);
    std::unique_ptr<kx::vhd::PositionedFile> file;
    ASSERT_EQ(kx::vdisk::Win32FileSystem::OpenFile(hive, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, &file), 0u);
    std::unique_ptr<kx::regf::Hive> opened;
    EXPECT_EQ(kx::regf::Hive::Open(std::move(file), {}, &opened), 0u);
    opened.reset();

    // A block whose XOR comes to 0 keeps 0, not the 1 Windows would store.
    Bytes zero = DirtyHive();
    Set32(zero, 200, 0);
    Set32(zero, 8, Get32(zero, 4));
    uint32_t rest = 0;
    for (size_t i = 0; i < 508; i += 4) rest ^= Get32(zero, i);
    Set32(zero, 200, rest);
    Set32(zero, 8, Get32(zero, 4) - 1);
    kxtest::WriteBytes(hive, zero.data(), zero.size());
    g::FixHiveIntegrity(hive);
    EXPECT_EQ(Get32(kxtest::ReadBytes(hive), 508), 0u);
}

TEST(FixHiveIntegrity, LeavesCleanHivesMissingFilesAndASwitchedOffRepairAlone) {
    kxtest::ScratchDir d;
    const std::wstring hive = d / L"system";
    kxtest::LogCursor log;

    // Sequence numbers that agree: untouched, even with a wrong checksum.
    SetSwitch(1);
    Bytes clean = DirtyHive();
    Set32(clean, 8, Get32(clean, 4));
    Set32(clean, 508, 0x12345678);
    kxtest::WriteBytes(hive, clean.data(), clean.size());
    g::FixHiveIntegrity(hive);
    EXPECT_EQ(kxtest::ReadBytes(hive), clean);
    EXPECT_TRUE(log.Contains(L"::The hive file " + hive + L" doesn't have integrity problem."));

    // The switch at 0: a dirty hive stays dirty.
    SetSwitch(0);
    const Bytes dirty = DirtyHive();
    kxtest::WriteBytes(hive, dirty.data(), dirty.size());
    g::FixHiveIntegrity(hive);
    EXPECT_EQ(kxtest::ReadBytes(hive), dirty);
    EXPECT_TRUE(log.Contains(L"The registry switch is not enabled, don't fix the hive integrity problem."));
    SetSwitch(1);

    // A file in another format (Wine's text hive) is never rewritten.
    const std::string text = "WINE REGISTRY Version 2\n;; All keys relative to \\\\Machine\n" + std::string(600, ';');
    kxtest::WriteText(hive, text);
    g::FixHiveIntegrity(hive);
    EXPECT_EQ(kxtest::ReadBytes(hive), Bytes(text.begin(), text.end()));
    EXPECT_TRUE(log.Contains(L"is not a registry hive file"));

    // A file that is not there: one line, and nothing made.
    g::FixHiveIntegrity(d / L"missing");
    EXPECT_EQ(log.Matching(L"Fail to open registry hive " + (d / L"missing")).size(), 1u);
    EXPECT_FALSE(kxtest::Exists(d / L"missing"));
}

TEST(ReadEngineDword, FallsBackToTheDefaultWhenTheValueCannotBeRead) {
    DWORD v = 7;
    kxtest::SetRegValue(g::kEngineKey, L"KxProbe", 42);
    EXPECT_EQ(g::ReadEngineDword(L"KxProbe", &v, nullptr, 5), 0u);
    EXPECT_EQ(v, 42u);
    EXPECT_EQ(g::ReadEngineDword(L"KxProbe", &v, L"", 5), 0u);
    EXPECT_EQ(v, 42u);
    EXPECT_EQ(g::ReadEngineDword(L"KxMissing", &v, nullptr, 5), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(v, 5u);
    kxtest::SetRegValue(g::kEngineKey, L"KxText", L"not a dword");
    EXPECT_NE(g::ReadEngineDword(L"KxText", &v, nullptr, 9), 0u);
    EXPECT_EQ(v, 9u);
}
