#include <gtest/gtest.h>

#include "common/dest_layout.h"
#include "kx_test.h"

using kxtest::ScratchDir;

TEST(SessionPath, BuildsTenDigitFolderWithOneSeparator) {
    std::wstring p;
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(L"E:\\backup\\host1", 17, p), 0u);
    EXPECT_EQ(p, L"E:\\backup\\host1\\VStore\\S0000000017");
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(L"E:\\b\\", 0, p), 0u);
    EXPECT_EQ(p, L"E:\\b\\VStore\\S0000000000");
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(L"", 1, p), 0x80070057u);
    EXPECT_EQ(kx::HA_GetKbSessPathByRootAndNum(nullptr, 1, p), 0x80070057u);
}

TEST(SessionPath, ParsesRootAndNumber) {
    std::wstring root;
    DWORD n = 0;
    EXPECT_TRUE(kx::GetRootAndSessNumFromPath(L"E:\\backup\\host1\\VStore\\S0000000017", root, &n));
    EXPECT_EQ(root, L"E:\\backup\\host1");
    EXPECT_EQ(n, 17u);
    // Fewer digits are accepted, lower case too; the out number is optional.
    EXPECT_TRUE(kx::GetRootAndSessNumFromPath(L"\\\\srv\\share\\VStore\\s12", root, nullptr));
    EXPECT_EQ(root, L"\\\\srv\\share");
    EXPECT_TRUE(kx::GetRootAndSessNumFromPath(L"D:\\x\\VStore\\S12", root, &n));
    EXPECT_EQ(n, 12u);
    // No "VStore", or "VStore" within the first two characters: empty root.
    EXPECT_TRUE(kx::GetRootAndSessNumFromPath(L"C:\\sessions\\S0000000003", root, &n));
    EXPECT_EQ(root, L"");
    EXPECT_EQ(n, 3u);
    EXPECT_TRUE(kx::GetRootAndSessNumFromPath(L"VStore\\S5", root, &n));
    EXPECT_EQ(root, L"");
    // A last component that is no session folder.
    EXPECT_FALSE(kx::GetRootAndSessNumFromPath(L"E:\\b\\VStore\\T0000000001", root, &n));
    EXPECT_FALSE(kx::GetRootAndSessNumFromPath(L"E:\\b\\VStore\\S", root, &n));
    EXPECT_FALSE(kx::GetRootAndSessNumFromPath(L"E:\\b\\VStore\\Sabc", root, &n));
    EXPECT_FALSE(kx::GetRootAndSessNumFromPath(L"E:\\b\\VStore\\", root, &n));
    EXPECT_FALSE(kx::GetRootAndSessNumFromPath(nullptr, root, &n));
}

TEST(DestinationRoots, HeaderRootFromLeafIni) {
    ScratchDir d;
    std::wstring header;
    // No file: "default" applies, empty answer and a non-zero code.
    EXPECT_NE(kx::GetHeaderRoot(d.path().c_str(), header), 0u);
    EXPECT_EQ(header, L"");

    kxtest::WriteText(d / L"leaf_root.ini", "[HEADER LOCATION]\r\nHeader=DEFAULT\r\n");
    EXPECT_NE(kx::GetHeaderRoot(d.path().c_str(), header), 0u);
    EXPECT_EQ(header, L"");

    kxtest::WriteText(d / L"leaf_root.ini", "[HEADER LOCATION]\r\nHeader=\\\\nas\\head\r\n");
    EXPECT_EQ(kx::GetHeaderRoot(d.path().c_str(), header), 0u);
    EXPECT_EQ(header, L"\\\\nas\\head");
}

TEST(DestinationRoots, LeafRootsFromHeaderIni) {
    ScratchDir d;
    std::vector<std::wstring> roots;
    // No header_root.ini: the root alone.
    EXPECT_EQ(kx::GetLeafRoots(d.path().c_str(), roots), 0u);
    EXPECT_EQ(roots, std::vector<std::wstring>{d.path()});

    kxtest::WriteText(d / L"header_root.ini", "[LEAF COUNT]\r\nCount=0\r\n");
    roots.clear();
    EXPECT_EQ(kx::GetLeafRoots(d.path().c_str(), roots), 0u);
    EXPECT_TRUE(roots.empty());

    kxtest::WriteText(d / L"header_root.ini",
                      "[LEAF COUNT]\r\nCount=2\r\n[LEAF LOCATION]\r\nLeaf0=E:\\leaf0\r\nLeaf1=F:\\leaf1\r\n");
    roots.clear();
    EXPECT_EQ(kx::GetLeafRoots(d.path().c_str(), roots), 0u);
    EXPECT_EQ(roots, (std::vector<std::wstring>{L"E:\\leaf0", L"F:\\leaf1"}));

    // A Count larger than the leaves present: what was read stays, non-zero code.
    kxtest::WriteText(d / L"header_root.ini", "[LEAF COUNT]\r\nCount=3\r\n[LEAF LOCATION]\r\nLeaf0=E:\\leaf0\r\n");
    roots.clear();
    EXPECT_NE(kx::GetLeafRoots(d.path().c_str(), roots), 0u);
    EXPECT_EQ(roots, std::vector<std::wstring>{L"E:\\leaf0"});

    // An empty ini file reads as Count 0.
    kxtest::WriteText(d / L"header_root.ini", "");
    roots.clear();
    EXPECT_EQ(kx::GetLeafRoots(d.path().c_str(), roots), 0u);
    EXPECT_TRUE(roots.empty());
}
