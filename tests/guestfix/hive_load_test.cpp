// Guest hive loads and registry keys, run twice with the same assertions:
// on Wine-format hives that the system loads, and on real hive files (written
// by hivex from the same descriptions) that the system refuses and the
// engine holds. Edited real hives are checked afterwards by hivex
// (the guestfix_hivex_check test) against the expectation written here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "guestfix/hive_access.h"
#include "guest_test_util.h"
#include "kx_test.h"
#include "platform/host_util.h"
#include "platform/regf/regf_hive.h"
#include "platform/win32_positioned_file.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kx::hostutil::RegistryKey;
using Bytes = std::vector<uint8_t>;

constexpr REGSAM kAll = KEY_ALL_ACCESS;

using kxguest::Fixture;
using kxguest::Guest;
using kxguest::Open;

class HiveLoad : public kxguest::TwoBackends {
protected:
    Guest MakeGuest(const std::string& system = "system", const std::string& software = "software") {
        return Guest(system, software, Ext());
    }
};

std::wstring ReadString(const RegistryKey& key, const std::wstring& name) {
    std::wstring s;
    EXPECT_EQ(key.GetValue(name, L"", &s), 0u) << kxtest::Narrow(name);
    return s;
}

}  // namespace

TEST_P(HiveLoad, LoadsUnderAFreshKeyWithOrWithoutTrailingBackslash) {
    Guest guest = MakeGuest();
    std::set<std::wstring> names;
    for (const std::wstring& dir : {guest.windows, guest.windows + L"\\"}) {
        std::unique_ptr<HiveLoader> system;
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, dir, &system), 0u);
        ASSERT_EQ(system->GetHiveName().rfind(L"MorvainHA.Temp.{", 0), 0u);
        names.insert(system->GetHiveName());
        std::wstring ccs;
        EXPECT_EQ(g::CurrentControlSet(*system, &ccs), 0u);
        EXPECT_EQ(ccs, L"ControlSet001");
        EXPECT_EQ(ReadString(Open(*system, L"\\" + ccs + L"\\Control\\ComputerName\\ComputerName"), L"ComputerName"),
                  L"WIN7-GUEST");
        // The free-standing string readers take either kind of key.
        std::wstring name;
        EXPECT_EQ(kx::hostutil::GetRegistryString(system->GetHiveKey(), system->GetHiveName() + L"\\Select",
                                                  L"Current", &name),
                  DWORD{ERROR_UNSUPPORTED_TYPE});
        std::vector<std::wstring> deps;
        EXPECT_EQ(kx::hostutil::GetRegistryMultiString(
                      system->GetHiveKey(), system->GetHiveName() + L"\\ControlSet001\\Services\\W32Time",
                      L"DependOnService", &deps),
                  0u);
        EXPECT_EQ(deps, (std::vector<std::wstring>{L"RpcSs", L"Tcpip"}));
        // Names compare without regard to case in both backends.
        EXPECT_TRUE(Open(*system, L"\\CONTROLSET001\\control\\computername").IsValid());
    }
    EXPECT_EQ(names.size(), 2u);
}

