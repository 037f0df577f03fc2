// Boot configuration fix-ups against stand-ins of what the host lacks under
// Wine: a bcdedit.exe first on the PATH that records its command line and
// exits with a chosen status, and a RecoveryCore.DLL that unpacks an archive
// of this test's own making. Guest hives run on both backends (Wine-format
// hives the system loads, real hive files the engine holds) with the same
// assertions; the BCD stores edited offline are real hive files, checked
// here and afterwards by hivex (guestfix_bcd_hivex_check_*).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <set>

#include "guestfix/boot_config.h"
#include "guest_test_util.h"
#include "kx_test.h"
#include "platform/boot_host.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kx::hostutil::RegistryKey;
using Bytes = std::vector<uint8_t>;

const std::wstring kService = L"qlnvmhelpersvc";
const std::wstring kUefiDefault = L"{a1f3c5e7-0b2d-4f6a-8c9e-1d3b5f7a9c0e}";
const std::wstring kBiosDefault = L"{5c7e2b1a-9d4f-11e3-8a2b-c4d6e8f0a1b2}";

using kxguest::Copy;
using kxguest::Dirty;
using kxguest::Fixture;
using kxguest::Guest;
using kxguest::Le32;
using kxguest::Open;
using kxguest::XorSum;

std::wstring String(const RegistryKey& key, const std::wstring& name) {
    std::wstring s = L"<absent>";
    (void)key.GetValue(name, L"<absent>", &s);
    return s;
}

DWORD Dword(const RegistryKey& key, const std::wstring& name) {
    DWORD v = 0xDEADu;
    (void)key.GetValue(name, 0xDEADu, &v);
    return v;
}

std::wstring Marker(const RegistryKey& key, const wchar_t* name) {
    DWORD type = 0;
    Bytes data;
    return key.GetRawValue(name, &type, &data) == 0 ? L"present" : L"absent";
}

