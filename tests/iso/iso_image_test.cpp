// Images made through the exported class and CreateIsoImage by the
// built-in writer (Wine has no image service). The images and their source
// trees are left in KX_ISO_OUT, where check_images.py has xorriso, osirrox,
// isoinfo and isovfy read them.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/iso.h"
#include "common/unique_resource.h"
#include "kx_test.h"

namespace {

std::wstring Out() {
    static const std::wstring dir = [] {
        std::wstring p = L"Z:" + std::wstring(KX_ISO_OUT, KX_ISO_OUT + sizeof(KX_ISO_OUT) - 1);
        for (auto& c : p)
            if (c == L'/') c = L'\\';
        kxtest::MakeDirs(p);
        return p;
    }();
    return dir;
}

// A fresh folder in the output area.
std::wstring Fresh(const std::wstring& name) {
    const std::wstring p = Out() + L"\\" + name;
    std::string ignored;
    kxtest::RunCapture(L"cmd /c rmdir /s /q \"" + p + L"\"", &ignored);
    kxtest::MakeDirs(p);
    return p;
}

std::string Pattern(size_t n, int seed) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 31 + seed * 17 + (i >> 9)) & 0xFF);
    return s;
}

class IsoImages : public ::testing::Test {
protected:
    void SetUp() override { ::CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
    void TearDown() override { ::CoUninitialize(); }
};

// Deep folders, hundreds of files, blanks, non-ASCII and long names, empty
// files and folders.
TEST_F(IsoImages, TreesOfEveryKind) {
    const std::wstring tree = Fresh(L"tree");
    std::wstring deep = tree;
    for (int level = 0; level < 20; ++level) {
        deep += L"\\level " + std::to_wstring(level);
        kxtest::MakeDirs(deep);
        kxtest::WriteText(deep + L"\\file at " + std::to_wstring(level) + L".txt", Pattern(100 * level, level));
    }
    kxtest::MakeDirs(tree + L"\\many files");
    for (int i = 0; i < 300; ++i)
        kxtest::WriteText(tree + L"\\many files\\entry " + std::to_wstring(i) + L".dat", Pattern((i * 733) % 7000, i));
    kxtest::WriteText(tree + L"\\Ünïcödé ☃ 日本語 файл.txt", Pattern(3000, 1));
    kxtest::WriteText(tree + L"\\" + std::wstring(64, L'n') + L"", Pattern(10, 2));
    kxtest::WriteText(tree + L"\\" + std::wstring(80, L'o') + L".long", Pattern(11, 3));
    kxtest::WriteText(tree + L"\\empty file.bin", "");
    kxtest::WriteText(tree + L"\\exactly 2048.bin", Pattern(2048, 4));
    kxtest::MakeDirs(tree + L"\\empty folder");
    kxtest::MakeDirs(tree + L"\\nested empty\\inner empty");

    IMAPIWrapper::FileSystemImage image;
    EXPECT_EQ(image.SetVolumeName(L"KX Tools"), 0u);
    EXPECT_EQ(image.AddDirectory(tree, true), 0u);
    EXPECT_EQ(image.CreateImage(Out() + L"\\tree.iso"), 0u);
    EXPECT_TRUE(kxtest::Exists(Out() + L"\\tree.iso"));
    // A second image of the same object, after one more file.
    EXPECT_EQ(image.AddFile(tree + L"\\exactly 2048.bin"), 0u);
    EXPECT_EQ(image.CreateImage(Out() + L"\\tree-plus.iso"), 0u);

    EXPECT_EQ(CreateIsoImage(tree, L"ONE CALL", Out() + L"\\onecall.iso"), 0u);
}

TEST_F(IsoImages, FoldersWithAndWithoutTheirBase) {
    const std::wstring data = Fresh(L"data");
    kxtest::WriteText(data + L"\\f1.txt", "first");
    kxtest::MakeDirs(data + L"\\sub");
    kxtest::WriteText(data + L"\\sub\\f2.txt", "second");
    {
        IMAPIWrapper::FileSystemImage image;
        EXPECT_EQ(image.AddDirectory(data, true), 0u);
        EXPECT_EQ(image.CreateImage(Out() + L"\\base.iso"), 0u);
    }
    {
        IMAPIWrapper::FileSystemImage image;
        EXPECT_EQ(image.AddDirectory(std::vector<std::wstring>{data}, false), 0u);
        EXPECT_EQ(image.CreateImage(Out() + L"\\nobase.iso"), 0u);
        // The same contents again clash with what is there: the service's code, nothing added.
        EXPECT_EQ(image.AddDirectory(data, false), 0xC0AAB112u);
    }
}

TEST_F(IsoImages, ListsStopAtTheFirstFailure) {
    const std::wstring files = Fresh(L"files");
    kxtest::WriteText(files + L"\\a.txt", "a");
    kxtest::WriteText(files + L"\\c.txt", "c");
    IMAPIWrapper::FileSystemImage image;
    EXPECT_EQ(image.AddFile(std::vector<std::wstring>{}), 0u);
    EXPECT_EQ(image.AddDirectory(std::vector<std::wstring>{}, true), 0u);
    EXPECT_EQ(image.AddFile({files + L"\\a.txt", files + L"\\b.txt", files + L"\\c.txt"}), 87u);
    EXPECT_EQ(image.AddDirectory({files, files + L"\\none", files}, false), 0xC0AAB112u);  // a.txt is there
    EXPECT_EQ(image.AddDirectory({files + L"\\none"}, false), 87u);
    EXPECT_EQ(image.AddFile(L""), 87u);
    EXPECT_EQ(image.AddDirectory(L"", true), 87u);
    EXPECT_EQ(image.CreateImage(L""), 87u);
    EXPECT_EQ(image.CreateImage(Out() + L"\\three.iso"), 0u);
}

TEST_F(IsoImages, CreateIsoImageEdges) {
    EXPECT_EQ(CreateIsoImage(Out() + L"\\no such folder", L"", Out() + L"\\missing-source.iso"), 0u);
    EXPECT_TRUE(kxtest::Exists(Out() + L"\\missing-source.iso"));
    EXPECT_EQ(CreateIsoImage(Out() + L"\\data", L"X", L""), 87u);
    EXPECT_EQ(CreateIsoImage(Out() + L"\\data", L"X", Out() + L"\\no such folder\\x.iso"), 0u);
    EXPECT_FALSE(kxtest::Exists(Out() + L"\\no such folder\\x.iso"));
}

TEST_F(IsoImages, UnreadableAndChangingSources) {
    kxtest::ScratchDir dir;
    kxtest::MakeDirs(dir / L"src");
    kxtest::WriteText(dir / L"src\\locked.bin", "locked");
    kxtest::WriteText(dir / L"src\\free.bin", "free");
    {
        kx::unique_hfile lock(::CreateFileW((dir / L"src\\locked.bin").c_str(), GENERIC_READ, 0, nullptr,
                                            OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(lock);
        IMAPIWrapper::FileSystemImage image;
        EXPECT_EQ(image.AddFile(dir / L"src\\locked.bin"), 0x80070020u);
        EXPECT_EQ(image.AddDirectory(dir / L"src", true), 0x80070020u);
        EXPECT_EQ(image.AddFile(dir / L"src\\free.bin"), 0u);
    }
    // A file that changes between its addition and the writing of the image:
    // the result stays 0 and no image file is left. The image holds its
    // files open from their addition, sharing them with writers; a program
    // that wants one exclusively meanwhile is refused.
    kxtest::LogCursor log;
    auto open = [&](const wchar_t* name, DWORD access, DWORD share) {
        return kx::unique_hfile(
            ::CreateFileW((dir / name).c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr));
    };
    const DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    {
        IMAPIWrapper::FileSystemImage image;
        EXPECT_EQ(image.AddDirectory(dir / L"src", false), 0u);
        EXPECT_FALSE(open(L"src\\free.bin", GENERIC_WRITE, 0));
        {
            kx::unique_hfile writer = open(L"src\\free.bin", GENERIC_WRITE, shareAll);
            ASSERT_TRUE(writer);
            DWORD put = 0;
            ASSERT_TRUE(::SetFilePointer(writer.get(), 0, nullptr, FILE_END) != INVALID_SET_FILE_POINTER);
            ASSERT_TRUE(::WriteFile(writer.get(), ", and longer now", 16, &put, nullptr));
        }
        EXPECT_EQ(image.CreateImage(dir / L"changed.iso"), 0u);
        EXPECT_FALSE(kxtest::Exists(dir / L"changed.iso"));
        EXPECT_TRUE(log.Contains(L"free.bin] changed while the image was made"));
        EXPECT_TRUE(log.Contains(L"the partial file is removed"));
    }
    EXPECT_TRUE(open(L"src\\free.bin", GENERIC_WRITE, 0));
    // A file renamed after its addition is written from the handle kept since.
    IMAPIWrapper::FileSystemImage again;
    EXPECT_EQ(again.AddDirectory(dir / L"src", false), 0u);
    ASSERT_TRUE(::MoveFileW((dir / L"src\\locked.bin").c_str(), (dir / L"moved.bin").c_str()));
    EXPECT_EQ(again.CreateImage(dir / L"moved.iso"), 0u);
    EXPECT_TRUE(kxtest::Exists(dir / L"moved.iso"));
}

}  // namespace