// Every RegistryKey operation the fix-ups use, with the same outcome on both
// backends.
TEST_P(HiveLoad, KeyOperationsBehaveAlikeOnBothBackends) {
    Guest guest = MakeGuest();
    auto system = Load(guest, g::GuestHive::kSystem);
    ASSERT_TRUE(system);
    RegistryKey services = Open(*system, L"\\ControlSet001\\Services");
    ASSERT_TRUE(services.IsValid()) << services.Error();

    RegistryKey svc = services.CreateSubItem(L"kxdrv\\Parameters", kAll);
    ASSERT_TRUE(svc.IsValid()) << svc.Error();
    const BYTE blob[] = {1, 2, 0, 255};
    EXPECT_EQ(svc.SetValue(L"Start", DWORD{3}), 0u);
    EXPECT_EQ(svc.SetValue(L"ImagePath", L"system32\\drivers\\kxdrv.sys", true), 0u);
    EXPECT_EQ(svc.SetValue(L"Group", L"SCSI miniport"), 0u);
    EXPECT_EQ(svc.SetValue(L"Deps", std::vector<std::wstring>{L"a", L"", L"b"}), 0u);
    EXPECT_EQ(svc.SetValue(L"Strict", std::vector<std::wstring>{L"a", L""}, false), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(svc.SetValue(L"Blob", blob, sizeof blob), 0u);
    EXPECT_EQ(svc.SetValue(L"", L"default"), 0u);

    RegistryKey again = Open(*system, L"\\ControlSet001\\services\\KXDRV\\parameters", KEY_READ);
    DWORD start = 0;
    EXPECT_EQ(again.GetValue(L"start", 9, &start), 0u);
    EXPECT_EQ(start, 3u);
    EXPECT_EQ(ReadString(again, L"ImagePath"), L"system32\\drivers\\kxdrv.sys");
    std::vector<std::wstring> deps;
    EXPECT_EQ(again.GetValue(L"Deps", &deps), 0u);
    EXPECT_EQ(deps, (std::vector<std::wstring>{L"a", L"b"}));
    DWORD type = 0;
    Bytes raw;
    EXPECT_EQ(again.GetRawValue(L"Blob", &type, &raw), 0u);
    EXPECT_EQ(type, DWORD{REG_BINARY});
    EXPECT_EQ(raw, Bytes(blob, blob + sizeof blob));

    // Wrong types, missing values, rights the key was not opened with.
    std::wstring text = L"x";
    EXPECT_EQ(again.GetValue(L"Start", L"fallback", &text), DWORD{ERROR_UNSUPPORTED_TYPE});
    EXPECT_EQ(text, L"fallback");
    EXPECT_EQ(again.GetValue(L"Group", 7, &start), DWORD{ERROR_UNSUPPORTED_TYPE});
    EXPECT_EQ(start, 7u);
    EXPECT_EQ(again.GetValue(L"Missing", 5, &start), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(again.SetValue(L"Start", DWORD{4}), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(svc.DeleteValue(L"Missing"), DWORD{ERROR_FILE_NOT_FOUND});

    // Enumeration in the key's order ends with ERROR_NO_MORE_ITEMS.
    std::set<std::wstring> seen;
    std::wstring name, data;
    DWORD i = 0;
    for (; svc.EnumNextValue(i, &name, &data, &type) == 0; ++i) {
        seen.insert(name);
        if (name == L"Group") {
            EXPECT_EQ(data, L"SCSI miniport");
        }
        if (name == L"Start") {
            EXPECT_TRUE(data.empty());
        }
    }
    EXPECT_EQ(svc.EnumNextValue(i, &name, &data), DWORD{ERROR_NO_MORE_ITEMS});
    EXPECT_EQ(seen, (std::set<std::wstring>{L"", L"Blob", L"Deps", L"Group", L"ImagePath", L"Start"}));

    // A copy is a key of its own; deleting values and trees.
    RegistryKey copy;
    {
        RegistryKey original = services.GetSubItem(L"kxdrv", kAll);
        copy = original;
    }
    ASSERT_TRUE(copy.IsValid());
    EXPECT_TRUE(copy.IsExist(L"Parameters", KEY_READ));
    EXPECT_EQ(svc.DeleteValue(L"Blob"), 0u);
    EXPECT_EQ(svc.GetRawValue(L"Blob", &type, &raw), DWORD{ERROR_FILE_NOT_FOUND});
    svc = RegistryKey();
    again = RegistryKey();
    EXPECT_EQ(services.DelSubKey(L"kxdrv"), 0u);
    EXPECT_FALSE(services.IsExist(L"kxdrv", KEY_READ));
    EXPECT_EQ(services.DelSubKey(L"kxdrv"), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(services.DelSubKey(L""), DWORD{ERROR_INVALID_PARAMETER});

    // Paths: a leading backslash is refused, another hive name is absent.
    EXPECT_EQ(RegistryKey(system->GetHiveKey(), L"\\" + system->GetHiveName(), kAll).Error(), DWORD{ERROR_BAD_PATHNAME});
    EXPECT_EQ(Open(*system, L"\\NoSuchKey").Error(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(RegistryKey(system->GetHiveKey(), L"MorvainHA.Temp.{none}\\Select", kAll).Error(),
              DWORD{ERROR_FILE_NOT_FOUND});
    // The loader's key itself names the level where the hive's name is a key.
    RegistryKey top(system->GetHiveKey(), KEY_READ);
    ASSERT_TRUE(top.IsValid());
    EXPECT_TRUE(top.IsExist(system->GetHiveName(), KEY_READ));
}

TEST_P(HiveLoad, CurrentControlSetAndVersion) {
    struct Case {
        const char* system;
        const char* software;
        const wchar_t* ccs;
        DWORD major, minor, sp;
    };
    for (const Case& c : {Case{"system", "software", L"ControlSet001", 6, 1, 1},
                          Case{"system-cs12", "software-nosp", L"ControlSet0012", 5, 2, 0}}) {
        SCOPED_TRACE(c.system);
        Guest guest = MakeGuest(c.system, c.software);
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_TRUE(system);
        kxtest::LogCursor log;
        std::wstring ccs;
        EXPECT_EQ(g::CurrentControlSetStrict(*system, &ccs), 0u);
        EXPECT_EQ(ccs, c.ccs);
        EXPECT_TRUE(log.Contains(std::wstring(L"Current controlset is ") + (c.ccs + 12) + L"."));
        EXPECT_TRUE(Open(*system, L"\\" + ccs + L"\\Services").IsValid());

        DWORD major = 9, minor = 9, sp = 9;
        EXPECT_EQ(g::RegGetWinNTVerion(guest.windows, &major, &minor, &sp), 0u);
        EXPECT_EQ(std::tuple(major, minor, sp), std::tuple(c.major, c.minor, c.sp));
        EXPECT_TRUE(log.Contains(L"RegGetWinNTVerion::End, OS = " + std::to_wstring(c.major) + L"." +
                                 std::to_wstring(c.minor) + L" SP" + std::to_wstring(c.sp)));

        // A hive that was given stays loaded afterwards.
        auto software = Load(guest, g::GuestHive::kSoftware);
        ASSERT_TRUE(software);
        EXPECT_EQ(g::RegGetWinNTVerion(guest.windows, &major, &minor, &sp, software.get()), 0u);
        EXPECT_EQ(major, c.major);
        EXPECT_TRUE(Open(*software, L"\\Microsoft\\Windows NT\\CurrentVersion").IsValid());
    }
    // Without \Select the strict form reports the read's failure and the
    // name falls back to set 1.
    Guest bare = MakeGuest("software", "software");
    std::unique_ptr<HiveLoader> notSystem;
    ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, bare.windows, &notSystem), 0u);
    kxtest::LogCursor log;
    std::wstring ccs;
    EXPECT_EQ(g::CurrentControlSetStrict(*notSystem, &ccs), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(ccs, L"ControlSet001");
    EXPECT_TRUE(log.Contains(L"Failed to get the current contolset, error code : 2."));
}

TEST_P(HiveLoad, MissingHivesAndUnreadableFiles) {
    kxtest::ScratchDir empty;
    std::unique_ptr<HiveLoader> loader;
    kxtest::LogCursor log;
    EXPECT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, empty.path(), &loader), DWORD{ERROR_BAD_ENVIRONMENT});
    EXPECT_FALSE(loader);
    EXPECT_TRUE(log.Contains(L"fail to call _waccess_s, cannot find " + empty.path() + L"\\system32\\config\\system"));
    DWORD major = 1, minor = 1, sp = 1;
    EXPECT_EQ(g::RegGetWinNTVerion(empty.path(), &major, &minor, &sp), DWORD{ERROR_BAD_ENVIRONMENT});
    EXPECT_EQ(major + minor + sp, 0u);
    EXPECT_TRUE(log.Contains(L"Fail to load software registry hive of virtual machine."));

    // A file neither the system nor the engine accepts: the load answers 0,
    // the keys below it do not open, and the file is left as it was.
    Guest guest = MakeGuest("", "");
    kxtest::WriteText(guest.Hive(L"system"), std::string(8192, 'x'));
    ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, guest.windows, &loader), 0u);
    ASSERT_TRUE(loader);
    EXPECT_EQ(loader->GetBackend(), HiveLoader::Backend::kNone);
    EXPECT_FALSE(Open(*loader, L"\\Select").IsValid());
    loader.reset();
    EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"system")), Bytes(8192, 'x'));
}