// The environment variable `name` set for the scope.
class ScopedEnv {
public:
    ScopedEnv(const wchar_t* name, const std::wstring& value) : name_(name) {
        wchar_t buf[32767];
        const DWORD n = ::GetEnvironmentVariableW(name, buf, 32767);
        had_ = n > 0 && n < 32767;
        if (had_) old_ = buf;
        ::SetEnvironmentVariableW(name, value.c_str());
    }
    ~ScopedEnv() { ::SetEnvironmentVariableW(name_, had_ ? old_.c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

private:
    const wchar_t* name_;
    bool had_ = false;
    std::wstring old_;
};

std::wstring WineSystemPath() {
    wchar_t sys[MAX_PATH], win[MAX_PATH];
    ::GetSystemDirectoryW(sys, MAX_PATH);
    ::GetWindowsDirectoryW(win, MAX_PATH);
    return std::wstring(sys) + L";" + win;
}

// The stand-in bcdedit.exe first on the PATH (or none at all), its record
// of command lines, its exit status.
struct BcdEdit {
    kxtest::ScratchDir dir;
    std::wstring record = dir / L"bcdedit-calls.txt";
    ScopedEnv path;
    ScopedEnv log{L"KX_BCDEDIT_LOG", record};
    ScopedEnv status;
    BcdEdit(bool present, int exitStatus)
        : path(L"PATH", present ? kxtest::BinDir() + L"\\standin\\bcdedit;" + WineSystemPath() : WineSystemPath()),
          status(L"KX_BCDEDIT_STATUS", std::to_wstring(exitStatus)) {}
    std::vector<std::string> Calls() const {
        std::vector<std::string> lines;
        if (!kxtest::Exists(record)) return lines;
        const Bytes b = kxtest::ReadBytes(record);
        std::string text(b.begin(), b.end()), line;
        for (char c : text) {
            if (c == '\n') lines.push_back(line), line.clear();
            else line += c;
        }
        return lines;
    }
};

class BootConfig : public kxguest::TwoBackends {
};

// What the safe-boot step left in a loaded system hive.
struct SafeBootState {
    std::wstring entry;  // default value of SafeBoot\Network\qlnvmhelpersvc
    DWORD flag;          // Services\qlnvmhelpersvc\SetSafeBootFirst
    bool operator==(const SafeBootState&) const = default;
};

SafeBootState ReadSafeBoot(const HiveLoader& system, const std::wstring& controlSet) {
    return {String(Open(system, L"\\" + controlSet + L"\\Control\\SafeBoot\\Network\\" + kService), L""),
            Dword(Open(system, L"\\" + controlSet + L"\\Services\\" + kService), g::kSafeBootFirst)};
}

std::ostream& operator<<(std::ostream& os, const SafeBootState& s) {
    return os << kxtest::Narrow(s.entry) << "/" << s.flag;
}

}  // namespace

// ---- SetSafeBootFirst ---------------------------------------------------------

TEST_P(BootConfig, SafeBootEntryMadeOnlyWhenAbsentFlagWrittenEveryTime) {
    struct Case {
        const char* system;
        const wchar_t* controlSet;
        SafeBootState before, after;
    };
    for (const Case& c : {Case{"system", L"ControlSet001", {L"<absent>", 0xDEAD}, {L"Service", 1}},
                          Case{"system-w2k3", L"ControlSet002", {L"Driver", 0}, {L"Driver", 1}}}) {
        SCOPED_TRACE(c.system);
        Guest guest(c.system, "", Ext());
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_TRUE(system);
        EXPECT_EQ(ReadSafeBoot(*system, c.controlSet), c.before);
        kxtest::LogCursor log;
        for (int round = 0; round < 2; ++round) {
            EXPECT_EQ(g::SetSafeBootFirst(system.get(), guest.windows), 0u);
            EXPECT_EQ(ReadSafeBoot(*system, c.controlSet), c.after);
        }
        const std::wstring root = system->GetHiveName() + L"\\" + c.controlSet;
        EXPECT_EQ(log.Matching(L"Start to update the key in in " + root + L"\\Control\\SafeBoot\\Network\\" +
                               kService + L".").size(), 2u);
        EXPECT_EQ(log.Matching(L"update the SetSafeBootFirst = 1 in " + root + L"\\Services\\" + kService + L".")
                      .size(), 2u);
        // The other set and the other safe-boot entries are untouched.
        const std::wstring other = std::wstring(c.controlSet) == L"ControlSet001" ? L"ControlSet002" : L"ControlSet001";
        EXPECT_FALSE(Open(*system, L"\\" + other + L"\\Services\\" + kService).IsValid());
        EXPECT_EQ(String(Open(*system, L"\\" + std::wstring(c.controlSet) + L"\\Control\\SafeBoot\\Network\\AppMgmt"),
                         L""),
                  L"Service");
    }
}

// ---- EnableVMBootInSafeBoot with bcdedit.exe on the PATH ----------------------

TEST_P(BootConfig, BcdEditCommandLinesAndStatus) {
    struct Case {
        const wchar_t* volumeSuffix;  // added to the guest's volume folder
        BYTE uefi;
        const wchar_t* store;         // what follows the volume in the command
        int status;
        DWORD result;
    };
    const Case cases[] = {
        {L"", 0, L"\\Boot\\BCD  /set", 0, 0},
        {L"", 1, L"\\EFI\\Microsoft\\Boot\\BCD /set", 0, 0},
        {L"\\", 7, L"\\EFI\\Microsoft\\Boot\\BCD /set", 0, 0},
        {L"", 1, L"\\EFI\\Microsoft\\Boot\\BCD /set", 255, ERROR_OPEN_FAILED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "uefi " << int(c.uefi) << " status " << c.status << " suffix "
                                          << kxtest::Narrow(c.volumeSuffix));
        Guest guest("system", "", Ext());
        const Bytes hiveBefore = kxtest::ReadBytes(guest.Hive(L"system"));
        BcdEdit bcdedit(true, c.status);
        ASSERT_TRUE(kx::platform::CurrentBootHost().CanFindProgram(L"bcdedit.exe"));
        kxtest::LogCursor log;
        EXPECT_EQ(g::EnableVMBootInSafeBoot(guest.volume + c.volumeSuffix, guest.windows, c.uefi), c.result);
        const std::wstring command =
            L"bcdedit.exe /store " + guest.volume + c.store + L" {default} safeboot network";
        EXPECT_EQ(bcdedit.Calls(), std::vector<std::string>{kxtest::Narrow(command)});
        EXPECT_TRUE(log.Contains(L"Begin to update the bcd to safemode start."));
        EXPECT_TRUE(log.Contains(L"Start to update the BCD in safeboot successfully!"));
        EXPECT_TRUE(log.Contains(L"Update the bcd file = " + command + L", retcode: " + std::to_wstring(c.status)));
        EXPECT_FALSE(log.Contains(L"setting safe boot in the BCD store"));
        if (c.result != 0) {
            // The guest's hive is not even loaded.
            EXPECT_FALSE(log.Contains(L"Start to update the key in in"));
            EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"system")), hiveBefore);
        } else {
            EXPECT_TRUE(log.Contains(L"update the SetSafeBootFirst = 1 in MorvainHA.Temp."));
            if (Engine()) {  // Wine's own loads are not written back
                auto system = Load(guest, g::GuestHive::kSystem);
                EXPECT_EQ(ReadSafeBoot(*system, L"ControlSet001"), (SafeBootState{L"Service", 1}));
            }
        }
    }
}

