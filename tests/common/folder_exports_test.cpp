// DestroyDirectory and GetFileListByPattern, called through the DLL.
#include <gtest/gtest.h>

#include <algorithm>

#include "KestrixHA.h"
#include "kx_test.h"

using kxtest::ScratchDir;

namespace {
void MakeTree(const std::wstring& root) {
    kxtest::MakeDirs(root + L"\\a\\b");
    kxtest::WriteText(root + L"\\f1.txt", "1");
    kxtest::WriteText(root + L"\\a\\f2.txt", "2");
    kxtest::WriteText(root + L"\\a\\b\\f3.txt", "3");
}
}  // namespace

TEST(DestroyDirectory, BadInputGetsClearCodes) {
    ScratchDir d;
    kxtest::LogCursor log;
    EXPECT_EQ(DestroyDirectory(nullptr), 87u);
    EXPECT_EQ(DestroyDirectory(L""), 87u);
    EXPECT_TRUE(log.Contains(L"DestroyDirectory() failed due to invalid parameter"));

    const std::wstring missing = d / L"missing";
    EXPECT_EQ(DestroyDirectory(missing.c_str()), 5u);
    EXPECT_TRUE(log.Contains(L"DestroyDirectory() failed: [" + missing + L"] doesn't exist or no permission to destroy"));

    // At and beyond MAX_PATH: refused before anything is touched.
    std::wstring longPath = d.path() + L"\\" + std::wstring(MAX_PATH, L'x');
    EXPECT_EQ(DestroyDirectory(longPath.c_str()), static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE));
    longPath.resize(MAX_PATH);
    EXPECT_EQ(DestroyDirectory(longPath.c_str()), static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE));
}

// A read-only file stops the call and stays; without it the tree goes.
TEST(DestroyDirectory, RemovesTreeUnlessAFileIsReadOnly) {
    ScratchDir d;
    const std::wstring victim = d / L"victim";
    MakeTree(victim);
    const std::wstring locked = victim + L"\\a\\b\\f3.txt";
    ASSERT_TRUE(::SetFileAttributesW(locked.c_str(), FILE_ATTRIBUTE_READONLY));
    kxtest::LogCursor log;
    EXPECT_EQ(DestroyDirectory(victim.c_str()), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(kxtest::Exists(locked));
    EXPECT_TRUE(log.Contains(L"DestroyDirectory() failed to DeleteFileW(" + locked + L"), rc = [5]"));

    ASSERT_TRUE(::SetFileAttributesW(locked.c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(DestroyDirectory(victim.c_str()), 0u);
    EXPECT_FALSE(kxtest::Exists(victim));
    EXPECT_TRUE(log.Contains(L"DestroyDirectory() finished, rc = [0]"));
}

TEST(GetFileListByPattern, ListsMatchesWithTheirFolder) {
    ScratchDir d;
    MakeTree(d.path());
    kxtest::WriteText(d / L"g.bin", "");
    std::vector<std::wstring> files{L"kept"};
    ASSERT_EQ(GetFileListByPattern((d.path() + L"\\*.txt").c_str(), files), 0u);
    EXPECT_EQ(files, (std::vector<std::wstring>{L"kept", d / L"f1.txt"}));

    // Folders that match are listed too, "." and ".." never.
    files.clear();
    ASSERT_EQ(GetFileListByPattern((d.path() + L"\\*").c_str(), files), 0u);
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::wstring>{d / L"a", d / L"f1.txt", d / L"g.bin"}));
}

TEST(GetFileListByPattern, BadPatternsAndNoMatch) {
    ScratchDir d;
    std::vector<std::wstring> files;
    kxtest::LogCursor log;
    EXPECT_EQ(GetFileListByPattern(L"*.txt", files), 87u);
    EXPECT_TRUE(log.Contains(L"GetFileListByPattern() failed due to incorrect pattern [*.txt]"));
    EXPECT_EQ(GetFileListByPattern(nullptr, files), 87u);
    const std::wstring tooLong = d.path() + L"\\" + std::wstring(MAX_PATH, L'y');
    EXPECT_EQ(GetFileListByPattern(tooLong.c_str(), files), 87u);

    const std::wstring none = d.path() + L"\\*.nothing";
    EXPECT_EQ(GetFileListByPattern(none.c_str(), files), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(log.Contains(L"GetFileListByPattern() failed to FindFirstFile(" + none + L"), rc = [2]"));
    EXPECT_TRUE(files.empty());
}
