// Service registration and the helper service, on both hive backends with
// the same assertions. What the registry must hold afterwards is written out
// here line by line in the dump's form and compared with the whole hive, so
// any other key touched shows too; the real hive file is then read by hivex,
// reglookup and regfexport against the fixture's own dump plus these lines.
#include <gtest/gtest.h>

#include <aclapi.h>
#include <sddl.h>

#include <fstream>

#include "guestfix/helper_service.h"
#include "guest_test_util.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kxguest::Bytes;
using kxguest::Guest;
using kxguest::Open;
using Lines = std::set<std::string>;

constexpr const char* kSets[] = {"ControlSet001", "ControlSet002", "ControlSet003"};
const std::string kFailureActions =
    "80510100" "00000000" "00000000" "03000000" "14000000"
    "01000000" "60ea0000" "01000000" "60ea0000" "00000000" "00000000";

std::string Sz(const std::wstring& s) { return kxguest::Hex(s.c_str(), (s.size() + 1) * sizeof(wchar_t)); }

// Lines of the registry below the helper's service and safe-boot keys.
bool IsHelperLine(const std::string& line) {
    return line.find("\\Services\\qlnvmhelpersvc") != std::string::npos ||
           line.find("\\SafeBoot\\Network\\qlnvmhelpersvc") != std::string::npos;
}

// `before` with the helper's old entries replaced by what an injection
// writes into each boot control set.
Lines Expected(const Lines& before, const std::string& descriptorHex) {
    Lines out;
    for (const auto& l : before)
        if (!IsHelperLine(l)) out.insert(l);
    for (const std::string set : kSets) {
        const std::string svc = set + "\\Services\\qlnvmhelpersvc", sb = set + "\\Control\\SafeBoot\\Network\\qlnvmhelpersvc";
        const std::string v = "V\t" + svc + "\t";
        out.insert({"K\t" + svc, v + "Type\t4\t10000000", v + "Start\t4\t02000000", v + "ErrorControl\t4\t01000000",
                    v + "ImagePath\t2\t" + Sz(L"%SystemRoot%\\System32\\qlnvmhelpersvc\\qlnvmhelpersvc.exe"),
                    v + "ObjectName\t1\t" + Sz(L"LocalSystem"), v + "DisplayName\t1\t" + Sz(L"Kestrix HA VM Helper Service"),
                    v + "Description\t1\t" + Sz(L"Finishes the preparation of a converted virtual machine on its first start."),
                    v + "FailureActions\t3\t" + kFailureActions, "K\t" + svc + "\\Security",
                    "V\t" + svc + "\\Security\tSecurity\t3\t" + descriptorHex, "K\t" + sb,
                    "V\t" + sb + "\t\t1\t" + Sz(L"Service")});
    }
    return out;
}

Lines ReadDumpFile(const std::string& name) {
    std::ifstream in(std::string(KX_GUEST_FIXTURES) + "/" + name, std::ios::binary);
    Lines out;
    for (std::string line; std::getline(in, line);) out.insert(line);
    return out;
}