// No command runs on a host older than Vista or without a boot volume.
TEST(BootConfigHost, OldHostOrNoVolumeIs87WithoutCommand) {
    struct OldHost : kx::platform::BootHost {
        DWORD HostMajorVersion() override { return 5; }
    } oldHost;
    struct Case {
        kx::platform::BootHost* host;
        const wchar_t* volume;
    };
    kxtest::ScratchDir dir;
    for (const Case& c : {Case{&oldHost, L"C:\\vol"}, Case{nullptr, L""}}) {
        kx::platform::testing::SetBootHost(c.host);
        BcdEdit bcdedit(true, 0);
        kxtest::LogCursor log;
        EXPECT_EQ(g::EnableVMBootInSafeBoot(c.volume, dir.path(), 1), DWORD{ERROR_INVALID_PARAMETER});
        kx::platform::testing::SetBootHost(nullptr);
        EXPECT_TRUE(bcdedit.Calls().empty());
        EXPECT_TRUE(log.Contains(std::wstring(L"BcdEdit.exe can not run in the Vista ealier, bootlink = ") + c.volume +
                                 L"."));
        EXPECT_FALSE(log.Contains(L"Start to update the BCD"));
    }
}

// ---- EnableVMBootInSafeBoot without bcdedit.exe: the store edited offline ------

namespace {

std::string Hex(const Bytes& b) { return kxguest::Hex(b.data(), b.size()); }

// The safe-boot element of `object` in the store file, read read-only.
struct Element {
    DWORD rc;
    DWORD type = 0;
    Bytes data;
    bool operator==(const Element&) const = default;
};

Element SafeBootElement(const std::wstring& store, const std::wstring& object) {
    HiveLoader::Options ro;
    ro.readOnly = true;
    HiveLoader hive(L"Kx.Bcd", store, HKEY_LOCAL_MACHINE, ro);
    Element e{0, 0, {}};
    RegistryKey key(hive.GetHiveKey(), L"Kx.Bcd\\Objects\\" + object + L"\\Elements\\25000080", KEY_READ);
    e.rc = key ? key.GetRawValue(L"Element", &e.type, &e.data) : key.Error();
    return e;
}

const Bytes kNetwork = {1, 0, 0, 0, 0, 0, 0, 0};

}  // namespace

