// The bitmap writer's refusals: bad paths, a missing disk, an encrypted
// session and one without a description. (Bitmap files copied from real VHD
// chains, and a damaged disk, are checked in vhd_destination_test.)
#include <gtest/gtest.h>

#include "bitmap/zek_bitmap_writer.h"
#include "bitmap_test_util.h"

using kxtest::ScratchDir;

TEST(BitmapWriter, FailuresAreLoggedAndReturnedWithoutABitmapFile) {
    ScratchDir dest, target;
    const std::wstring session = dest.path() + L"\\VStore\\S0000000007";
    auto write = [&] {
        return kx::bitmap::CreateBitmap4ZekFile(session.c_str(), target.path().c_str(), L"disk0000000001.zek", 0);
    };
    kxtest::LogCursor log;
    EXPECT_EQ(kx::bitmap::CreateBitmap4ZekFile(nullptr, L"x", L"y", 0), 87u);
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile(NULL, x, y) starts"));
    EXPECT_EQ(kx::bitmap::CreateBitmap4ZekFile(L"C:\\VStore\\S1", L"C:", L"a.z", 0), 87u);  // "C:\a.z"
    EXPECT_EQ(kx::bitmap::CreateBitmap4ZekFile(L"C:\\plain", target.path().c_str(), L"disk0000000001.zek", 0),
              0xFFFFFFFFu);
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() failed to get root and sess_num from path [C:\\plain]"));

    // No description at all, or an encrypted session (the built-in backup
    // core has no password to give): no bitmap file.
    kxtest::MakeDirs(session);
    EXPECT_EQ(write(), 2u);
    kxtest::WriteBackupInfo(session, 7, "Incremental", "Finished", 1);
    EXPECT_EQ(write(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() CalcFileSize2Send, Get session pwd failed, rc = 50"));
    EXPECT_FALSE(kxtest::Exists(target / L"disk0000000001.Bitmap"));
    // A described session whose disk is missing.
    kxtest::WriteBackupInfo(session, 7, "Incremental");
    EXPECT_EQ(write(), 2u);
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile(): Open Zek VHD [" + session + L"\\disk0000000001.zek] failed, rc = 0x00000002"));
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() finished, ret = [2]"));
}
