#include <gtest/gtest.h>

#include "bitmap_test_util.h"
#include "platform/backup_info.h"

using kxtest::ScratchDir;

// UTF-8 descriptions are read by every test over a destination; here UTF-16.
TEST(BackupInfo, ReadsUtf16AndIgnoresUnknownElements) {
    ScratchDir d;
    kx::platform::BackupInfo info;
    const std::wstring xml16 =
        L"\xFEFF<?xml version=\"1.0\" encoding=\"utf-16\"?><BackupInfo><Extra><SessionNumber>9</SessionNumber></Extra>"
        L"<SessionNumber> 3 </SessionNumber><SessionGuid>{G}</SessionGuid><BackupKind>Full</BackupKind>"
        L"<Status>Active</Status><Encrypted>1</Encrypted></BackupInfo>";
    kxtest::WriteBytes(d / L"BackupInfo.XML", xml16.data(), xml16.size() * 2);
    ASSERT_EQ(kx::platform::ReadBackupInfo(d / L"BackupInfo.XML", &info), 0u);
    EXPECT_EQ(info.sessionNumber, 3u);
    EXPECT_TRUE(info.encrypted);
    EXPECT_TRUE(kx::platform::IsFullSession(d.path()));
    EXPECT_FALSE(kx::platform::IsSessionValid(d.path()));
}

TEST(BackupInfo, MissingOrBrokenFilesAreUnreadable) {
    ScratchDir d;
    kx::platform::BackupInfo info;
    EXPECT_EQ(kx::platform::ReadBackupInfo(d / L"BackupInfo.XML", &info), 2u);
    for (const char* text : {
             "<BackupInfo><SessionNumber>1</SessionNumber><SessionGuid>g</SessionGuid><BackupKind>Full</BackupKind></BackupInfo>",
             "<BackupInfo><SessionNumber>x1</SessionNumber><SessionGuid>g</SessionGuid><BackupKind>Full</BackupKind><Status>Finished</Status></BackupInfo>",
             "<Other><SessionNumber>1</SessionNumber><SessionGuid>g</SessionGuid><BackupKind>Full</BackupKind><Status>Finished</Status></Other>",
             "not xml at all"}) {
        kxtest::WriteText(d / L"BackupInfo.XML", text);
        EXPECT_EQ(kx::platform::ReadBackupInfo(d / L"BackupInfo.XML", &info), static_cast<DWORD>(ERROR_INVALID_DATA)) << text;
        EXPECT_FALSE(kx::platform::IsSessionValid(d.path()));
    }
}