TEST_P(BootConfig, WithoutBcdEditTheStoreIsEditedOffline) {
    struct Case {
        const char* store;
        BYTE uefi;
        const wchar_t* at;
        std::wstring object;
        DWORD beforeRc;
        const char* beforeHex;
        std::wstring untouched;  // another loader object that must keep its state
    };
    const Case cases[] = {
        {"bcd-bios", 0, L"Boot", kBiosDefault, ERROR_FILE_NOT_FOUND, "", L""},
        {"bcd-uefi", 1, L"EFI\\Microsoft\\Boot", kUefiDefault, 0, "0000000000000000",
         L"{0e4c2a86-13b5-4d7f-9e1a-2b3c4d5e6f70}"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.store);
        Guest guest("system", "", Ext());
        const std::wstring store = guest.volume + L"\\" + c.at + L"\\BCD";
        kxtest::MakeDirs(guest.volume + L"\\" + c.at);
        Copy(Fixture(std::string(c.store) + ".hive"), store);
        const Element before = SafeBootElement(store, c.object);
        EXPECT_EQ(before.rc, c.beforeRc);
        EXPECT_EQ(Hex(before.data), c.beforeHex);
        BcdEdit none(false, 0);
        ASSERT_FALSE(kx::platform::CurrentBootHost().CanFindProgram(L"bcdedit.exe"));
        kxtest::LogCursor log;
        EXPECT_EQ(g::EnableVMBootInSafeBoot(guest.volume, guest.windows, c.uefi), 0u);
        EXPECT_TRUE(log.Contains(L"bcdedit.exe is not on the PATH: setting safe boot in the BCD store " + store +
                                 L" offline."));
        EXPECT_TRUE(log.Contains(L"update the SetSafeBootFirst = 1 in"));
        EXPECT_EQ(SafeBootElement(store, c.object), (Element{0, REG_BINARY, kNetwork}));
        if (!c.untouched.empty()) {
            EXPECT_EQ(SafeBootElement(store, c.untouched).rc, DWORD{ERROR_FILE_NOT_FOUND});
        }
        if (Engine()) {
            auto system = Load(guest, g::GuestHive::kSystem);
            EXPECT_EQ(ReadSafeBoot(*system, L"ControlSet001"), (SafeBootState{L"Service", 1}));
        }
        // For hivex: the fixture's content plus the element, nothing else.
        std::ifstream in(std::string(KX_GUEST_FIXTURES) + "/" + c.store + ".dump", std::ios::binary);
        std::set<std::string> expected;
        for (std::string line; std::getline(in, line);)
            if (line.find("\\25000080\tElement\t") == std::string::npos) expected.insert(line);
        const std::string key = "Objects\\" + kxtest::Narrow(c.object) + "\\Elements\\25000080";
        expected.insert("K\t" + key);
        expected.insert("V\t" + key + "\tElement\t3\t" + Hex(kNetwork));
        kxguest::LeaveForHivex(store, std::string(c.store) + "-edited", expected);
    }
}

// Every way the offline edit fails gives 110, leaves the store as it was
// and does not touch the guest's hive.
TEST_P(BootConfig, OfflineEditFailuresAre110AndChangeNothing) {
    struct Case {
        const char* name;
        std::function<void(const std::wstring& store)> make;
    };
    const auto fixture = [](const char* name) {
        return [name](const std::wstring& store) { Copy(Fixture(std::string(name) + ".hive"), store); };
    };
    const Case cases[] = {
        {"no default entry", fixture("bcd-nodefault")},
        {"default object missing",
         [](const std::wstring& store) {
             // The BIOS store with its loader object renamed away: the default names nothing.
             Copy(Fixture("bcd-bios.hive"), store);
             HiveLoader hive(L"Kx.Bcd.Edit", store, HKEY_LOCAL_MACHINE);
             RegistryKey objects(hive.GetHiveKey(), L"Kx.Bcd.Edit\\Objects", KEY_ALL_ACCESS);
             ASSERT_EQ(objects.DelSubKey(kBiosDefault), 0u);
         }},
        {"dirty store (read-only)",
         [](const std::wstring& store) {
             const Bytes b = Dirty(kxtest::ReadBytes(Fixture("bcd-bios.hive")));
             kxtest::WriteBytes(store, b.data(), b.size());
         }},
        {"not a hive", [](const std::wstring& store) { kxtest::WriteText(store, std::string(8192, 'x')); }},
        {"no store", [](const std::wstring&) {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Guest guest("system", "", Ext());
        const std::wstring store = guest.volume + L"\\Boot\\BCD";
        kxtest::MakeDirs(guest.volume + L"\\Boot");
        c.make(store);
        const bool exists = kxtest::Exists(store);
        const Bytes storeBefore = exists ? kxtest::ReadBytes(store) : Bytes();
        const Bytes hiveBefore = kxtest::ReadBytes(guest.Hive(L"system"));
        BcdEdit none(false, 0);
        kxtest::LogCursor log;
        EXPECT_EQ(g::EnableVMBootInSafeBoot(guest.volume, guest.windows, 0), DWORD{ERROR_OPEN_FAILED});
        EXPECT_TRUE(log.Contains(L"Offline BCD edit of " + store + L" failed"));
        EXPECT_FALSE(log.Contains(L"Start to update the key in in"));
        EXPECT_EQ(kxtest::Exists(store), exists);
        if (exists) {
            EXPECT_EQ(kxtest::ReadBytes(store), storeBefore);
        }
        EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"system")), hiveBefore);
    }
}