INSTANTIATE_TEST_SUITE_P(Backends, HiveLoad, ::testing::Values(false, true), kxguest::BackendName);

// ---- the engine's own guarantees ----------------------------------------------

namespace {

kx::regf::HeaderInfo Header(const std::wstring& path) {
    std::unique_ptr<kx::vhd::PositionedFile> file;
    kx::regf::HeaderInfo info;
    EXPECT_EQ(kx::vdisk::Win32FileSystem::OpenFile(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, &file), 0u);
    if (file) {
        EXPECT_EQ(kx::regf::Hive::ReadHeader(*file, &info), 0u);
    }
    return info;
}

using kxguest::Hex;

// The dump lines of a fixture (hive_tool.py's form), to which a test applies
// its edits to tell hivex what the edited hive must hold.
std::set<std::string> FixtureDump(const std::string& name) {
    std::ifstream in(std::string(KX_GUEST_FIXTURES) + "/" + name + ".dump", std::ios::binary);
    std::set<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.insert(line);
    return lines;
}

}  // namespace

// Edits through the engine reach the file when the loader goes, with equal
// sequence numbers and a good checksum; hivex then reads exactly the
// original content plus the edits. An unchanged hive is not written at all.
TEST(EngineHive, EditsSurviveAndUntouchedHivesStayByteForByte) {
    Guest guest("system", "software", ".hive");
    const Bytes softwareBefore = kxtest::ReadBytes(guest.Hive(L"software"));
    std::set<std::string> expected = FixtureDump("system");
    ASSERT_FALSE(expected.empty());
    const std::string services = "ControlSet001\\Services";
    {
        std::unique_ptr<HiveLoader> system, software;
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, guest.windows, &system), 0u);
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, guest.windows, &software), 0u);
        DWORD major, minor, sp;
        ASSERT_EQ(g::RegGetWinNTVerion(guest.windows, &major, &minor, &sp, software.get()), 0u);

        RegistryKey svc = Open(*system, L"\\ControlSet001\\Services").CreateSubItem(L"kxdrv", kAll);
        ASSERT_TRUE(svc.IsValid());
        const DWORD start = 0;
        ASSERT_EQ(svc.SetValue(L"Start", start), 0u);
        ASSERT_EQ(svc.SetValue(L"ImagePath", L"system32\\drivers\\kxdrv.sys", true), 0u);
        expected.insert("K\t" + services + "\\kxdrv");
        expected.insert("V\t" + services + "\\kxdrv\tStart\t4\t" + Hex(&start, 4));
        const std::wstring image = L"system32\\drivers\\kxdrv.sys";
        expected.insert("V\t" + services + "\\kxdrv\tImagePath\t2\t" + Hex(image.c_str(), (image.size() + 1) * 2));
        // A value over the size that needs big-data blocks.
        std::vector<BYTE> big(40000);
        for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<BYTE>(i * 7);
        ASSERT_EQ(svc.SetValue(L"Big", big.data(), static_cast<DWORD>(big.size())), 0u);
        expected.insert("V\t" + services + "\\kxdrv\tBig\t3\t" + Hex(big.data(), big.size()));
        // Deleting a whole service tree.
        ASSERT_EQ(Open(*system, L"\\ControlSet001\\Services").DelSubKey(L"Tcpip"), 0u);
        std::erase_if(expected, [&](const std::string& l) {
            return l.find("\t" + services + "\\Tcpip\t") != std::string::npos ||
                   l.rfind("K\t" + services + "\\Tcpip", 0) == 0 ||
                   l.find("\t" + services + "\\Tcpip\\") != std::string::npos;
        });
    }
    const kx::regf::HeaderInfo h = Header(guest.Hive(L"system"));
    EXPECT_FALSE(h.dirty);
    EXPECT_EQ(h.primarySequence, h.secondarySequence);
    EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"software")), softwareBefore);

    // For the hivex check that runs after this program.
    kxguest::LeaveForHivex(guest.Hive(L"system"), "system-edited", expected);
}

