// vcm.ini, the session read/write folder and intact sessions, through the DLL.
#include <gtest/gtest.h>

#include "KestrixHA/session.h"
#include "../bitmap/bitmap_test_util.h"
#include "kx_test.h"

using kxtest::ScratchDir;

namespace {
class Vcm : public ::testing::Test {
protected:
    ScratchDir install;
    void SetUp() override { kxtest::SetRegValue(kxtest::kInstallPathKey, L"Path", install.path()); }
    std::wstring Ini() { return install / L"Configuration\\vcm.ini"; }
};

// The intact sessions of a destination.
std::vector<unsigned> Intact(const std::wstring& root) {
    IntactSessionListHandle* h = nullptr;
    EXPECT_EQ(MVCM_OpenIntactSessionListHandle(root.c_str(), &h), 0u);
    unsigned got[16] = {}, count = 0;
    EXPECT_EQ(MVCM_QueryIntactSessionList(h, got, 16, &count), 0u);
    MVCM_CloseIntactSessionListHandle(h);
    return {got, got + count};
}
}  // namespace

TEST_F(Vcm, NoFileMeansManualOffAndAWrittenFileReadsBack) {
    VCMConfigure c{true, L"junk"};
    ASSERT_EQ(ReadVCMConfigure(&c), 0u);
    EXPECT_FALSE(c.manualVCM);
    EXPECT_EQ(c.indexFolder, L"");
    std::wstring rw;
    ASSERT_EQ(MVCM_GetSessionRWFolder(L"E:\\d\\VStore\\S0000000003", rw), 0u);
    EXPECT_EQ(rw, L"E:\\d\\VStore\\S0000000003");
    EXPECT_EQ(ReadVCMConfigure(nullptr), 0x80070057u);

    // A written file is UTF-16 with its mark and reads back.
    const VCMConfigure in{true, L"F:\\idx\\\u00e9t\u00e9"};
    ASSERT_EQ(WriteVCMConfigure(&in), 0u);
    const auto bytes = kxtest::ReadBytes(Ini());
    ASSERT_GE(bytes.size(), 2u);
    EXPECT_TRUE(bytes[0] == 0xFF && bytes[1] == 0xFE);
    ASSERT_EQ(ReadVCMConfigure(&c), 0u);
    EXPECT_TRUE(c.manualVCM);
    EXPECT_EQ(c.indexFolder, in.indexFolder);

    // Rewriting replaces the section; the folder is only read in manual mode.
    const VCMConfigure off{false, L""};
    ASSERT_EQ(WriteVCMConfigure(&off), 0u);
    ASSERT_EQ(ReadVCMConfigure(&c), 0u);
    EXPECT_FALSE(c.manualVCM);
    EXPECT_EQ(c.indexFolder, L"");
}

TEST_F(Vcm, ManualModeDefaultsAndTranslatesSessionFolders) {
    kxtest::MakeDirs(install / L"Configuration");
    kxtest::WriteText(Ini(), "[Configuration]\r\nManualVCM=1\r\n");
    VCMConfigure c{};
    ASSERT_EQ(ReadVCMConfigure(&c), 0u);
    EXPECT_TRUE(c.manualVCM);
    EXPECT_EQ(c.indexFolder, kxtest::BinDir() + L"\\temp\\MVCM");

    std::wstring a, b, other;
    ASSERT_EQ(MVCM_GetSessionRWFolder(L"E:\\dest\\VStore\\S0000000003", a), 0u);
    ASSERT_EQ(MVCM_GetSessionRWFolder(L"e:\\DEST\\VStore\\S0000000003\\", b), 0u);
    ASSERT_EQ(MVCM_GetSessionRWFolder(L"F:\\dest\\VStore\\S0000000003", other), 0u);
    EXPECT_EQ(a, b);  // stable, whatever the case of the path
    EXPECT_NE(a, other);
    EXPECT_EQ(a.rfind(c.indexFolder + L"\\dest-", 0), 0u);
    EXPECT_EQ(a.substr(a.size() - 12), L"\\S0000000003");
    EXPECT_NE(MVCM_GetSessionRWFolder(L"E:\\dest\\no-session", a), 0u);
}

TEST(IntactSessions, TenSessionsWithBackupRunning) {
    ScratchDir d;
    for (unsigned n = 1; n <= 10; ++n)
        kxtest::WriteBackupInfo(d.path() + L"\\VStore\\S" + std::wstring(9 - (n >= 10), L'0') + std::to_wstring(n), n,
                                n == 1 ? "Full" : "Incremental");
    kxtest::WriteText(d / L"backup.lck", "");  // (sessions in a merge are left out in kxha_test)

    kxtest::LogCursor log;
    IntactSessionListHandle* h = nullptr;
    ASSERT_EQ(MVCM_OpenIntactSessionListHandle(d.path().c_str(), &h), 0u);
    unsigned count = 99;
    EXPECT_EQ(MVCM_QueryIntactSessionList(h, nullptr, 0, &count), 234u);
    EXPECT_EQ(count, 9u);
    MVCM_CloseIntactSessionListHandle(h);
    EXPECT_EQ(Intact(d.path()), (std::vector<unsigned>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_TRUE(log.Contains(L"MVCM_GetIntactSessions, session " + d.path() + L"\\VStore\\S0000000010 is under backup, skip it"));

    // Without backup.lck the newest stays when it is finished, goes when it is not.
    ::DeleteFileW((d / L"backup.lck").c_str());
    EXPECT_EQ(Intact(d.path()).size(), 10u);
    kxtest::WriteBackupInfo(d / L"VStore\\S0000000010", 10, "Incremental", "Active");
    EXPECT_EQ(Intact(d.path()).size(), 9u);
}

TEST(IntactSessions, BadArgumentsAndEmptyDestinations) {
    ScratchDir d;
    IntactSessionListHandle* h = nullptr;
    EXPECT_EQ(MVCM_OpenIntactSessionListHandle(nullptr, &h), 0x80070057u);
    EXPECT_EQ(MVCM_OpenIntactSessionListHandle(d.path().c_str(), nullptr), 0x80070057u);
    EXPECT_EQ(MVCM_OpenIntactSessionListHandle((d.path() + L"\\missing").c_str(), &h), 2u);
    unsigned count = 5;
    EXPECT_EQ(MVCM_QueryIntactSessionList(nullptr, nullptr, 0, &count), 0x80004003u);
    // An empty list needs no buffer.
    ASSERT_EQ(MVCM_OpenIntactSessionListHandle(d.path().c_str(), &h), 0u);
    EXPECT_EQ(MVCM_QueryIntactSessionList(h, nullptr, 0, &count), 0u);
    EXPECT_EQ(count, 0u);
    MVCM_CloseIntactSessionListHandle(h);
    MVCM_CloseIntactSessionListHandle(nullptr);
}
