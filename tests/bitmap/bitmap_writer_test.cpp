// The bitmap writer over disks put behind the virtual-disk port by the test.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "bitmap/zek_bitmap_writer.h"
#include "bitmap_test_util.h"
#include "platform/vdisk.h"

using kxtest::ScratchDir;

namespace {

// A disk that answers from a bit vector, `maxBytes` bytes per bitmap call at most.
struct FakeDisk final : kx::vdisk::IVDisk {
    static inline std::vector<uint8_t> bits;
    static inline LONGLONG sectors = 0;
    static inline DWORD type = kx::vdisk::kTypeDifferencing;
    static inline DWORD failOpen = 0, failBitmapAt = 0xFFFFFFFF;
    static inline std::vector<LONGLONG> calls;
    static inline std::wstring openedPath;
    static inline bool sawPassword = false;

    DWORD GetSize(ULONGLONG* b) override { return *b = sectors * 512 + 100, 0; }  // a partial sector is not counted
    DWORD GetGeometry(kx::vdisk::Geometry* g) override { return *g = {1024, 12, 16, 63, 512}, 0; }
    DWORD GetType(DWORD* t) override { return *t = type, 0; }
    DWORD GetBitmap(LONGLONG start, DWORD byteCount, DiskBitmapBuffer* b) override {
        calls.push_back(start);
        if (calls.size() - 1 == failBitmapAt) return ERROR_CRC;
        const LONGLONG aligned = start / 8 * 8;
        b->startingSector = aligned;
        b->sectorCount = std::min<LONGLONG>(byteCount * 8LL, sectors - aligned);
        std::memcpy(b->bitmap, bits.data() + aligned / 8, static_cast<size_t>((b->sectorCount + 7) / 8));
        return 0;
    }
    DWORD ReadSectors(ULONGLONG, DWORD, void*) override { return ERROR_NOT_SUPPORTED; }
    DWORD WriteSectors(ULONGLONG, DWORD, const void*) override { return ERROR_NOT_SUPPORTED; }

    static DWORD Open(const wchar_t* path, DWORD access, DWORD, const kx::vdisk::PasswordBlock* pw,
                      std::unique_ptr<kx::vdisk::IVDisk>* disk) {
        openedPath = path;
        sawPassword = pw != nullptr;
        if (access != GENERIC_READ) return ERROR_ACCESS_DENIED;
        if (failOpen) return failOpen;
        *disk = std::make_unique<FakeDisk>();
        return 0;
    }
    static void Reset(LONGLONG n, DWORD t) {
        sectors = n;
        type = t;
        bits.assign(static_cast<size_t>((n + 7) / 8), 0);
        failOpen = 0;
        failBitmapAt = 0xFFFFFFFF;
        calls.clear();
    }
};

class BitmapWriter : public ::testing::Test {
protected:
    void SetUp() override {
        kx::vdisk::testing::SetOpener(&FakeDisk::Open);
        session = dest.path() + L"\\VStore\\S0000000007";
        kxtest::WriteBackupInfo(session, 7, "Incremental");
        kxtest::MakeDirs(target.path());
    }
    void TearDown() override { kx::vdisk::testing::SetOpener(nullptr); }
    DWORD Write(const wchar_t* name = L"disk0000000001.zek") {
        return kx::bitmap::CreateBitmap4ZekFile(session.c_str(), target.path().c_str(), name, 0);
    }
    // The bitmap file's body, after the header (of 256 bytes) that `header` gets.
    std::vector<uint8_t> Body(kx::bitmap::BitmapFileHeader* header = nullptr) {
        auto all = kxtest::ReadBytes(target / L"disk0000000001.Bitmap");
        if (all.size() < 256) return {};
        if (header) std::memcpy(header, all.data(), 256);
        return std::vector<uint8_t>(all.begin() + 256, all.end());
    }
    ScratchDir dest, target;
    std::wstring session;
};

}  // namespace

// A disk whose size ends in a partial sector: whole sectors only, header
// and body as the disk reports them. (Copies of real VHD chains are checked
// in vhd_destination_test.)
TEST_F(BitmapWriter, CopiesTheDiskBitmapWithHeader) {
    FakeDisk::Reset(32768 * 3 + 16384 + 5, kx::vdisk::kTypeDifferencing);
    std::mt19937 rng(7);
    for (auto& b : FakeDisk::bits) b = static_cast<uint8_t>(rng());
    FakeDisk::bits.back() &= 0x1F;
    ASSERT_EQ(Write(), 0u);
    EXPECT_EQ(FakeDisk::openedPath, session + L"\\disk0000000001.zek");
    EXPECT_FALSE(FakeDisk::sawPassword);
    kx::bitmap::BitmapFileHeader header{};
    EXPECT_EQ(Body(&header), FakeDisk::bits);
    EXPECT_EQ(header.totalSectors, FakeDisk::sectors);
}

TEST_F(BitmapWriter, FailuresAreLoggedAndReturned) {
    kxtest::LogCursor log;
    FakeDisk::Reset(64, 4);
    EXPECT_EQ(kx::bitmap::CreateBitmap4ZekFile(nullptr, L"x", L"y", 0), 87u);
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile(NULL, x, y) starts"));
    EXPECT_EQ(kx::bitmap::CreateBitmap4ZekFile(L"C:\\VStore\\S1", L"C:", L"a.z", 0), 87u);  // "C:\a.z"
    EXPECT_EQ(kx::bitmap::CreateBitmap4ZekFile(L"C:\\plain", target.path().c_str(), L"disk0000000001.zek", 0),
              0xFFFFFFFFu);
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() failed to get root and sess_num from path [C:\\plain]"));

    FakeDisk::failOpen = ERROR_SHARING_VIOLATION;
    EXPECT_EQ(Write(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile(): Open Zek VHD [" + session + L"\\disk0000000001.zek] failed, rc = 0x00000020"));
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() finished, ret = [32]"));

    FakeDisk::Reset(32768 * 2 + 8, 4);
    FakeDisk::failBitmapAt = 1;
    EXPECT_EQ(Write(), static_cast<DWORD>(ERROR_CRC));
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() failed for GetBitMap(32768, 4096,"));
    // What was written before the failure stays, as the caller removes the whole folder.
    EXPECT_EQ(Body().size(), 4096u);
}

TEST_F(BitmapWriter, SessionsWithoutDescriptionOrEncryptedFail) {
    kxtest::LogCursor log;
    FakeDisk::Reset(64, 4);
    // An encrypted session: the built-in backup core has no password to give.
    kxtest::WriteBackupInfo(session, 7, "Incremental", "Finished", 1);
    EXPECT_EQ(Write(), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_TRUE(log.Contains(L"CreateBitmap4ZekFile() CalcFileSize2Send, Get session pwd failed, rc = 50"));
    EXPECT_TRUE(FakeDisk::calls.empty());
    // No description at all.
    ::DeleteFileW((session + L"\\BackupInfo.XML").c_str());
    EXPECT_EQ(Write(), 2u);
    EXPECT_FALSE(kxtest::Exists(target / L"disk0000000001.Bitmap"));
}