// A guest hive that neither backend opens: the BCD edit succeeds, the hive
// step fails as a failed load with the engine's code (1009) and the file
// stays as it was.
TEST(BootConfigHost, RefusedGuestHiveFailsTheSafeBootStepOnly) {
    Guest guest("", "", ".hive");
    kxtest::WriteText(guest.Hive(L"system"), std::string(8192, 'x'));
    BcdEdit bcdedit(true, 0);
    kxtest::LogCursor log;
    EXPECT_EQ(g::EnableVMBootInSafeBoot(guest.volume, guest.windows, 0), DWORD{ERROR_BADDB});
    EXPECT_EQ(bcdedit.Calls().size(), 1u);
    EXPECT_TRUE(log.Contains(L"Fail to load system registry hive of virtual machine."));
    EXPECT_FALSE(log.Contains(L"Start to update the key in in"));
    EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"system")), Bytes(8192, 'x'));
    // Without a hive file at all: the load's code.
    kxtest::ScratchDir empty;
    EXPECT_EQ(g::EnableVMBootInSafeBoot(guest.volume, empty.path(), 0), DWORD{ERROR_BAD_ENVIRONMENT});
    EXPECT_TRUE(log.Contains(L"Fail to load system registry hive of virtual machine."));
}

// ---- ResetPRTag ------------------------------------------------------------------

TEST_P(BootConfig, ResetPRTagDeletesTheSevenMarkers) {
    struct Case {
        const char* system;
        const char* software;
        DWORD kind;
        g::GuestHive hive;
        const wchar_t* key;    // where the markers are
        const wchar_t* other;  // a key whose markers are not the guest's and stay
        std::vector<std::wstring> kept;
    };
    const Case cases[] = {
        {"system-w2k3", "", 0, g::GuestHive::kSystem, L"\\ControlSet002\\Control\\Session Manager\\Environment",
         L"\\ControlSet001\\Control\\Session Manager\\Environment", {L"ComSpec", L"Path", L"windir"}},
        {"", "software-hyperv", 1, g::GuestHive::kSoftware, L"\\Microsoft\\Virtual Machine\\Guest",
         L"\\Microsoft\\Virtual Machine\\Guest\\Parameters", {L"OSName"}},
        // A guest without any marker: nothing to delete is a success.
        {"system", "", 0, g::GuestHive::kSystem, L"\\ControlSet001\\Control\\Session Manager\\Environment",
         L"\\ControlSet002\\Control\\Session Manager\\Environment", {L"Path", L"TEMP"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        Guest guest(c.system, c.software, Ext());
        auto hive = Load(guest, c.hive);
        ASSERT_TRUE(hive);
        std::vector<std::wstring> otherBefore;
        for (const wchar_t* m : g::kRecoveryTestMarkers) otherBefore.push_back(Marker(Open(*hive, c.other), m));
        for (int round = 0; round < 2; ++round) {
            kxtest::LogCursor log;
            EXPECT_EQ(g::ResetPRTag(hive.get(), c.kind), 0u);
            EXPECT_TRUE(log.Contains(L"Begin to reset PR tag."));
            EXPECT_TRUE(log.Contains(L"Finish resetting PR tag."));
            EXPECT_FALSE(log.Contains(L"Fail to reset PR tag."));
            const RegistryKey key = Open(*hive, c.key);
            ASSERT_TRUE(key.IsValid());
            for (const wchar_t* m : g::kRecoveryTestMarkers) EXPECT_EQ(Marker(key, m), L"absent") << kxtest::Narrow(m);
            for (const auto& name : c.kept) EXPECT_EQ(Marker(key, name.c_str()), L"present") << kxtest::Narrow(name);
            std::vector<std::wstring> other;
            for (const wchar_t* m : g::kRecoveryTestMarkers) other.push_back(Marker(Open(*hive, c.other), m));
            EXPECT_EQ(other, otherBefore);
        }
    }
}

TEST_P(BootConfig, ResetPRTagRefusals) {
    Guest guest("system-w2k3", "software-hyperv", Ext());
    auto system = Load(guest, g::GuestHive::kSystem);
    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_TRUE(system && software);
    struct Case {
        HiveLoader* hive;
        DWORD kind;
        DWORD result;
        const wchar_t* line;
    };
    for (const Case& c : {Case{nullptr, 0, ERROR_INVALID_PARAMETER, L"Empty system hive."},
                          Case{system.get(), 2, ERROR_INVALID_PARAMETER, L"Unsupported hyperv type: 2"},
                          Case{system.get(), 0xFFFFFFFF, ERROR_INVALID_PARAMETER, L"Unsupported hyperv type: -1"},
                          // Kind 0 on a hive without \Select stops at the control set.
                          Case{software.get(), 0, ERROR_FILE_NOT_FOUND,
                               L"Failed to get the current contolset, error code : 2."}}) {
        kxtest::LogCursor log;
        EXPECT_EQ(g::ResetPRTag(c.hive, c.kind), c.result);
        EXPECT_TRUE(log.Contains(c.line)) << kxtest::Narrow(c.line);
    }
    // Nothing was deleted by any of them.
    EXPECT_EQ(Marker(Open(*system, L"\\ControlSet002\\Control\\Session Manager\\Environment"), L"IVM_PR_SCRIPT"),
              L"present");
    EXPECT_EQ(Marker(Open(*software, L"\\Microsoft\\Virtual Machine\\Guest"), L"IVM_PR_SCRIPT"), L"present");
}

// Deletions the hive refuses (a dirty software hive, which the engine holds
// read-only): each is logged, the code is the result, the file unchanged.
TEST(BootConfigEngine, ResetPRTagReportsRefusedDeletions) {
    Guest guest("", "software-hyperv", ".hive");
    const Bytes dirty = Dirty(kxtest::ReadBytes(guest.Hive(L"software")));
    kxtest::WriteBytes(guest.Hive(L"software"), dirty.data(), dirty.size());
    {
        std::unique_ptr<HiveLoader> software;
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, guest.windows, &software), 0u);
        ASSERT_TRUE(software->ReadOnly());
        kxtest::LogCursor log;
        EXPECT_EQ(g::ResetPRTag(software.get(), 1), DWORD{ERROR_ACCESS_DENIED});
        EXPECT_EQ(log.Matching(L"Fail to reset PR tag. RegDeleteValue returns 5.").size(), 7u);
    }
    EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"software")), dirty);
}

