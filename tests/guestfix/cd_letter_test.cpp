// The CD-ROM drive letter of a guest moved to Hyper-V, on both hive
// backends with the same assertions: guests with MBR, GPT, floppy and
// CD-ROM entries, with none, and without MountedDevices. Each case's hive
// afterwards must be the hive before, less the freed letters, plus the
// reservations written out here from their documented form; a second run
// must change nothing; a refusal must change nothing. The engine's file of
// one case is left for hivex, reglookup and regfexport.
#include <gtest/gtest.h>

#include "guestfix/cd_letter.h"
#include "guest_test_util.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kxguest::Guest;

constexpr DWORD kAssigned = ERROR_ALREADY_ASSIGNED;

// The dump line of a reservation of `letter`, built from its documented form.
std::string Reservation(char letter) {
    const std::wstring path = std::wstring(L"\\??\\KestrixHA#ReservedDriveLetter#") + wchar_t(letter);
    return std::string("V\tMountedDevices\t\\DosDevices\\") + letter + ":\t3\t" +
           kxguest::Hex(path.data(), path.size() * sizeof(wchar_t));
}

// `before` less every "\DosDevices\X:" line of a freed letter, plus the
// reservations (and the key, when the guest had none).
std::set<std::string> Expected(std::set<std::string> before, const std::string& freed, const std::string& reserved) {
    for (char c : freed)
        std::erase_if(before, [&](const std::string& l) {
            return l.rfind(std::string("V\tMountedDevices\t\\DosDevices\\") + c + ":\t", 0) == 0;
        });
    if (!reserved.empty()) before.insert("K\tMountedDevices");
    for (char c : reserved) before.insert(Reservation(c));
    return before;
}

std::string Narrow(const std::wstring& s) { return std::string(s.begin(), s.end()); }

class CdLetter : public kxguest::TwoBackends {};

struct Case {
    const char* fixture;
    wchar_t letter;
    DWORD rc;
    const char* freed;
    const char* reserved;
};

const Case kCases[] = {
    // The old CD-ROM's letter: freed; C: and D: are held, so nothing below.
    {"cd-volumes-system", L'E', 0, "E", ""},
    {"cd-volumes-system", L'e', 0, "E", ""},
    // Above a free F: and a data volume on G:: F: is held for it, the old
    // CD-ROM keeps E:.
    {"cd-volumes-system", L'H', 0, "", "F"},
    {"cd-volumes-system", L'Z', 0, "", "FHIJKLMNOPQRSTUVWXY"},
    // Letters of data volumes (MBR, GPT, the lower-case name too) and of a
    // floppy drive are refused.
    {"cd-volumes-system", L'G', kAssigned, "", ""},
    {"cd-volumes-system", L'D', kAssigned, "", ""},
    {"cd-volumes-system", L'C', kAssigned, "", ""},
    {"cd-nocd-system", L'e', 0, "", "D"},
    {"cd-nocd-system", L'D', 0, "", ""},
    {"cd-nomount-system", L'E', 0, "", "CD"},
    // Letters no CD-ROM can be given.
    {"cd-volumes-system", L'A', ERROR_INVALID_PARAMETER, "", ""},
    {"cd-volumes-system", L'\u00c4', ERROR_INVALID_PARAMETER, "", ""},
};

}  // namespace

TEST_P(CdLetter, FreesAndReservesOnlyWhatTheCaseNeeds) {
    for (const Case& c : kCases) {
        SCOPED_TRACE(std::string(c.fixture) + " " + char(c.letter));
        Guest guest(c.fixture, "", Ext());
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_TRUE(system);
        const std::set<std::string> before = kxguest::DumpHive(*system);
        g::CdLetterChanges changes{L"stale", L"stale"};
        EXPECT_EQ(g::AdjustVirtualCDDriveLetter_HyperVEx(guest.windows, c.letter, system.get(), &changes), c.rc);
        EXPECT_EQ(Narrow(changes.freed), c.freed);
        EXPECT_EQ(Narrow(changes.reserved), c.reserved);
        const std::set<std::string> after = Expected(before, c.freed, c.reserved);
        EXPECT_EQ(kxguest::DumpHive(*system), after);
        if (c.rc) continue;
        EXPECT_EQ(g::AdjustVirtualCDDriveLetter_HyperVEx(guest.windows, c.letter, system.get(), &changes), 0u);
        EXPECT_EQ(changes.freed + changes.reserved, L"");
        EXPECT_EQ(kxguest::DumpHive(*system), after);
        if (Engine() && c.letter == L'H') {
            system.reset();
            kxguest::LeaveForHivex(guest.Hive(L"system"), "cd-volumes-reserved", after);
        }
    }
}

