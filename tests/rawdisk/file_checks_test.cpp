// Compression and encryption of files and volumes, asked of the real file
// system under Wine. Wine reports neither attribute: its file systems refuse
// FSCTL_SET_COMPRESSION, its EncryptFileW changes nothing, and its volumes
// carry no FILE_VOLUME_IS_COMPRESSED. The expectations follow what the file
// system itself accepted, and the attributes are compared with what a
// directory listing (FindFirstFileW, another route into the file system)
// says of the same file.
#include <gtest/gtest.h>

#include <windows.h>
#include <winioctl.h>

#include "disk/raw_checks.h"
#include "kx_test.h"

namespace {

using kxtest::LogCursor;
namespace d = kx::disk;

constexpr DWORD kInvalidArg = 0x80070057;

DWORD ListedAttributes(const std::wstring& path) {
    WIN32_FIND_DATAW data{};
    kx::unique_hfind find(::FindFirstFileW(path.c_str(), &data));
    return find ? data.dwFileAttributes : 0;
}

// A drive letter no volume has.
std::wstring FreeDrive() {
    const DWORD used = ::GetLogicalDrives();
    for (wchar_t c = L'Q'; c <= L'Y'; ++c)
        if (!(used & (1u << (c - L'A')))) return std::wstring(1, c) + L":";
    return L"";
}

TEST(FileChecksTest, FileAttributes) {
    kxtest::ScratchDir dir;
    const std::wstring plain = dir / L"plain.txt", flagged = dir / L"flagged.txt", packed = dir / L"packed.txt",
                       sealed = dir / L"sealed.txt";
    for (const auto& f : {plain, flagged, packed, sealed}) kxtest::WriteText(f, "data");
    ASSERT_TRUE(::SetFileAttributesW(flagged.c_str(), FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN));
    bool fsCompressed = false;
    {
        kx::unique_hfile h(::CreateFileW(packed.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        USHORT format = COMPRESSION_FORMAT_DEFAULT;
        DWORD got = 0;
        fsCompressed = ::DeviceIoControl(h.get(), FSCTL_SET_COMPRESSION, &format, sizeof(format), nullptr, 0, &got, nullptr);
    }
    ::EncryptFileW(sealed.c_str());
    const bool fsEncrypted = ListedAttributes(sealed) & FILE_ATTRIBUTE_ENCRYPTED;

    struct Case {
        const char* name;
        const wchar_t* path;
        DWORD rc;
        bool compressed, encrypted;
    };
    const std::wstring missingFile = dir / L"none.txt", missingDir = dir / L"none\\x.txt";
    const Case cases[] = {
        {"plain file", plain.c_str(), 0, false, false},
        {"read-only hidden file", flagged.c_str(), 0, false, false},
        {"file the file system was asked to compress", packed.c_str(), 0, fsCompressed, false},
        {"file the system was asked to encrypt", sealed.c_str(), 0, false, fsEncrypted},
        {"folder", dir.path().c_str(), 0, false, false},
        {"missing file", missingFile.c_str(), ERROR_FILE_NOT_FOUND, false, false},
        {"missing folder", missingDir.c_str(), ERROR_PATH_NOT_FOUND, false, false},
        {"null path", nullptr, kInvalidArg, false, false},
        {"empty path", L"", kInvalidArg, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCursor log;
        bool compressed = true, encrypted = true;
        EXPECT_EQ(d::CheckFileCryptCmprsAttr(c.path, &compressed, &encrypted), c.rc);
        if (c.rc == kInvalidArg) continue;
        EXPECT_EQ(compressed, c.compressed);
        EXPECT_EQ(encrypted, c.encrypted);
        if (c.rc == 0) {
            const DWORD listed = ListedAttributes(c.path);
            EXPECT_EQ(compressed, (listed & FILE_ATTRIBUTE_COMPRESSED) != 0);
            EXPECT_EQ(encrypted, (listed & FILE_ATTRIBUTE_ENCRYPTED) != 0);
        } else {
            EXPECT_TRUE(log.Contains(L"CheckFileCryptCmprsAttr failed, file = " + std::wstring(c.path) +
                                     L", rc = " + std::to_wstring(c.rc)));
        }
    }
    bool flag = false;
    EXPECT_EQ(d::CheckFileCryptCmprsAttr(plain.c_str(), nullptr, &flag), kInvalidArg);
    ::SetFileAttributesW(flagged.c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST(FileChecksTest, CompressingVolume) {
    kxtest::ScratchDir dir;
    const std::wstring file = dir / L"f.txt";
    kxtest::WriteText(file, "data");
    const std::wstring free = FreeDrive();
    ASSERT_FALSE(free.empty());
    const std::wstring onNoDrive = free + L"\\x.txt", missing = dir / L"none.txt";
    struct Case {
        const char* name;
        const wchar_t* path;
        DWORD rc;
        const wchar_t* line;
    };
    const Case cases[] = {
        {"file on the scratch volume", file.c_str(), 0, nullptr},
        {"file on C:", L"C:\\windows\\win.ini", 0, nullptr},
        // The volume is what is asked about: a missing file on a volume is answered.
        {"missing file on a volume", missing.c_str(), 0, nullptr},
        {"drive without a volume", onNoDrive.c_str(), ERROR_FILE_NOT_FOUND,
         L"CheckIfFileOnCmprsVol, get vol path failed, file = "},
        {"UNC path to no server", L"\\\\nohost.invalid\\share\\x.txt", ERROR_INVALID_NAME,
         L"CheckIfFileOnCmprsVol, get vol path failed, file = \\\\nohost.invalid"},
        {"null path", nullptr, kInvalidArg, nullptr},
        {"empty path", L"", kInvalidArg, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        LogCursor log;
        bool onCompressed = true;
        EXPECT_EQ(d::CheckIfFileOnCmprsVol(c.path, &onCompressed), c.rc);
        EXPECT_FALSE(onCompressed) << "cleared on entry; no volume of Wine compresses";
        if (c.line) {
            EXPECT_TRUE(log.Contains(c.line)) << kxtest::Narrow(c.line);
        }
    }
    EXPECT_EQ(d::CheckIfFileOnCmprsVol(file.c_str(), nullptr), kInvalidArg);
}

}  // namespace
