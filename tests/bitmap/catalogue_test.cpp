// Listing, checking and deleting prepared bitmap folders, and the edges of
// the union reader over hand-made bitmap files (unions of real chains are
// checked in vhd_destination_test, the list of all sessions in kxha_test).
#include <gtest/gtest.h>

#include <algorithm>

#include "KestrixHA/bitmap_catalogue.h"
#include "bitmap/bitmap_catalogue.h"
#include "bitmap_test_util.h"

using kxtest::ScratchDir;
using Names = std::vector<std::wstring>;

namespace {

std::wstring S(unsigned n) { return kxtest::SessionName(n); }

// A destination with prepared folders for `sessions` (and their sessions).
void Prepare(const std::wstring& root, std::initializer_list<unsigned> sessions) {
    for (unsigned n : sessions) {
        kxtest::WriteBackupInfo(root + L"\\VStore\\" + S(n), n, "Incremental");
        kxtest::WriteBackupInfo(root + L"\\VCM-bitmap\\" + S(n), n, "Incremental");
    }
}

Names Prepared(const std::wstring& root) {
    Names names;
    EXPECT_EQ(kx::bitmap::GetBitmapList4BackupDest(root.c_str(), names), 0u);
    std::sort(names.begin(), names.end());
    return names;
}

std::string LastSession(const std::wstring& root) {
    auto b = kxtest::ReadBytes(root + L"\\VCM-bitmap\\LastSession.vsb");
    return std::string(b.begin(), b.end());
}

}  // namespace

TEST(BitmapCatalogue, ListsAndChecksPreparedSessions) {
    ScratchDir d;
    Prepare(d.path(), {3, 4});
    kxtest::WriteText(d / L"VCM-bitmap\\S_not_a_folder", "");
    EXPECT_EQ(Prepared(d.path()), (Names{S(3), S(4)}));

    // A session with a disk and a description whose counterparts are checked.
    kxtest::WriteText(d / L"VStore\\S0000000004\\disk0000000001.zek", "x");
    kxtest::WriteText(d / L"VStore\\S0000000004\\notes.txt", "x");
    SessionBitmapCheck c{};
    ASSERT_EQ(CheckSessionBitmap(d.path().c_str(), S(4).c_str(), &c), 0u);
    EXPECT_EQ(c.sessionExists, 1u);
    EXPECT_EQ(c.bitmapExists, 1u);
    EXPECT_EQ(c.match, 0u);
    kxtest::WriteText(d / L"VCM-bitmap\\S0000000004\\disk0000000001.Bitmap", "x");
    ASSERT_EQ(CheckSessionBitmap(d.path().c_str(), S(4).c_str(), &c), 0u);
    EXPECT_EQ(c.match, 1u);
    ASSERT_EQ(CheckSessionBitmap(d.path().c_str(), S(9).c_str(), &c), 0u);
    EXPECT_EQ(c.sessionExists + c.bitmapExists + c.match, 0u);
    Names files;
    ASSERT_EQ(GetBitmapDiskList(d.path().c_str(), S(4).c_str(), files), 0u);
    EXPECT_EQ(files, Names{d.path() + L"\\VCM-bitmap\\S0000000004\\disk0000000001.Bitmap"});
}

TEST(BitmapCatalogue, DeleteUpToAndIncludingTheLimit) {
    ScratchDir d;
    Prepare(d.path(), {4, 5, 6});
    ASSERT_EQ(DeleteBitmap4BackupDest(d.path().c_str(), S(5).c_str()), 0u);
    EXPECT_EQ(Prepared(d.path()), Names{S(6)});

    // Through the path's destinations; the limit becomes the last converted session.
    ASSERT_EQ(DeleteSessionBitmap(d.path().c_str(), S(6).c_str()), 0u);
    EXPECT_TRUE(Prepared(d.path()).empty());
    EXPECT_EQ(LastSession(d.path()), "S0000000006");

    // No S folder left: the VCM-bitmap folder goes unless it holds other files.
    ASSERT_EQ(DeleteBitmap4BackupDest(d.path().c_str(), S(9).c_str()), 145u);
    ::DeleteFileW((d / L"VCM-bitmap\\LastSession.vsb").c_str());
    ASSERT_EQ(DeleteBitmap4BackupDest(d.path().c_str(), S(9).c_str()), 0u);
    EXPECT_FALSE(kxtest::Exists(d / L"VCM-bitmap"));
    EXPECT_EQ(DeleteBitmap4BackupDest(d.path().c_str(), S(9).c_str()), 2u);
}

TEST(BitmapCatalogue, DeleteAllMarksSessionZero) {
    ScratchDir d;
    Prepare(d.path(), {1, 2});
    ASSERT_EQ(DeleteSessionBitmap(d.path().c_str(), L""), 0u);
    EXPECT_TRUE(Prepared(d.path()).empty());
    EXPECT_EQ(LastSession(d.path()), "S0000000000");
    EXPECT_EQ(DeleteSessionBitmap(nullptr, nullptr), 87u);
}

// ---- the union reader over prepared bitmap files -------------------------

// A session of the range without a prepared folder ends the walk; bad
// arguments. (A walk ending at a full disk is checked on real chains in
// vhd_destination_test.)
TEST(UnionReader, MissingSessionsAndBadArguments) {
    ScratchDir d;
    for (unsigned n : {2u, 4u}) kxtest::WriteBackupInfo(d.path() + L"\\VStore\\" + S(n), n, "Incremental");
    kxtest::MakeDirs(d.path() + L"\\VCM-bitmap\\" + S(4));
    kxtest::WriteBitmapFile(d.path() + L"\\VCM-bitmap\\" + S(4) + L"\\disk0000000001.Bitmap", 100, std::vector<uint8_t>(13, 0x0F));
    const std::wstring disk = d.path() + L"\\VStore\\" + S(4) + L"\\disk0000000001.zek";
    IDiskBmpReader* r = reinterpret_cast<IDiskBmpReader*>(1);
    EXPECT_EQ(GetBitmapReader_IncsFromFull(disk.c_str(), 2, nullptr, &r), 2u);
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(GetBitmapReader_IncsFromFull(L"", 0, nullptr, &r), 0x80070057u);
    EXPECT_EQ(GetBitmapReader_IncsFromFull(disk.c_str(), 0, nullptr, nullptr), 0x80070057u);
}