// A dirty software hive (never repaired) is held read-only; a dirty system
// hive is repaired first and edited normally.
TEST(EngineHive, DirtyHivesAreReadOnlyUnlessRepaired) {
    Guest guest("system", "software", ".hive");
    for (const wchar_t* name : {L"system", L"software"}) {
        Bytes b = kxtest::ReadBytes(guest.Hive(name));
        b = kxguest::Dirty(b);
        kxtest::WriteBytes(guest.Hive(name), b.data(), b.size());
    }
    kxtest::SetRegValue(g::kBackupDllKey, L"FixHiveIntegrity", DWORD{1});
    const Bytes softwareBefore = kxtest::ReadBytes(guest.Hive(L"software"));
    {
        std::unique_ptr<HiveLoader> system, software;
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, guest.windows, &system), 0u);
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, guest.windows, &software), 0u);
        EXPECT_FALSE(system->ReadOnly());
        EXPECT_TRUE(software->ReadOnly());
        RegistryKey cv = Open(*software, L"\\Microsoft\\Windows NT\\CurrentVersion");
        EXPECT_EQ(ReadString(cv, L"CurrentVersion"), L"6.1");
        EXPECT_EQ(cv.SetValue(L"CurrentVersion", L"10.0"), DWORD{ERROR_ACCESS_DENIED});
        EXPECT_FALSE(cv.CreateSubItem(L"New", kAll).IsValid());
        EXPECT_EQ(Open(*system, L"\\Select").SetValue(L"Kx", DWORD{1}), 0u);
    }
    EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"software")), softwareBefore);
    EXPECT_FALSE(Header(guest.Hive(L"system")).dirty);
}