// ---- GetWin2003BootDevice -------------------------------------------------------

TEST_P(BootConfig, Win2003BootDeviceOfTheCurrentSet) {
    struct Case {
        const char* system;
        DWORD result;
        const wchar_t* device;
    };
    for (const Case& c : {Case{"system-w2k3", 0, L"multi(0)disk(0)rdisk(0)partition(2)"},
                          Case{"system", 0, L"multi(0)disk(0)rdisk(0)partition(1)"},
                          // No \Select and no ControlSet001\Control.
                          Case{"software", ERROR_FILE_NOT_FOUND, L""}}) {
        SCOPED_TRACE(c.system);
        Guest guest(c.system, "", Ext());
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_TRUE(system);
        kxtest::LogCursor log;
        std::wstring device = L"stale";
        EXPECT_EQ(g::GetWin2003BootDevice(system.get(), &device), c.result);
        EXPECT_EQ(device, c.device);
        EXPECT_TRUE(log.Contains(L"Begin to get System boot Device."));
        EXPECT_TRUE(log.Contains(L"Finish getting System boot Device, RetCode " + std::to_wstring(c.result) +
                                 L", SysBootDevice = " + c.device + L"."));
        if (c.result) {
            EXPECT_TRUE(log.Contains(L"fail to get reg key control " + system->GetHiveName() +
                                     L"\\ControlSet001\\Control."));
        }
    }
    std::wstring device;
    EXPECT_EQ(g::GetWin2003BootDevice(nullptr, &device), DWORD{ERROR_INVALID_PARAMETER});
}

INSTANTIATE_TEST_SUITE_P(Backends, BootConfig, ::testing::Values(false, true), kxguest::BackendName);

// ---- InjectBCDFile ------------------------------------------------------------------

