// kxha end to end: the tool run as a program, its output and exit status.
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

TEST(Kxha, HelpForEveryCommandAndUsageErrors) {
    const Result top = Kxha(L"--help");
    EXPECT_EQ(top.code, 0u);
    for (const char* cmd : {"bitmap", "lock", "merges", "intact", "vcm", "demo", "version", "log"}) {
        EXPECT_TRUE(Has(top, std::string("  ") + cmd)) << cmd;
        const Result help = Kxha(kxtest::Widen(cmd) + L" --help");
        EXPECT_EQ(help.code, 0u) << cmd;
        EXPECT_TRUE(Has(help, std::string("usage: kxha ") + cmd)) << help.out;
    }
    EXPECT_EQ(Kxha(L"").code, 2u);
    EXPECT_EQ(Kxha(L"frobnicate").code, 2u);
    EXPECT_EQ(Kxha(L"bitmap").code, 2u);
    EXPECT_EQ(Kxha(L"lock C:\\x").code, 2u);
}

TEST(Kxha, VersionAndLog) {
    const Result v = Kxha(L"version --json");
    ASSERT_EQ(v.code, 0u) << v.out;
    EXPECT_TRUE(Has(v, "\"company\": \"Veltrana\"")) << v.out;
    EXPECT_TRUE(Has(v, "\"product\": \"Quillon\""));
    const Result log = Kxha(L"log --lines 3");
    ASSERT_EQ(log.code, 0u);
    EXPECT_TRUE(Has(log, "Debug log: C:\\KxTest\\install\\Logs\\KestrixHA")) << log.out;
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

    // A failure: exit status 1, the code and its system text.
    r = Kxha(L"bitmap show " + Q(d / L"none.Bitmap"));
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "failed, rc = 2 (0x00000002): ")) << r.out;
}

TEST(Kxha, LockMergesIntactAndVcm) {
    ScratchDir d, install;
    kxtest::RegValueOverride path{kxtest::kInstallPathKey, L"Path", install.path()};
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

    r = Kxha(L"vcm set --manual 1 --index-folder D:\\idx --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_EQ(r.out, "{\"manual_vcm\": true, \"index_folder\": \"D:\\\\idx\"}\n");
    r = Kxha(L"vcm get");
    EXPECT_TRUE(Has(r, "Manual VCM:   on")) << r.out;
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
