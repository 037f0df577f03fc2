// The session description comes from a backup destination: whatever its
// bytes, reading it ends with a code, and a damaged file never reads as a
// description that its bytes do not hold.
#include <gtest/gtest.h>

#include <string>

#include "kx_test.h"
#include "platform/backup_info.h"

namespace {

const std::string kValid =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<BackupInfo>\r\n  <SessionNumber>17</SessionNumber>\r\n"
    "  <SessionGuid>{0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B10}</SessionGuid>\r\n"
    "  <BackupKind>Incremental</BackupKind>\r\n  <Status>Finished</Status>\r\n  <Encrypted>0</Encrypted>\r\n"
    "</BackupInfo>\r\n";

// A field made of ASCII characters must stand in the bytes as it is (after
// XML's line-end normalisation: a CR reads as LF); one that is not went
// through the decoder (a damaged multi-byte sequence).
bool Holds(std::string bytes, const std::wstring& text) {
    for (wchar_t c : text)
        if (c >= 0x80) return true;
    for (char& c : bytes)
        if (c == '\r') c = '\n';
    return bytes.find(kxtest::Narrow(text)) != std::string::npos;
}

}  // namespace

// Every cut of a valid file: none hangs, and one reads only when all of
// the root element is still there (with the same fields).
TEST(BackupInfoHostile, EveryTruncationEndsAndNoneReadsWithoutItsEnd) {
    kx::platform::BackupInfo whole;
    ASSERT_EQ(kx::platform::ParseBackupInfo(kValid.data(), kValid.size(), &whole), 0u);
    const size_t rootEnd = kValid.find("</BackupInfo>") + 13;
    int read = 0;
    for (size_t n = 0; n < kValid.size(); ++n) {
        kx::platform::BackupInfo info;
        const DWORD rc = kx::platform::ParseBackupInfo(kValid.data(), n, &info);
        if (rc == 0) {
            ++read;
            EXPECT_GE(n, rootEnd) << "a cut inside the root element read, length " << n;
            EXPECT_EQ(info.sessionNumber, whole.sessionNumber);
            EXPECT_EQ(info.sessionGuid, whole.sessionGuid);
        } else {
            EXPECT_EQ(rc, static_cast<DWORD>(ERROR_INVALID_DATA)) << "length " << n;
        }
    }
    EXPECT_LE(read, static_cast<int>(kValid.size() - rootEnd));
}

// Every byte replaced by each of a few hostile values (NUL, '<', '>', '&',
// a quote, a non-ASCII byte) and every single-bit flip: each ends, and what
// reads holds fields that stand in the damaged bytes.
TEST(BackupInfoHostile, ByteDamageEndsAndReadsOnlyWhatIsThere) {
    int cases = 0, read = 0;
    auto check = [&](const std::string& bytes) {
        ++cases;
        kx::platform::BackupInfo info;
        const DWORD rc = kx::platform::ParseBackupInfo(bytes.data(), bytes.size(), &info);
        if (rc != 0) return;
        ++read;
        EXPECT_TRUE(Holds(bytes, std::to_wstring(info.sessionNumber)));
        EXPECT_TRUE(Holds(bytes, info.sessionGuid));
        EXPECT_TRUE(Holds(bytes, info.backupKind));
        EXPECT_TRUE(Holds(bytes, info.status));
        EXPECT_NE(bytes.find("</BackupInfo>"), std::string::npos);
    };
    for (size_t i = 0; i < kValid.size(); ++i) {
        for (char c : {'\0', '<', '>', '&', '"', '\xC3'}) {
            std::string bytes = kValid;
            bytes[i] = c;
            check(bytes);
        }
        for (int bit = 0; bit < 8; ++bit) {
            std::string bytes = kValid;
            bytes[i] = static_cast<char>(bytes[i] ^ (1 << bit));
            check(bytes);
        }
    }
    EXPECT_GT(cases, 3000);
    EXPECT_GT(read, 0);  // damage inside a value's text still reads
}

// Inputs the reader must refuse by their size or shape, not by parsing
// forever.
TEST(BackupInfoHostile, OversizedAndDeepInputsAreRefused) {
    kx::platform::BackupInfo info;
    std::string big = "<BackupInfo>";
    big.append(kx::platform::kMaxBackupInfoBytes, ' ');
    big += "</BackupInfo>";
    EXPECT_EQ(kx::platform::ParseBackupInfo(big.data(), big.size(), &info), static_cast<DWORD>(ERROR_INVALID_DATA));

    std::string many = "<BackupInfo>";
    for (int i = 0; i < 20000; ++i) many += "<a/>";
    many += "</BackupInfo>";
    EXPECT_EQ(kx::platform::ParseBackupInfo(many.data(), many.size(), &info), static_cast<DWORD>(ERROR_INVALID_DATA));

    std::string deep = "<BackupInfo>";
    for (int i = 0; i < 100; ++i) deep += "<a>";
    EXPECT_EQ(kx::platform::ParseBackupInfo(deep.data(), deep.size(), &info), static_cast<DWORD>(ERROR_INVALID_DATA));
}