// A later, lower wanted letter takes its own reservation back; the ones
// below it stay, the ones above are not the call's to remove.
TEST_P(CdLetter, ReservationOfTheWantedLetterIsFreed) {
    Guest guest("cd-nomount-system", "", Ext());
    auto system = Load(guest, g::GuestHive::kSystem);
    ASSERT_TRUE(system);
    g::CdLetterChanges changes;
    ASSERT_EQ(g::AdjustVirtualCDDriveLetter_HyperVEx(guest.windows, L'F', system.get(), &changes), 0u);
    EXPECT_EQ(changes.reserved, L"CDE");
    ASSERT_EQ(g::AdjustVirtualCDDriveLetter_HyperVEx(guest.windows, L'D', system.get(), &changes), 0u);
    EXPECT_EQ(changes.freed, L"D");
    EXPECT_EQ(changes.reserved, L"");
    const std::set<std::string> lines = kxguest::DumpHive(*system);
    EXPECT_TRUE(lines.count(Reservation('C')));
    EXPECT_FALSE(lines.count(Reservation('D')));
    EXPECT_TRUE(lines.count(Reservation('E')));
}

INSTANTIATE_TEST_SUITE_P(Backends, CdLetter, ::testing::Values(false, true), kxguest::BackendName);

// The call loading its own hive: the change reaches the file; a missing
// hive, a file that is not a hive and an empty folder name are refused
// with their codes and leave the file as it was.
TEST(CdLetterFiles, OwnLoadWritesTheFileAndBadGuestsAreRefused) {
    Guest guest("cd-volumes-system", "", ".hive");
    ASSERT_EQ(g::AdjustVirtualCDDriveLetter_HyperV(guest.windows, L'E'), 0u);
    std::unique_ptr<HiveLoader> system;
    ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, guest.windows, &system), 0u);
    const auto mounted = kxguest::Open(*system, L"\\MountedDevices", KEY_READ);
    DWORD type = 0;
    std::vector<BYTE> data;
    EXPECT_EQ(mounted.GetRawValue(L"\\DosDevices\\E:", &type, &data), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(mounted.GetRawValue(L"\\DosDevices\\G:", &type, &data), 0u);
    EXPECT_EQ(data.size(), 12u);
    system.reset();

    Guest missing("", "", ".hive");
    EXPECT_EQ(g::AdjustVirtualCDDriveLetter_HyperV(missing.windows, L'E'), DWORD{ERROR_BAD_ENVIRONMENT});
    const std::string junk(8192, 'x');
    kxtest::WriteBytes(missing.Hive(L"system"), junk.data(), junk.size());
    EXPECT_EQ(g::AdjustVirtualCDDriveLetter_HyperV(missing.windows, L'E'), 1009u);
    const kxguest::Bytes now = kxtest::ReadBytes(missing.Hive(L"system"));
    EXPECT_EQ(std::string(now.begin(), now.end()), junk);
    EXPECT_EQ(g::AdjustVirtualCDDriveLetter_HyperV(L"", L'E'), DWORD{ERROR_INVALID_PARAMETER});
}

// What a "\DosDevices\X:" value's data names, for the data forms guests hold.
TEST(CdLetterData, KindsOfMountedDeviceData) {
    const auto utf16 = [](const std::wstring& s) {
        const auto* p = reinterpret_cast<const BYTE*>(s.data());
        return std::vector<BYTE>(p, p + s.size() * sizeof(wchar_t));
    };
    std::vector<BYTE> gpt{'D', 'M', 'I', 'O', ':', 'I', 'D', ':'};
    gpt.resize(24, 0x5a);
    std::vector<BYTE> notGpt = gpt;
    notGpt[0] = 'd';
    const struct {
        const char* what;
        std::vector<BYTE> data;
        g::MountKind kind;
    } cases[] = {
        {"MBR", std::vector<BYTE>(12, 0), g::MountKind::kMbrVolume},
        {"GPT", gpt, g::MountKind::kGuidVolume},
        {"24 bytes, no tag", notGpt, g::MountKind::kOther},
        {"GPT tag, short", std::vector<BYTE>(gpt.begin(), gpt.begin() + 20), g::MountKind::kOther},
        {"IDE CD-ROM", utf16(L"\\??\\IDE#CdRomMsft_Virtual_CD/ROM_____1.0_____#5&1&0&1.0.0#{53f5630d}"),
         g::MountKind::kCdRom},
        {"SCSI DVD", utf16(L"\\??\\SCSI#cdrom&Ven_Msft&Prod_Virtual_DVD-ROM#000001#{53f5630d}"), g::MountKind::kCdRom},
        {"floppy", utf16(L"\\??\\FDC#GENERIC_FLOPPY_DRIVE#6&1&0&0#{53f56311}"), g::MountKind::kOther},
        {"reservation", utf16(L"\\??\\KestrixHA#ReservedDriveLetter#F"), g::MountKind::kReserved},
        {"odd length", std::vector<BYTE>(13, 'C'), g::MountKind::kOther},
        {"empty", {}, g::MountKind::kOther},
    };
    for (const auto& c : cases) EXPECT_EQ(g::ClassifyMountData(c.data), c.kind) << c.what;
}