// The descriptor as an independent reader sees it: valid, self-relative,
// owned by LocalSystem, full control only for LocalSystem and Administrators.
void CheckDescriptor(const std::vector<BYTE>& sd) {
    ASSERT_FALSE(sd.empty());
    auto* p = const_cast<BYTE*>(sd.data());
    ASSERT_TRUE(::IsValidSecurityDescriptor(p));
    EXPECT_EQ(::GetSecurityDescriptorLength(p), sd.size());
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    ASSERT_TRUE(::GetSecurityDescriptorControl(p, &control, &revision));
    EXPECT_TRUE(control & SE_SELF_RELATIVE);
    EXPECT_TRUE(control & SE_DACL_PRESENT);
    BYTE system[SECURITY_MAX_SID_SIZE], admins[SECURITY_MAX_SID_SIZE];
    DWORD n1 = sizeof system, n2 = sizeof admins;
    ASSERT_TRUE(::CreateWellKnownSid(WinLocalSystemSid, nullptr, system, &n1));
    ASSERT_TRUE(::CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, admins, &n2));
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    ASSERT_TRUE(::GetSecurityDescriptorOwner(p, &owner, &defaulted));
    ASSERT_TRUE(owner && ::EqualSid(owner, system));
    PACL dacl = nullptr;
    BOOL present = FALSE;
    ASSERT_TRUE(::GetSecurityDescriptorDacl(p, &present, &dacl, &defaulted));
    ASSERT_TRUE(present && dacl);
    ASSERT_EQ(dacl->AceCount, 4);
    for (DWORD i = 0; i < dacl->AceCount; ++i) {
        void* ace = nullptr;
        ASSERT_TRUE(::GetAce(dacl, i, &ace));
        auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
        ASSERT_EQ(allowed->Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        PSID sid = &allowed->SidStart;
        const bool full = ::EqualSid(sid, admins) != 0;
        EXPECT_EQ((allowed->Mask & SERVICE_ALL_ACCESS) == SERVICE_ALL_ACCESS, full) << "ACE " << i;
        EXPECT_TRUE(allowed->Mask & SERVICE_START) << "ACE " << i;
        EXPECT_TRUE(allowed->Mask & SERVICE_QUERY_STATUS) << "ACE " << i;
    }
}

// A helper service build: the binary, a settings file, and a sub-folder
// that is not part of what gets copied.
struct Source {
    kxtest::ScratchDir dir;
    std::wstring path = dir / L"helper s\u00e9rvice";
    Bytes exe, ini;
    explicit Source(bool withExe = true) {
        kxtest::MakeDirs(path + L"\\docs");
        for (size_t i = 0; i < 70000; ++i) exe.push_back(static_cast<uint8_t>(i * 31 + (i >> 9)));
        const std::string text = "[helper]\r\nSetSafeBootFirst=1\r\n";
        ini.assign(text.begin(), text.end());
        if (withExe) kxtest::WriteBytes(path + L"\\qlnvmhelpersvc.exe", exe.data(), exe.size());
        kxtest::WriteBytes(path + L"\\helper.ini", ini.data(), ini.size());
        kxtest::WriteText(path + L"\\docs\\readme.txt", "not copied");
    }
};

class HelperService : public kxguest::TwoBackends {
protected:
    std::wstring Folder(const Guest& guest) const { return guest.windows + L"\\System32\\qlnvmhelpersvc"; }
};

TEST_P(HelperService, EveryBootSetFilesInPlaceSecondRunChangesNothing) {
    Guest guest("svc-system", "", Ext());
    Source src;
    auto system = Load(guest, g::GuestHive::kSystem);
    ASSERT_TRUE(system);
    const Lines before = kxguest::DumpHive(*system);
    ASSERT_EQ(g::Ivm_InjectHelperServiceToHiveEx(guest.windows, src.path, system.get()), 0u);

    std::vector<BYTE> sd;
    DWORD type = 0;
    ASSERT_EQ(Open(*system, L"\\ControlSet001\\Services\\qlnvmhelpersvc\\Security", KEY_READ)
                  .GetRawValue(L"Security", &type, &sd),
              0u);
    CheckDescriptor(sd);
    const Lines expected = Expected(before, kxguest::Hex(sd.data(), sd.size()));
    const Lines after = kxguest::DumpHive(*system);
    EXPECT_EQ(after, expected);

    EXPECT_EQ(kxtest::ReadBytes(Folder(guest) + L"\\qlnvmhelpersvc.exe"), src.exe);
    EXPECT_EQ(kxtest::ReadBytes(Folder(guest) + L"\\helper.ini"), src.ini);
    EXPECT_FALSE(kxtest::Exists(Folder(guest) + L"\\docs"));

    ASSERT_EQ(g::Ivm_InjectHelperServiceToHiveEx(guest.windows, src.path, system.get()), 0u);
    EXPECT_EQ(kxguest::DumpHive(*system), after);
    EXPECT_EQ(kxtest::ReadBytes(Folder(guest) + L"\\qlnvmhelpersvc.exe"), src.exe);

    if (Engine()) {
        system.reset();
        // The fixture's own dump (written by hivex from the description) with
        // the injection's lines: independent of the engine's reading.
        const Lines fromFixture = Expected(ReadDumpFile("svc-system.dump"),
                                           kxguest::Hex(sd.data(), sd.size()));
        EXPECT_EQ(fromFixture, expected);
        kxguest::LeaveForHivex(guest.Hive(L"system"), "svc-system-injected", fromFixture);
    }
}

