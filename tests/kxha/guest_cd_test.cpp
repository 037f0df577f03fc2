// kxha guest cd-letter on fixture guests (real hive files): the letters it
// prints as freed and reserved, nothing left to do the second time, and
// refusals with their codes.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;

TEST(KxhaGuestCd, PrintsTheLettersOrTheRefusal) {
    const struct {
        const char* hive;
        const wchar_t* letter;
        DWORD code;
        std::string shown;
    } cases[] = {
        {"cd-volumes-system.hive", L"E:", 0, "- \\DosDevices\\E: (old CD-ROM entry removed)\n"},
        {"cd-volumes-system.hive", L"h", 0, "+ \\DosDevices\\F: (reserved)\n"},
        {"cd-nocd-system.hive", L"D", 0, "no changes\n"},
        {"cd-volumes-system.hive", L"G", 1, "rc = 85 (0x00000055): drive letter G: belongs to a volume"},
        {"cd-volumes-system.hive", L"EE", 1, "rc = 87 (0x00000057): not a drive letter: EE"},
        {"", L"E", 1, "AdjustVirtualCDDriveLetter_HyperV failed, rc = 10 (0x0000000A)"},
    };
    for (const auto& c : cases) {
        kxtest::ScratchDir dir;
        const std::wstring windows = dir / L"Gäst Ω\\Windows";
        kxtest::MakeDirs(windows + L"\\system32\\config");
        if (*c.hive) kxhatest::Put(c.hive, windows + L"\\system32\\config\\system");
        const auto r = Kxha(L"guest cd-letter " + Q(windows) + L" " + c.letter);
        EXPECT_EQ(r.code != 0, c.code != 0) << c.hive << " " << r.out;
        EXPECT_TRUE(Has(r, c.shown)) << c.hive << "\n" << r.out;
        if (c.code == 0) {
            EXPECT_EQ(Kxha(L"guest cd-letter " + Q(windows) + L" " + c.letter).out, "no changes\n");
        }
    }
    EXPECT_TRUE(Has(Kxha(L"guest cd-letter " + Q(L"C:\\nicht da") + L" E"), "no Windows folder"));
}
