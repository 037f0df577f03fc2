// kxha end to end: the tool run as a program, its output and exit status.
// The tool is no test program: it runs against the prefix's own registry,
// which no test writes, so only commands that need no install path are run
// here (the configuration and the log location are the library's, tested
// through the DLL).
#include <gtest/gtest.h>

#include "../bitmap/bitmap_test_util.h"
#include "kx_test.h"
#include "kxha_run.h"

using kxtest::ScratchDir;

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;
using kxhatest::Result;

// Each command in order, against a destination with prepared bitmaps (d) or
// one with a merge (m): its exit status (2 for usage, 1 for a failed call)
// and a piece of its output, or all of it.
TEST(Kxha, CommandsOnADestination) {
    ScratchDir d;
    for (unsigned n : {3u, 4u}) {
        const std::wstring s = L"S000000000" + std::to_wstring(n);
        kxtest::WriteBackupInfo(d.path() + L"\\VStore\\" + s, n, "Incremental");
        kxtest::WriteBackupInfo(d.path() + L"\\VCM-bitmap\\" + s, n, "Incremental");
    }
    // Prepared disk bitmaps of 20 sectors: sectors 0-1 and 9-11 set in S4.
    kxtest::WriteBitmapFile(d / L"VCM-bitmap\\S0000000004\\disk0000000001.Bitmap", 20, {0x03, 0x0E, 0x00});
    kxtest::WriteBitmapFile(d / L"VCM-bitmap\\S0000000003\\disk0000000001.Bitmap", 20, {0x80, 0x00, 0x08});
    kxtest::WriteText(d / L"notes.txt", "not a bitmap");
    ScratchDir m;
    for (unsigned n = 1; n <= 4; ++n)
        kxtest::WriteBackupInfo(m.path() + L"\\VStore\\S000000000" + std::to_wstring(n), n, "Incremental");
    kxtest::MakeDirs(m / L"ToPurge");
    kxtest::WriteText(m / L"ToPurge\\S0000000002.idx_step1", "");
    const std::wstring root = Q(d.path()), merging = Q(m.path()), s4 = Q(d / L"VCM-bitmap\\S0000000004\\disk0000000001.Bitmap");
    const struct {
        std::wstring args;
        DWORD code;
        std::string out;
        bool whole = false;
    } cases[] = {
        {L"", 2, ""},
        {L"lock C:\\x 5 2", 2, "reversed"},
        {L"bitmap list " + root + L" --json", 0, "\"sessions\": [\"S0000000003\", \"S0000000004\"]"},
        {L"bitmap show " + s4 + L" --json", 0,
         "\"total_sectors\": 20, \"set_sectors\": 5, \"extents\": 2, \"first_extents\": [[0, 2], [9, 3]]"},
        {L"bitmap union " + Q(d / L"VStore\\S0000000004\\disk0000000001.zek") + L" 3 --json", 0,
         "\"changed_sectors\": 7, \"bytes_to_copy\": 3584"},
        {L"bitmap check " + root + L" S0000000004", 0, "match:          yes"},
        {L"bitmap show " + Q(d / L"none.Bitmap"), 1, "failed, rc = 2 (0x00000002): "},
        {L"bitmap show " + Q(d / L"notes.txt"), 1, "(0xFFFFFFFF): not a session bitmap file"},
        {L"bitmap delete " + root + L" S0000000003", 0, ""},
        {L"bitmap list " + root, 0, "S0000000004\n", true},
        {L"merges " + merging + L" --json", 0, "{\"merging\": [2, 3]}\n", true},
        {L"intact " + merging, 0, "Intact sessions: 1 4\n", true},
        {L"lock " + merging + L" 2 4 --manual", 1, "merge in progress"},
        {L"lock " + merging + L" 4 4 --json", 0, "\"locked\": true"},
    };
    for (const auto& c : cases) {
        const Result r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << kxtest::Narrow(c.args) << "\n" << r.out;
        EXPECT_TRUE(c.whole ? r.out == c.out : Has(r, c.out)) << kxtest::Narrow(c.args) << "\n" << r.out;
    }
}

TEST(Kxha, DemoRunsTheWholeCycleAndEveryUnionMatchesItsWrites) {
    ScratchDir d;
    const std::wstring folder = d / L"demo";
    Result r = Kxha(L"demo " + Q(folder) + L" --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"prepared\": 5, \"prepared_after_conversion\": 0")) << r.out;
    EXPECT_TRUE(Has(r, "\"match\": true")) << r.out;
    EXPECT_FALSE(Has(r, "\"changed_sectors\": 0,")) << r.out;
    // Then the guest stage: the demo guest repaired for Hyper-V as expected.
    EXPECT_TRUE(Has(r, "\"problems\": [], \"guest_match\": true")) << r.out;
    // The newest finished session is recorded as converted; the bitmaps are gone.
    const std::vector<uint8_t> last = kxtest::ReadBytes(folder + L"\\destination\\VCM-bitmap\\LastSession.vsb");
    EXPECT_EQ(std::string(last.begin(), last.end()), "S0000000005");

    // A folder that already holds data is never written over.
    r = Kxha(L"demo " + Q(folder));
    EXPECT_EQ(r.code, 2u);
    EXPECT_TRUE(Has(r, "is not empty")) << r.out;
}