// Keys of one hive used from several threads at once; a key kept after its
// loader has gone answers "deleted" and the file is free again.
TEST(EngineHive, SharedBetweenThreadsAndKeysOutlivingTheLoader) {
    Guest guest("system", "", ".hive");
    auto system = std::make_unique<HiveLoader>(L"Kx.Threads", guest.Hive(L"system"), HKEY_LOCAL_MACHINE);
    ASSERT_EQ(system->GetBackend(), HiveLoader::Backend::kEngine);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            RegistryKey k = Open(*system, L"\\ControlSet001").CreateSubItem(L"T" + std::to_wstring(t), kAll);
            for (DWORD i = 0; i < 300; ++i) k.SetValue(L"v" + std::to_wstring(i), i * 10 + t);
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) {
        RegistryKey k = Open(*system, L"\\ControlSet001\\T" + std::to_wstring(t));
        for (DWORD i = 0; i < 300; i += 37) {
            DWORD v = 0;
            EXPECT_EQ(k.GetValue(L"v" + std::to_wstring(i), 0, &v), 0u);
            EXPECT_EQ(v, i * 10 + t);
        }
    }
    RegistryKey kept = Open(*system, L"\\Select");
    const HKEY token = system->GetHiveKey();
    // The token is not a system handle.
    kx::unique_hkey raw;
    EXPECT_EQ(::RegOpenKeyExW(token, L"Kx.Threads", 0, KEY_READ, raw.put()), ERROR_INVALID_HANDLE);
    system.reset();
    DWORD v = 0;
    EXPECT_EQ(kept.GetValue(L"Current", 0, &v), DWORD{ERROR_KEY_DELETED});
    EXPECT_FALSE(RegistryKey(token, L"Kx.Threads\\Select", KEY_READ).IsValid());
    {
        kx::unique_hfile exclusive(::CreateFileW(guest.Hive(L"system").c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                                 nullptr, OPEN_EXISTING, 0, nullptr));
        EXPECT_TRUE(exclusive);
    }
    EXPECT_FALSE(Header(guest.Hive(L"system")).dirty);
}
