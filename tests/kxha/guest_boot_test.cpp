// kxha guest safeboot and reset-markers on fixture guests: what they report
// before and after, that a second run finds nothing left to change, and
// that a failure leaves the guest's files as they were. The test's PATH has
// no bcdedit.exe, so the BCD store is edited as a hive.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;
using kxtest::ScratchDir;

using kxhatest::Put;

namespace {

// A boot volume (its name with a blank and a non-ASCII letter) holding a
// BIOS store, the Windows Server 2003 guest's system hive and its software
// hive with Hyper-V markers.
struct Volume {
    ScratchDir dir;
    std::wstring root = dir / L"Boot \u00e9";
    std::wstring windows = root + L"\\Windows";
    Volume() {
        kxtest::MakeDirs(root + L"\\Boot");
        kxtest::MakeDirs(windows + L"\\system32\\config");
        Put("bcd-bios.hive", root + L"\\Boot\\BCD");
        Put("system-w2k3.hive", windows + L"\\system32\\config\\system");
        Put("software-hyperv.hive", windows + L"\\system32\\config\\software");
    }
};

}  // namespace

TEST(KxhaGuestBoot, CommandsReportTheirChangesAndFindNothingLeftTheSecondTime) {
    Volume v;
    struct Case {
        std::wstring args;
        std::vector<std::string> first, second;
    };
    const Case cases[] = {
        {L"guest safeboot " + Q(v.root) + L" " + Q(v.windows),
         {"default entry:  {5c7e2b1a-9d4f-11e3-8a2b-c4d6e8f0a1b2}",
          "safeboot (25000080): (absent) -> hex:01,00,00,00,00,00,00,00",
          "ControlSet002\\Control\\SafeBoot\\Network\\qlnvmhelpersvc (Default): Driver (unchanged)",
          "ControlSet002\\Services\\qlnvmhelpersvc SetSafeBootFirst: 0 -> 1"},
         {"safeboot (25000080): hex:01,00,00,00,00,00,00,00 (unchanged)", "SetSafeBootFirst: 1 (unchanged)"}},
        {L"guest reset-markers " + Q(v.windows),
         {"markers: ControlSet002\\Control\\Session Manager\\Environment", "IVM_NETWORK_READY  1 -> (absent)",
          "IVM_PR_SCRIPT      C:\\Programme\\Pr\xc3\xbc" "fung\\pr test.cmd -> (absent)",
          "IVM_PR_ERROR_CODE  (absent) (unchanged)", "IVM_PR_PROCESS_ID  4242 -> (absent)"},
         {"IVM_NETWORK_READY  (absent) (unchanged)", "IVM_PR_END_TIME    (absent) (unchanged)"}},
        {L"guest reset-markers " + Q(v.windows) + L" --hyperv",
         {"markers: Microsoft\\Virtual Machine\\Guest", "IVM_PR_ERROR_CODE  87 -> (absent)",
          "IVM_PR_END_TIME    2024-05-01T10:05:00 -> (absent)"},
         {"IVM_PR_SCRIPT      (absent) (unchanged)"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kxtest::Narrow(c.args));
        for (const auto* expected : {&c.first, &c.second}) {
            const auto r = Kxha(c.args);
            EXPECT_EQ(r.code, 0u) << r.out;
            for (const auto& line : *expected) EXPECT_TRUE(Has(r, line)) << line << "\n" << r.out;
        }
    }
}

TEST(KxhaGuestBoot, FailuresExitWithTheCodeAndChangeNothing) {
    Volume v;
    ScratchDir empty;
    const auto system = kxtest::ReadBytes(v.windows + L"\\system32\\config\\system");
    struct Case {
        std::wstring args;
        std::string error;
    };
    const Case cases[] = {
        // No UEFI store on this volume.
        {L"guest safeboot " + Q(v.root) + L" " + Q(v.windows) + L" --uefi",
         "error: guest safeboot failed, rc = 110 (0x0000006E): the BCD store was not edited"},
        {L"guest safeboot " + Q(v.root) + L" " + Q(empty.path()), "error: guest safeboot failed, rc = 10 "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kxtest::Narrow(c.args));
        const auto r = Kxha(c.args);
        EXPECT_NE(r.code, 0u);
        EXPECT_TRUE(Has(r, c.error)) << r.out;
    }
    EXPECT_EQ(kxtest::ReadBytes(v.windows + L"\\system32\\config\\system"), system);
}