namespace {

struct Entry {
    std::wstring name;
    Bytes data;
};

// The stand-in unpacker's archive: "KXPK", then per entry the name's length
// in UTF-16 units, the name, the data's length, the data.
Bytes Pack(const std::vector<Entry>& entries) {
    Bytes out = {'K', 'X', 'P', 'K'};
    const auto put32 = [&](uint32_t v) {
        for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    };
    for (const Entry& e : entries) {
        put32(static_cast<uint32_t>(e.name.size()));
        for (wchar_t ch : e.name) out.push_back(static_cast<uint8_t>(ch)), out.push_back(static_cast<uint8_t>(ch >> 8));
        put32(static_cast<uint32_t>(e.data.size()));
        out.insert(out.end(), e.data.begin(), e.data.end());
    }
    return out;
}

// A boot volume and a recovery information folder (names with blanks and
// non-ASCII letters), the stand-in recovery core found through
// SetDllDirectory from `dllFolder` (empty: a folder without it).
struct Recovery {
    kxtest::ScratchDir dir;
    std::wstring boot = dir / L"Boot Vol\u00fcme\\";
    std::wstring info = dir / L"R\u00e9cup\u00e9ration info";
    std::wstring unpacked = info + L"\\ADRINFOC";
    std::wstring target = boot + L"EFI\\Microsoft\\Boot\\BCD";
    explicit Recovery(const std::wstring& dllFolder) {
        kxtest::MakeDirs(boot + L"EFI\\Microsoft\\Boot");
        kxtest::MakeDirs(info);
        const std::wstring folder = dllFolder.empty() ? dir.path() : kxtest::BinDir() + L"\\standin\\" + dllFolder;
        EXPECT_TRUE(::SetDllDirectoryW(folder.c_str()));
    }
    ~Recovery() { ::SetDllDirectoryW(nullptr); }
    void Archive(const Bytes& b) const { kxtest::WriteBytes(info + L"\\AdrInfoC.drz", b.data(), b.size()); }
};

}  // namespace

TEST(InjectBCDFile, CopiesTheUnpackedStoreAndRepairsItsHeader) {
    const Bytes clean = kxtest::ReadBytes(Fixture("bcd-uefi.hive"));
    const Bytes dirty = Dirty(clean);
    ASSERT_NE(Le32(dirty, 4), Le32(dirty, 8));
    struct Case {
        const char* name;
        bool slashedInfo;
        bool existingUnpackFolder;
    };
    for (const Case& c : {Case{"plain", false, false}, Case{"trailing backslash", true, false},
                          Case{"unpack folder reused", false, true}}) {
        SCOPED_TRACE(c.name);
        Recovery r(L"recovery");
        r.Archive(Pack({{L"BCD", dirty}, {L"AdrInfo.xml", Bytes{'<', '/', '>'}}}));
        if (c.existingUnpackFolder) {
            kxtest::MakeDirs(r.unpacked);
            kxtest::WriteText(r.unpacked + L"\\stale.txt", "from an earlier run");
        }
        kxtest::LogCursor log;
        EXPECT_EQ(g::InjectBCDFile(r.boot, r.info + (c.slashedInfo ? L"\\" : L"")), 0u);
        const Bytes copied = kxtest::ReadBytes(r.target);
        ASSERT_EQ(copied.size(), dirty.size());
        // Only the secondary sequence number and the checksum differ.
        EXPECT_EQ(Le32(copied, 8), Le32(copied, 4));
        EXPECT_EQ(Le32(copied, 508), XorSum(copied));
        EXPECT_TRUE(std::equal(copied.begin() + 512, copied.end(), dirty.begin() + 512));
        EXPECT_TRUE(std::equal(copied.begin(), copied.begin() + 8, dirty.begin()));
        EXPECT_FALSE(kxtest::Exists(r.unpacked));
        EXPECT_EQ(::GetModuleHandleW(L"RecoveryCore.DLL"), nullptr);  // unloaded after the call
        for (const std::wstring& line :
             {L"begin InjectBCDFile, dir=" + r.boot, L"begin to InjectBCDFile to system dir " + r.boot,
              std::wstring(L"get function DrUnCompressFile successful."),
              L"InjectBCDFile::CopyFile BCD file from " + r.unpacked + L"\\BCD to " + r.target + L".",
              L"being RemoveFolder, folder=" + r.unpacked, std::wstring(L"finish InjectBCDFile, ret=0")})
            EXPECT_TRUE(log.Contains(line)) << kxtest::Narrow(line);
    }
}

