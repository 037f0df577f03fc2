#include <gtest/gtest.h>

#include "common/dest_layout.h"
#include "kx_test.h"

using kxtest::ScratchDir;
using Roots = std::vector<std::wstring>;

TEST(SessionPath, BuildsTenDigitFolderWithOneSeparator) {
    std::wstring p;
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(L"E:\\b\\", 0, p), 0u);
    EXPECT_EQ(p, L"E:\\b\\VStore\\S0000000000");
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(L"", 1, p), 0x80070057u);
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(nullptr, 1, p), 0x80070057u);
}

TEST(SessionPath, ParsesRootAndNumber) {
    struct Case {
        const wchar_t* path;
        bool ok;
        const wchar_t* root = L"";
        DWORD number = 0;
    };
    for (const Case& c : {
             Case{L"E:\\backup\\host1\\VStore\\S0000000017", true, L"E:\\backup\\host1", 17},
             // Fewer digits are accepted, lower case too.
             Case{L"\\\\srv\\share\\VStore\\s12", true, L"\\\\srv\\share", 12},
             // No "VStore", or "VStore" within the first two characters: empty root.
             Case{L"C:\\sessions\\S0000000003", true, L"", 3},
             Case{L"VStore\\S5", true, L"", 5},
             // A last component that is no session folder.
             Case{L"E:\\b\\VStore\\T0000000001", false},
             Case{L"E:\\b\\VStore\\Sabc", false},
             Case{L"E:\\b\\VStore\\", false},
             Case{nullptr, false},
         }) {
        std::wstring root = L"?";
        DWORD n = 0;
        ASSERT_EQ(kx::GetRootAndSessNumFromPath(c.path, root, &n), c.ok) << (c.path ? kxtest::Narrow(c.path) : "null");
        if (!c.ok) continue;
        EXPECT_EQ(root, c.root);
        EXPECT_EQ(n, c.number);
    }
    std::wstring root;
    EXPECT_TRUE(kx::GetRootAndSessNumFromPath(L"D:\\x\\VStore\\S12", root, nullptr));  // the number is optional
}

TEST(DestinationRoots, HeaderRootFromLeafIni) {
    ScratchDir d;
    // No file, or "default": empty answer and a non-zero code.
    for (auto [ini, expected] : {std::pair{static_cast<const char*>(nullptr), L""},
                                 {"[HEADER LOCATION]\r\nHeader=DEFAULT\r\n", L""},
                                 {"[HEADER LOCATION]\r\nHeader=\\\\nas\\head\r\n", L"\\\\nas\\head"}}) {
        if (ini) kxtest::WriteText(d / L"leaf_root.ini", ini);
        std::wstring header;
        EXPECT_EQ(kx::GetHeaderRoot(d.path().c_str(), header) == 0, *expected != 0) << (ini ? ini : "no file");
        EXPECT_EQ(header, expected);
    }
}

TEST(DestinationRoots, LeafRootsFromHeaderIni) {
    ScratchDir d;
    Roots roots;
    // No header_root.ini: the root alone.
    EXPECT_EQ(kx::GetLeafRoots(d.path().c_str(), roots), 0u);
    EXPECT_EQ(roots, Roots{d.path()});
    struct Case {
        const char* ini;
        bool ok;
        Roots roots;
    };
    for (const Case& c : {
             Case{"[LEAF COUNT]\r\nCount=0\r\n", true, {}},
             Case{"[LEAF COUNT]\r\nCount=2\r\n[LEAF LOCATION]\r\nLeaf0=E:\\leaf0\r\nLeaf1=F:\\leaf1\r\n", true,
                  {L"E:\\leaf0", L"F:\\leaf1"}},
             // A Count larger than the leaves present: what was read stays.
             Case{"[LEAF COUNT]\r\nCount=3\r\n[LEAF LOCATION]\r\nLeaf0=E:\\leaf0\r\n", false, {L"E:\\leaf0"}},
             Case{"", true, {}},  // reads as Count 0
         }) {
        kxtest::WriteText(d / L"header_root.ini", c.ini);
        roots.clear();
        EXPECT_EQ(kx::GetLeafRoots(d.path().c_str(), roots) == 0, c.ok) << c.ini;
        EXPECT_EQ(roots, c.roots) << c.ini;
    }
}
