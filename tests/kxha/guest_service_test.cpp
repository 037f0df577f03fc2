// kxha guest inject-service on a fixture guest: the files and registry rows
// it reports the first time, nothing left to change the second time, and a
// missing source folder failing with its code while the hive stays as it was.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;
using kxtest::ScratchDir;

namespace {

struct ServiceGuest {
    ScratchDir dir;
    std::wstring windows = dir / L"Gast \u00e9\\Windows";
    std::wstring source = dir / L"helper build";
    ServiceGuest() {
        kxtest::MakeDirs(windows + L"\\system32\\config");
        kxtest::MakeDirs(source);
        kxhatest::Put("svc-system.hive", windows + L"\\system32\\config\\system");
        kxtest::WriteText(source + L"\\qlnvmhelpersvc.exe", "MZ helper stand-in");
    }
};

TEST(KxhaGuestService, ReportsTheInjectionThenNothingLeft) {
    ServiceGuest g;
    const std::wstring args = L"guest inject-service " + Q(g.windows) + L" " + Q(g.source);
    struct Pass {
        std::vector<std::string> lines;
    };
    const Pass passes[] = {
        {{"+ qlnvmhelpersvc.exe (18 bytes)",
          "* ControlSet002\\Control\\SafeBoot\\Network\\qlnvmhelpersvc  (Default)",
          "- ControlSet002\\Services\\qlnvmhelpersvc                  DependOnService",
          "+ ControlSet003\\Services\\qlnvmhelpersvc                  Type             (absent)                      "
          "REG_DWORD 0x00000010 (16)"}},
        {{"qlnvmhelpersvc.exe (18 bytes) unchanged", "system32\\config\\system: 0 changes"}},
    };
    for (const Pass& p : passes) {
        const auto r = Kxha(args);
        EXPECT_EQ(r.code, 0u) << r.out;
        for (const auto& line : p.lines) EXPECT_TRUE(Has(r, line)) << line << "\n" << r.out;
    }
}

TEST(KxhaGuestService, MissingSourceFailsAndChangesNothing) {
    ServiceGuest g;
    const auto before = kxtest::ReadBytes(g.windows + L"\\system32\\config\\system");
    const auto r = Kxha(L"guest inject-service " + Q(g.windows) + L" " + Q(g.source + L"-gone"));
    EXPECT_EQ(r.code, 1u) << r.out;
    EXPECT_TRUE(Has(r, "Ivm_InjectHelperServiceToHiveEx failed, rc = 3")) << r.out;
    EXPECT_EQ(kxtest::ReadBytes(g.windows + L"\\system32\\config\\system"), before);
}

}  // namespace
