// kxha iso create: the image it reports and writes, and its refusals.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;

TEST(KxhaIso, CreatesTheImageOrSaysWhyNot) {
    kxtest::ScratchDir dir;
    kxtest::MakeDirs(dir / L"Tools ä\\scripts");
    kxtest::WriteText(dir / L"Tools ä\\scripts\\run.cmd", "@echo off\r\n");
    kxtest::WriteText(dir / L"Tools ä\\readme.txt", std::string(5000, 'r'));

    auto r = Kxha(L"iso create " + Q(dir / L"Tools ä") + L" " + Q(dir / L"tools.iso") + L" --volume \"VM TOOLS\"");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "tools.iso: ")) << r.out;
    EXPECT_TRUE(Has(r, " bytes, 2 files and 2 folders, volume VM TOOLS\n")) << r.out;
    const std::vector<uint8_t> iso = kxtest::ReadBytes(dir / L"tools.iso");
    ASSERT_GT(iso.size(), 18u * 2048);
    EXPECT_EQ(std::string(iso.begin() + 16 * 2048 + 1, iso.begin() + 16 * 2048 + 6), "CD001");
    EXPECT_EQ(std::string(iso.begin() + 16 * 2048 + 40, iso.begin() + 16 * 2048 + 48), "VM_TOOLS");
    EXPECT_TRUE(Has(r, std::to_string(iso.size()) + " bytes")) << r.out;

    const struct {
        std::wstring args;
        DWORD code;
        const char* shown;
    } refusals[] = {
        {L"iso create " + Q(dir / L"none") + L" " + Q(dir / L"x.iso"), 1, "rc = 3 (0x00000003): no folder"},
        {L"iso create " + Q(dir / L"Tools ä") + L" " + Q(dir / L"no\\x.iso"), 1, "no image was written to"},
        {L"iso create " + Q(dir / L"Tools ä"), 2, "usage: kxha iso create"},
        {L"iso", 2, "usage: kxha iso create"},
    };
    for (const auto& c : refusals) {
        r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << r.out;
        EXPECT_TRUE(Has(r, c.shown)) << r.out;
    }
}
