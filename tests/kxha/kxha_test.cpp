// kxha end to end: the tool run as a program, its output and exit status.
// The tool is no test program: it runs against the prefix's own registry,
// which no test writes, so only commands that need no install path are run
// here (the configuration and the log location are the library's, tested
// through the DLL).
#include <gtest/gtest.h>

#include "../bitmap/bitmap_test_util.h"
#include "kx_test.h"

using kxtest::ScratchDir;

namespace {

struct Result {
    DWORD code;
    std::string out;
};

Result Kxha(const std::wstring& args) {
    Result r;
    r.code = kxtest::RunCapture(L"\"" + kxtest::BinDir() + L"\\kxha.exe\" " + args, &r.out);
    return r;
}

bool Has(const Result& r, const std::string& text) { return r.out.find(text) != std::string::npos; }

std::wstring Q(const std::wstring& s) { return L"\"" + s + L"\""; }

}  // namespace

TEST(Kxha, UsageErrorsExitWithTwo) {
    for (const wchar_t* args : {L"", L"frobnicate", L"bitmap", L"lock C:\\x", L"lock C:\\x 5 2"})
        EXPECT_EQ(Kxha(args).code, 2u) << kxtest::Narrow(args);
    EXPECT_TRUE(Has(Kxha(L"lock C:\\x 5 2"), "reversed"));
}

TEST(Kxha, BitmapCatalogueCommands) {
    ScratchDir d;
    for (unsigned n : {3u, 4u}) {
        const std::wstring s = L"S000000000" + std::to_wstring(n);
        kxtest::WriteBackupInfo(d.path() + L"\\VStore\\" + s, n, "Incremental");
        kxtest::WriteBackupInfo(d.path() + L"\\VCM-bitmap\\" + s, n, "Incremental");
    }
    // A prepared disk bitmap: 20 sectors, sectors 0-1 and 9-11 set.
    kxtest::WriteBitmapFile(d / L"VCM-bitmap\\S0000000004\\disk0000000001.Bitmap", 20, {0x03, 0x0E, 0x00});
    kxtest::WriteBitmapFile(d / L"VCM-bitmap\\S0000000003\\disk0000000001.Bitmap", 20, {0x80, 0x00, 0x08});

    Result r = Kxha(L"bitmap list " + Q(d.path()) + L" --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"sessions\": [\"S0000000003\", \"S0000000004\"]")) << r.out;

    r = Kxha(L"bitmap show " + Q(d / L"VCM-bitmap\\S0000000004\\disk0000000001.Bitmap") + L" --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"total_sectors\": 20, \"set_sectors\": 5, \"extents\": 2, \"first_extents\": [[0, 2], [9, 3]]"))
        << r.out;

    r = Kxha(L"bitmap union " + Q(d / L"VStore\\S0000000004\\disk0000000001.zek") + L" 3 --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"changed_sectors\": 7, \"bytes_to_copy\": 3584")) << r.out;

    r = Kxha(L"bitmap check " + Q(d.path()) + L" S0000000004");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "match:          yes"));

    r = Kxha(L"bitmap delete " + Q(d.path()) + L" S0000000003");
    ASSERT_EQ(r.code, 0u) << r.out;
    r = Kxha(L"bitmap list " + Q(d.path()));
    EXPECT_EQ(r.out, "S0000000004\n");

    // A failure: exit status 1, the code and what it means.
    r = Kxha(L"bitmap show " + Q(d / L"none.Bitmap"));
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "failed, rc = 2 (0x00000002): ")) << r.out;
    kxtest::WriteText(d / L"notes.txt", "not a bitmap");
    r = Kxha(L"bitmap show " + Q(d / L"notes.txt"));
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "(0xFFFFFFFF): not a session bitmap file")) << r.out;
}

TEST(Kxha, LockMergesAndIntact) {
    ScratchDir d;
    for (unsigned n = 1; n <= 4; ++n)
        kxtest::WriteBackupInfo(d.path() + L"\\VStore\\S000000000" + std::to_wstring(n), n, "Incremental");
    kxtest::MakeDirs(d / L"ToPurge");
    kxtest::WriteText(d / L"ToPurge\\S0000000002.idx_step1", "");

    Result r = Kxha(L"merges " + Q(d.path()) + L" --json");
    EXPECT_EQ(r.out, "{\"merging\": [2, 3]}\n");
    r = Kxha(L"intact " + Q(d.path()));
    EXPECT_EQ(r.out, "Intact sessions: 1 4\n");
    r = Kxha(L"lock " + Q(d.path()) + L" 2 4 --manual");
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "merge in progress")) << r.out;
    r = Kxha(L"lock " + Q(d.path()) + L" 4 4 --json");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"locked\": true"));
}

TEST(Kxha, DemoRunsTheWholeCycleAndEveryUnionMatchesItsWrites) {
    ScratchDir d;
    const std::wstring folder = d / L"demo";
    Result r = Kxha(L"demo " + Q(folder) + L" --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"prepared\": 5, \"prepared_after_conversion\": 0")) << r.out;
    EXPECT_TRUE(Has(r, "\"match\": true")) << r.out;
    EXPECT_FALSE(Has(r, "\"changed_sectors\": 0,")) << r.out;
    // The newest finished session is recorded as converted; the bitmaps are gone.
    const std::vector<uint8_t> last = kxtest::ReadBytes(folder + L"\\destination\\VCM-bitmap\\LastSession.vsb");
    EXPECT_EQ(std::string(last.begin(), last.end()), "S0000000005");

    // A folder that already holds data is never written over.
    r = Kxha(L"demo " + Q(folder));
    EXPECT_EQ(r.code, 2u);
    EXPECT_TRUE(Has(r, "is not empty")) << r.out;
}