// A registry step that fails (no control set of \Select in the hive) leaves
// the guest folder as it was: new files and a new folder removed, a file
// that was replaced back with its old bytes.
TEST_P(HelperService, RegistryFailureTakesTheFilesBack) {
    for (const bool folderExisted : {false, true}) {
        SCOPED_TRACE(folderExisted ? "folder with an older helper" : "no folder");
        Guest guest("svc-nosets", "", Ext());
        Source src;
        const Bytes old = {'o', 'l', 'd'};
        if (folderExisted) {
            kxtest::MakeDirs(Folder(guest));
            kxtest::WriteBytes(Folder(guest) + L"\\qlnvmhelpersvc.exe", old.data(), old.size());
        }
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_TRUE(system);
        const Lines before = kxguest::DumpHive(*system);
        EXPECT_EQ(g::Ivm_InjectHelperServiceToHiveEx(guest.windows, src.path, system.get()),
                  DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(kxguest::DumpHive(*system), before);
        EXPECT_EQ(kxtest::Exists(Folder(guest)), folderExisted);
        EXPECT_FALSE(kxtest::Exists(Folder(guest) + L"\\helper.ini"));
        EXPECT_FALSE(kxtest::Exists(Folder(guest) + L"\\qlnvmhelpersvc.exe.kxold"));
        if (folderExisted) {
            EXPECT_EQ(kxtest::ReadBytes(Folder(guest) + L"\\qlnvmhelpersvc.exe"), old);
        }
    }
}

TEST_P(HelperService, BadInputChangesNothing) {
    struct Case {
        const char* what;
        bool sourceExists, sourceHasExe, folderIsFile;
        DWORD code;
    };
    const Case cases[] = {
        {"missing source folder", false, true, false, ERROR_PATH_NOT_FOUND},
        {"source without the service binary", true, false, false, ERROR_FILE_NOT_FOUND},
        {"guest folder that cannot be written", true, true, true, ERROR_ACCESS_DENIED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Guest guest("svc-system", "", Ext());
        Source src(c.sourceHasExe);
        const std::wstring source = c.sourceExists ? src.path : src.path + L"-gone";
        if (c.folderIsFile) kxtest::WriteText(Folder(guest), "a file where the folder goes");
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_TRUE(system);
        const Lines before = kxguest::DumpHive(*system);
        EXPECT_EQ(g::Ivm_InjectHelperServiceToHiveEx(guest.windows, source, system.get()), c.code);
        EXPECT_EQ(kxguest::DumpHive(*system), before);
        EXPECT_EQ(kxtest::Exists(Folder(guest)), c.folderIsFile);
    }
}

TEST_P(HelperService, ForStandbyAlsoOpensRemoteDesktop) {
    Guest guest("svc-system", "software", Ext());
    Source src;
    auto system = Load(guest, g::GuestHive::kSystem);
    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_TRUE(system && software);
    kxtest::LogCursor log;
    ASSERT_EQ(g::Ivm_InjectHelperServiceToHiveForVsb(guest.windows, src.path, system.get(), software.get()), 0u);
    DWORD deny = 1, port = 0, start = 0;
    Open(*system, L"\\ControlSet001\\Control\\Terminal Server", KEY_READ).GetValue(L"fDenyTSConnections", 1, &deny);
    Open(*system, L"\\ControlSet001\\Control\\Terminal Server\\WinStations\\RDP-Tcp", KEY_READ)
        .GetValue(L"PortNumber", 0, &port);
    Open(*system, L"\\ControlSet003\\Services\\qlnvmhelpersvc", KEY_READ).GetValue(L"Start", 0, &start);
    EXPECT_EQ(deny, 0u);
    EXPECT_EQ(port, 3389u);
    EXPECT_EQ(start, 2u);
    const auto tryLine = log.Matching(L"Try to enable Terminal Service and firewall rules.");
    const auto begin = log.Matching(L"Begin to enable Terminal Service and firewall rules.");
    const auto finish = log.Matching(L"Finish enabling Terminal Service and firewall rules.");
    ASSERT_EQ(tryLine.size(), 1u);
    ASSERT_EQ(begin.size(), 1u);
    ASSERT_EQ(finish.size(), 2u);  // the fix-up's own end line, then the injection's
}

// The general form: any name, binary, start type and dependencies; no files
// and no safe-boot entry.
TEST_P(HelperService, GeneralServiceAndItsBadArguments) {
    Guest guest("svc-system", "", Ext());
    auto system = Load(guest, g::GuestHive::kSystem);
    ASSERT_TRUE(system);
    const Lines before = kxguest::DumpHive(*system);
    struct Bad {
        const wchar_t* name;
        const wchar_t* image;
        DWORD start;
    };
    for (const Bad& b : {Bad{L"", L"C:\\a.exe", 2}, Bad{L"a\\b", L"C:\\a.exe", 2}, Bad{L"agent", L"", 2},
                         Bad{L"agent", L"C:\\a.exe", 5}}) {
        EXPECT_EQ(g::RVCM_InjectServiceToHive(guest.windows, b.name, L"", b.image, b.start, {}, system.get()),
                  DWORD{ERROR_INVALID_PARAMETER});
    }
    EXPECT_EQ(kxguest::DumpHive(*system), before);

    ASSERT_EQ(g::RVCM_InjectServiceToHive(guest.windows, L"agent", L"", L"C:\\Program Files\\Agent\\agent.exe", 3,
                                          {L"Tcpip", L"qlnvmhelpersvc"}, system.get()),
              0u);
    const Lines after = kxguest::DumpHive(*system);
    for (const std::string set : kSets) {
        const std::string v = "V\t" + set + "\\Services\\agent\t";
        SCOPED_TRACE(set);
        EXPECT_TRUE(after.count(v + "ImagePath\t2\t" + Sz(L"\"C:\\Program Files\\Agent\\agent.exe\"")));
        EXPECT_TRUE(after.count(v + "Start\t4\t03000000"));
        EXPECT_TRUE(after.count(v + "DisplayName\t1\t" + Sz(L"agent")));
        EXPECT_TRUE(after.count(v + "DependOnService\t7\t" + Sz(L"Tcpip") + Sz(L"qlnvmhelpersvc") + "0000"));
    }
    for (const auto& l : after) EXPECT_EQ(l.find("SafeBoot\\Network\\agent"), std::string::npos) << l;
    for (const auto& l : after) EXPECT_EQ(l.find("ControlSet004\\Services\\agent"), std::string::npos) << l;
}

INSTANTIATE_TEST_SUITE_P(Backends, HelperService, ::testing::Bool(), kxguest::BackendName);

// Hives that cannot be used: nothing is copied into the guest.
TEST(HelperServiceHive, UnusableHiveCopiesNothing) {
    struct Case {
        const char* what;
        const char* content;  // null: no hive file
        DWORD code;
    };
    for (const Case& c : {Case{"missing hive", nullptr, ERROR_BAD_ENVIRONMENT},
                          Case{"not a hive", "this is no registry hive at all", 1009}}) {
        SCOPED_TRACE(c.what);
        Guest guest("", "", ".hive");
        if (c.content) kxtest::WriteText(guest.Hive(L"system"), c.content);
        Source src;
        EXPECT_EQ(g::Ivm_InjectHelperServiceToHive(guest.windows, src.path), c.code);
        EXPECT_FALSE(kxtest::Exists(guest.windows + L"\\System32\\qlnvmhelpersvc"));
    }
}

}  // namespace