TEST(InjectBCDFile, FailuresReturnTheirCodes) {
    const Bytes store = kxtest::ReadBytes(Fixture("bcd-bios.hive"));
    struct Case {
        const char* name;
        const wchar_t* dll;                             // stand-in folder, empty: none found
        std::function<void(const Recovery&)> prepare;  // archive and folders
        DWORD result;
        std::wstring line;
        bool copied;  // the store reached its target
    };
    const auto archive = [&](std::vector<Entry> entries) {
        return [entries](const Recovery& r) { r.Archive(Pack(entries)); };
    };
    const Case cases[] = {
        {"recovery core missing", L"", archive({{L"BCD", store}}), ERROR_MOD_NOT_FOUND,
         L"Load recoverycore.dll failed, error is 126", false},
        {"unpacker missing", L"recovery-noexport", archive({{L"BCD", store}}), ERROR_PROC_NOT_FOUND,
         L"get function DrUnCompressFile pointer failed, error is 127", false},
        {"no archive", L"recovery", [](const Recovery&) {}, ERROR_FILE_NOT_FOUND,
         L"Do DrUnCompressFile failed, error is 2", false},
        {"malformed archive", L"recovery", [](const Recovery& r) { r.Archive(Bytes{'K', 'X', 'P', 'K', 9}); },
         ERROR_INVALID_DATA, L"Do DrUnCompressFile failed, error is 13", false},
        {"no BCD in the archive", L"recovery", archive({{L"AdrInfo.xml", Bytes{'x'}}}), ERROR_FILE_NOT_FOUND,
         L"InjectBCDFile::CopyFile failed, src = ", false},
        {"unpack folder holds a sub-folder", L"recovery",
         archive({{L"BCD", store}, {L"Logs\\unpack.log", Bytes{'o', 'k'}}}), ERROR_DIR_NOT_EMPTY,
         L"Remove temp folder failed, folder is ", true},
        {"no EFI folder on the boot volume", L"recovery",
         [&](const Recovery& r) {
             r.Archive(Pack({{L"BCD", store}}));
             ::RemoveDirectoryW((r.boot + L"EFI\\Microsoft\\Boot").c_str());
         },
         ERROR_PATH_NOT_FOUND, L"InjectBCDFile::CopyFile failed, src = ", false},
        // Taken for an existing unpack folder; the unpacker cannot write into it.
        {"unpack folder is a file", L"recovery",
         [&](const Recovery& r) {
             r.Archive(Pack({{L"BCD", store}}));
             kxtest::WriteText(r.unpacked, "in the way");
         },
         ERROR_PATH_NOT_FOUND, L"Do DrUnCompressFile failed, error is 3", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Recovery r(c.dll);
        c.prepare(r);
        kxtest::LogCursor log;
        const DWORD rc = g::InjectBCDFile(r.boot, r.info);
        EXPECT_EQ(rc, c.result);
        EXPECT_TRUE(log.Contains(c.line)) << kxtest::Narrow(c.line);
        EXPECT_TRUE(log.Contains(L"finish InjectBCDFile, ret=" + std::to_wstring(rc)));
        EXPECT_EQ(kxtest::Exists(r.target), c.copied);
        EXPECT_EQ(::GetModuleHandleW(L"RecoveryCore.DLL"), nullptr);
    }
}

// The boot directory is used as given: without its trailing backslash its
// last name and "EFI" run together.
TEST(InjectBCDFile, BootDirectoryWithoutBackslashRunsTogether) {
    Recovery r(L"recovery");
    const Bytes store = kxtest::ReadBytes(Fixture("bcd-bios.hive"));
    r.Archive(Pack({{L"BCD", store}}));
    std::wstring bare = r.boot;
    bare.pop_back();
    kxtest::MakeDirs(bare + L"EFI\\Microsoft\\Boot");
    EXPECT_EQ(g::InjectBCDFile(bare, r.info), 0u);
    EXPECT_EQ(kxtest::ReadBytes(bare + L"EFI\\Microsoft\\Boot\\BCD"), store);  // clean: left byte for byte
    EXPECT_FALSE(kxtest::Exists(r.target));
}
