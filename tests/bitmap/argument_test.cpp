// Arguments from callers that would reach outside the folders they are meant
// for, or name nothing: each export refuses them before it creates anything,
// and a missing destination is one code and one line.
#include <gtest/gtest.h>

#include <functional>

#include "KestrixHA/bitmap_catalogue.h"
#include "bitmap_test_util.h"

using kxtest::ScratchDir;

namespace {

// Every entry below `folder`, recursively, as relative paths.
void Walk(const std::wstring& folder, const std::wstring& rel, std::vector<std::wstring>& out) {
    WIN32_FIND_DATAW fd;
    HANDLE h = ::FindFirstFileW((folder + L"\\*").c_str(), &fd);
    if (h == INVALID_HANDLE_VALUE) return;
    do {
        const std::wstring name = fd.cFileName;
        if (name == L"." || name == L"..") continue;
        out.push_back(rel + name);
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) Walk(folder + L"\\" + name, rel + name + L"\\", out);
    } while (::FindNextFileW(h, &fd));
    ::FindClose(h);
}

}  // namespace

TEST(BitmapArguments, EmptyFoldersAndEscapingNamesAreRefusedBeforeAnythingIsMade) {
    ScratchDir d;
    const std::wstring dest = d / L"dest", sessions = dest + L"\\VStore", bitmaps = d / L"bitmaps";
    kxtest::WriteBackupInfo(sessions + L"\\S0000000001", 1, "Full");
    kxtest::MakeDirs(bitmaps);
    std::vector<std::wstring> before;
    Walk(d.path(), L"", before);
    // The current folder is where an empty folder argument would have written.
    wchar_t cwd[MAX_PATH];
    ::GetCurrentDirectoryW(MAX_PATH, cwd);
    ::SetCurrentDirectoryW(d.path().c_str());

    SessionBitmapCheck check{};
    std::vector<std::wstring> list;
    const struct {
        const char* what;
        std::function<DWORD()> call;
    } cases[] = {
        {"zek: empty target", [&] { return CreateBitmap4ZekFile(sessions.c_str(), L"", L"disk0000000001.zek", 0); }},
        {"zek: empty source", [&] { return CreateBitmap4ZekFile(L"", bitmaps.c_str(), L"disk0000000001.zek", 0); }},
        {"zek: escaping name", [&] { return CreateBitmap4ZekFile(sessions.c_str(), bitmaps.c_str(), L"..\\..\\x.zek", 0); }},
        {"session: empty target", [&] { return CreateBitmap4Session(sessions.c_str(), L"", L"S0000000001", 0); }},
        {"session: escaping name",
         [&] { return CreateBitmap4SessionEx(sessions.c_str(), bitmaps.c_str(), L"..\\..\\..\\x", 0, 0, true); }},
        {"session: not a session", [&] { return CreateBitmap4Session(sessions.c_str(), bitmaps.c_str(), L"x", 0); }},
        {"dest: empty root", [&] { return CreateBitmap4BackupDest(L"", 0, nullptr); }},
        {"dest: empty bitmap root", [&] { return CreateBitmap4BackupDest(dest.c_str(), 0, L""); }},
        {"check: escaping session", [&] { return CheckSessionBitmap(dest.c_str(), L"..\\..\\dest", &check); }},
        {"disks: escaping session", [&] { return GetBitmapDiskList(dest.c_str(), L"..\\VStore", list); }},
        {"delete: escaping session", [&] { return DeleteSessionBitmap(dest.c_str(), L"..\\..\\x"); }},
    };
    for (const auto& c : cases) EXPECT_EQ(c.call(), static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << c.what;
    ::SetCurrentDirectoryW(cwd);

    std::vector<std::wstring> after;
    Walk(d.path(), L"", after);
    EXPECT_EQ(after, before);
    EXPECT_EQ(check.match, 0u);
}

TEST(BitmapArguments, AMissingDestinationIsPathNotFoundWithALine) {
    ScratchDir d;
    const std::wstring missing = d / L"nowhere";
    SessionBitmapCheck check{};
    std::vector<std::wstring> list;
    kxtest::LogCursor log;
    EXPECT_EQ(CheckSessionBitmap(missing.c_str(), L"S0000000001", &check), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(GetBitmapDiskList(missing.c_str(), L"S0000000001", list), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(GetSessionBitmapList(missing.c_str(), list), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(DetectAndRemoveObsolteBitmap(missing.c_str(), L"S0000000001", L"S0000000003"),
              static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(log.Matching(L"[" + missing + L"] doesn't exist").size(), 3u);
    // Each ends with its end line, failures included.
    EXPECT_TRUE(log.Contains(L"CheckSessionBitmap() finished, rc = [3]"));
    EXPECT_TRUE(log.Contains(L"GetBitmapDiskList() finished, rc = [3]"));
    EXPECT_TRUE(log.Contains(L"DetectAndRemoveObsolteBitmap() finished, rc = [3]"));
}
