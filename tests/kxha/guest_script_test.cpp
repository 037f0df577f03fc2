// kxha guest add-startup-script on a fixture guest (a real software hive):
// the entries it prints are read back from the hive and ini files, a second
// run only changes what a new run needs, and failures carry the code.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;

TEST(KxhaGuestScript, PrintsWhatChangedAndFailuresCarryTheCode) {
    kxtest::ScratchDir dir;
    const std::wstring windows = dir / L"Gäst Ω\\Windows", config = windows + L"\\system32\\config\\";
    kxtest::MakeDirs(config);
    kxhatest::Put("software.hive", config + L"software");
    const std::wstring script = dir / L"first boot.cmd";
    kxtest::WriteText(script, "@echo first\r\n");

    const auto r = Kxha(L"guest add-startup-script " + Q(windows) + L" " + Q(script) + L" \"-mode net\"");
    EXPECT_EQ(r.code, 0u) << r.out;
    for (const char* shown :
         {"+ reg Microsoft\\Windows\\CurrentVersion\\Group Policy\\Scripts\\Startup\\0\\0 Script = kxonce-first boot.cmd",
          "+ reg Microsoft\\Windows\\CurrentVersion\\Group Policy\\State\\Machine\\Scripts\\Startup\\0\\0 Parameters = "
          "-mode net",
          "+ scripts.ini [Startup] 0CmdLine = kxonce-first boot.cmd", "+ gpt.ini [General] Version = 1",
          "Startup\\first boot.cmd = 13 bytes"})
        EXPECT_TRUE(Has(r, shown)) << shown << "\n" << r.out;

    // Again: the same entry, only the policy's version moves on.
    const auto again = Kxha(L"guest add-startup-script " + Q(windows) + L" " + Q(script) + L" \"-mode net\"");
    EXPECT_EQ(again.code, 0u);
    EXPECT_EQ(again.out, "~ gpt.ini [General] Version: 1 -> 2\n");

    kxtest::MakeDirs(dir / L"leer");
    const struct {
        const char* what;
        std::wstring args;
        std::string shown;
    } failures[] = {
        {"no script", L"guest add-startup-script " + Q(windows) + L" " + Q(dir / L"absent.cmd"),
         "error: InjectScript failed, rc = 2 "},
        {"no hive", L"guest add-startup-script " + Q(dir / L"leer") + L" " + Q(script),
         "error: InjectScript failed, rc = 10 "},
    };
    for (const auto& c : failures) {
        const auto f = Kxha(c.args);
        EXPECT_NE(f.code, 0u) << c.what;
        EXPECT_TRUE(Has(f, c.shown)) << c.what << "\n" << f.out;
    }
    // The folders made for the copy went with it.
    EXPECT_FALSE(kxtest::Exists(dir / L"leer\\System32"));
}
