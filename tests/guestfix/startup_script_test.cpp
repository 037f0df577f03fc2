// Startup scripts on both hive backends with the same assertions: the keys
// read back through the loaded hive, scripts.ini parsed here as UTF-16 text
// (not through the profile calls that wrote it), gpt.ini, the wrapper run by
// the command interpreter twice, a second injection, and failures that must
// leave the guest as it was. The engine's file after a whole injection is
// left for hivex, compared with Wine's registry after the same injection.
#include <gtest/gtest.h>

#include <map>

#include "guestfix/startup_script.h"
#include "guest_test_util.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kxguest::Bytes;
using kxguest::Guest;
using kxguest::Open;

const std::wstring kTrees[] = {L"\\Microsoft\\Windows\\CurrentVersion\\Group Policy\\Scripts\\Startup\\",
                               L"\\Microsoft\\Windows\\CurrentVersion\\Group Policy\\State\\Machine\\Scripts\\Startup\\"};
const std::wstring kScriptsPair = L"[{42B5FAAE-6536-11D2-AE5A-0000F87571E3}{40B6664F-4972-11D1-A7CA-0000F87571E3}]";
const std::wstring kOtherPair = L"[{35378EAC-683F-11D2-A89A-00C04FBBCFA2}{D02B1F72-3407-48AE-BA88-E8213C6761F1}]";
const std::wstring kScript = L"setup net.cmd";
const std::wstring kWrapper = L"kxonce-setup net.cmd";

using Ini = std::map<std::wstring, std::map<std::wstring, std::wstring>>;

void WriteUtf16(const std::wstring& path, const std::wstring& text) {
    std::wstring all = L"\xFEFF" + text;
    kxtest::WriteBytes(path, all.data(), all.size() * sizeof(wchar_t));
}

// An ini file read as UTF-16 LE text with its byte-order mark; a file that
// is not that fails the test.
Ini ReadUtf16Ini(const std::wstring& path) {
    const Bytes b = kxtest::ReadBytes(path);
    EXPECT_GE(b.size(), 2u);
    EXPECT_EQ(b.size() % 2, 0u);
    if (b.size() < 2 || b[0] != 0xFF || b[1] != 0xFE) {
        ADD_FAILURE() << "no UTF-16 byte-order mark";
        return {};
    }
    std::wstring text(reinterpret_cast<const wchar_t*>(b.data() + 2), (b.size() - 2) / 2);
    Ini ini;
    std::wstring section;
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find(L'\n', at);
        if (end == std::wstring::npos) end = text.size();
        std::wstring line = text.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == L'\r') line.pop_back();
        EXPECT_EQ(line.find(L'\0'), std::wstring::npos) << "a NUL inside a line";
        if (line.empty()) continue;
        if (line.front() == L'[') {
            section = line.substr(1, line.find(L']') - 1);
            continue;
        }
        const size_t eq = line.find(L'=');
        EXPECT_NE(eq, std::wstring::npos) << kxguest::Utf8(line);
        if (eq != std::wstring::npos) ini[section][line.substr(0, eq)] = line.substr(eq + 1);
    }
    return ini;
}

std::wstring Text(const HiveLoader& hive, const std::wstring& path, const std::wstring& name) {
    std::wstring v;
    Open(hive, path, KEY_READ).GetValue(name, L"(absent)", &v);
    return v;
}

DWORD Dword(const HiveLoader& hive, const std::wstring& path, const std::wstring& name) {
    DWORD v = 0xFFFFFFFF;
    Open(hive, path, KEY_READ).GetValue(name, 0xFFFFFFFF, &v);
    return v;
}

std::wstring Profile(const std::wstring& file, const wchar_t* section, const wchar_t* key) {
    wchar_t buffer[512];
    const DWORD n = ::GetPrivateProfileStringW(section, key, L"(absent)", buffer, 512, file.c_str());
    return std::wstring(buffer, n);
}

// A guest of one scenario, with the script already in its startup folder.
struct ScriptGuest : Guest {
    std::wstring folder = g::StartupScriptFolder(windows);
    std::wstring scriptsIni = windows + L"\\System32\\GroupPolicy\\Machine\\Scripts\\scripts.ini";
    std::wstring gptIni = windows + L"\\System32\\GroupPolicy\\gpt.ini";
    ScriptGuest(const std::string& software, bool ownPolicy, const char* ext) : Guest("", software, ext) {
        kxtest::MakeDirs(folder);
        kxtest::WriteText(folder + L"\\" + kScript, "@echo ran %1>>\"%~dp0ran.txt\"\r\n");
        if (!ownPolicy) return;
        kxtest::WriteText(folder + L"\\inventory.cmd", "@echo inventory\r\n");
        WriteUtf16(scriptsIni, L"\r\n[Startup]\r\n0CmdLine=inventory.cmd\r\n0Parameters=/quiet\r\n");
        kxtest::WriteText(gptIni, "[General]\r\ngPCMachineExtensionNames=" + kxguest::Utf8(kOtherPair) +
                                      "\r\nVersion=65537\r\n");
    }
};

struct Scenario {
    const char* name;
    const char* software;
    bool ownPolicy;
    std::wstring gpo, script;  // the keys the injection writes
    std::wstring fileSysPath;  // of the policy key
    int iniIndex;
    UINT version;
    std::wstring extensions;
};

const Scenario kScenarios[] = {
    {"no policy", "software", false, L"0", L"0\\0", L"C:\\Windows\\System32\\GroupPolicy\\Machine", 0, 1, kScriptsPair},
    {"own local script", "software-scripts", true, L"0", L"0\\1", L"D:\\WINNT\\System32\\GroupPolicy\\Machine", 1,
     65538, kOtherPair + kScriptsPair},
    {"domain script only", "software-domainscripts", false, L"1", L"1\\0", L"C:\\Windows\\System32\\GroupPolicy\\Machine",
     0, 1, kScriptsPair},
};

class StartupScript : public kxguest::TwoBackends {};

TEST_P(StartupScript, AppendsAfterTheGuestsOwnAndKeepsThem) {
    for (const Scenario& s : kScenarios) {
        SCOPED_TRACE(s.name);
        ScriptGuest guest(s.software, s.ownPolicy, Ext());
        auto software = Load(guest, g::GuestHive::kSoftware);
        ASSERT_TRUE(software);
        ASSERT_EQ(g::Ivm_InjectStartupScriptToHive(guest.windows, kScript, L"-x 1", software.get()), 0u);

        for (int t = 0; t < 2; ++t) {
            const std::wstring gpo = kTrees[t] + s.gpo, key = kTrees[t] + s.script;
            EXPECT_EQ(Text(*software, gpo, L"GPO-ID"), L"LocalGPO");
            EXPECT_EQ(Text(*software, gpo, L"FileSysPath"), s.fileSysPath);
            EXPECT_EQ(Text(*software, key, L"Script"), kWrapper);
            EXPECT_EQ(Text(*software, key, L"Parameters"), L"-x 1");
            EXPECT_EQ(Dword(*software, key, L"IsPowershell"), t == 0 ? 0u : 0xFFFFFFFFu);
            DWORD type = 0;
            std::vector<BYTE> data;
            EXPECT_EQ(Open(*software, key, KEY_READ).GetRawValue(L"ExecTime", &type, &data), 0u);
            EXPECT_EQ(type, static_cast<DWORD>(REG_QWORD));
            EXPECT_EQ(data, std::vector<BYTE>(8, 0));
        }
        if (s.ownPolicy) {
            EXPECT_EQ(Text(*software, kTrees[0] + L"0\\0", L"Script"), L"inventory.cmd");
            EXPECT_EQ(Text(*software, kTrees[1] + L"0\\0", L"Parameters"), L"/quiet");
        }
        if (std::string(s.software) == "software-domainscripts") {
            EXPECT_EQ(Text(*software, kTrees[0] + L"0\\0", L"Script"), L"logon-audit.cmd");
        }

        Ini ini = ReadUtf16Ini(guest.scriptsIni);
        const std::wstring n = std::to_wstring(s.iniIndex);
        EXPECT_EQ(ini[L"Startup"][n + L"CmdLine"], kWrapper);
        EXPECT_EQ(ini[L"Startup"][n + L"Parameters"], L"-x 1");
        EXPECT_EQ(ini[L"Startup"].size(), 2u * (s.iniIndex + 1));
        if (s.ownPolicy) {
            EXPECT_EQ(ini[L"Startup"][L"0CmdLine"], L"inventory.cmd");
        }
        EXPECT_EQ(Profile(guest.gptIni, L"General", L"Version"), std::to_wstring(s.version));
        EXPECT_EQ(Profile(guest.gptIni, L"General", L"gPCMachineExtensionNames"), s.extensions);

        // Again, with the marker of a run: same entry, new parameters, the
        // marker gone so the script runs once more.
        const std::wstring marker = guest.folder + L"\\kxonce-setup net.done";
        kxtest::WriteText(marker, "done\r\n");
        ASSERT_EQ(g::Ivm_InjectStartupScriptToHive(guest.windows, kScript, L"-y", software.get()), 0u);
        EXPECT_FALSE(kxtest::Exists(marker));
        for (const auto& tree : kTrees) {
            EXPECT_EQ(Text(*software, tree + s.script, L"Parameters"), L"-y");
            std::wstring next = s.script;
            next.back() = static_cast<wchar_t>(next.back() + 1);
            EXPECT_FALSE(Open(*software, tree + s.gpo, KEY_READ).IsExist(next.substr(next.find(L'\\') + 1), KEY_READ));
        }
        ini = ReadUtf16Ini(guest.scriptsIni);
        EXPECT_EQ(ini[L"Startup"].size(), 2u * (s.iniIndex + 1));
        EXPECT_EQ(ini[L"Startup"][n + L"Parameters"], L"-y");
    }
}

// The wrapper as the guest's command interpreter runs it at two starts: the
// script once, with its parameters.
TEST_P(StartupScript, WrapperRunsTheScriptOnce) {
    ScriptGuest guest("software", false, Ext());
    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_EQ(g::Ivm_InjectStartupScriptToHive(guest.windows, kScript, L"first", software.get()), 0u);
    for (int start = 0; start < 2; ++start) {
        std::string out;
        EXPECT_EQ(kxtest::RunCapture(L"cmd.exe /c \"\"" + guest.folder + L"\\" + kWrapper + L"\" first\"", &out), 0u)
            << out;
    }
    const Bytes ran = kxtest::ReadBytes(guest.folder + L"\\ran.txt");
    EXPECT_EQ(std::string(ran.begin(), ran.end()), "ran first\r\n");
}

INSTANTIATE_TEST_SUITE_P(Backends, StartupScript, ::testing::Bool(), kxguest::BackendName);

// Failures: the code, and the guest's files as they were (the copy and the
// folders made for it gone, the guest's own same-named script restored).
TEST(StartupScriptFailure, LeavesTheGuestAsItWas) {
    kxtest::ScratchDir host;
    const std::wstring script = host / L"setup net.cmd";
    kxtest::WriteText(script, "@echo new\r\n");
    const Bytes garbage(8192, 0x5A);
    struct Case {
        const char* name;
        bool ownPolicy;  // the guest has its own scripts (and a script named like ours)
        bool refuseHive;
        bool blockFolder;  // a file where the policy folder belongs
        bool missingScript;
        DWORD code;
    };
    const Case cases[] = {
        {"missing script", false, false, false, true, ERROR_FILE_NOT_FOUND},
        {"policy folder cannot be made", false, false, true, false, ERROR_DIRECTORY},
        {"hive refused, no policy", false, true, false, false, 1009},
        {"hive refused, own policy", true, true, false, false, 1009},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Guest guest("", "software", ".hive");
        const std::wstring policy = guest.windows + L"\\System32\\GroupPolicy";
        const std::wstring folder = g::StartupScriptFolder(guest.windows);
        if (c.ownPolicy) {
            ScriptGuest own("software", true, ".hive");
            kxtest::MakeDirs(folder);
            kxguest::Copy(own.scriptsIni, guest.windows + L"\\System32\\GroupPolicy\\Machine\\Scripts\\scripts.ini");
            kxguest::Copy(own.gptIni, policy + L"\\gpt.ini");
            kxtest::WriteText(folder + L"\\" + kScript, "@echo theirs\r\n");
        }
        if (c.blockFolder) kxtest::WriteText(policy, "not a folder");
        if (c.refuseHive) kxtest::WriteBytes(guest.Hive(L"software"), garbage.data(), garbage.size());
        const Bytes hiveBefore = kxtest::ReadBytes(guest.Hive(L"software"));
        const std::wstring ini = guest.windows + L"\\System32\\GroupPolicy\\Machine\\Scripts\\scripts.ini";
        const Bytes iniBefore = c.ownPolicy ? kxtest::ReadBytes(ini) : Bytes{};
        const Bytes gptBefore = c.ownPolicy ? kxtest::ReadBytes(policy + L"\\gpt.ini") : Bytes{};

        EXPECT_EQ(g::InjectScript(guest.windows, c.missingScript ? host / L"absent.cmd" : script, L"-x"), c.code);

        EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"software")), hiveBefore);
        EXPECT_FALSE(kxtest::Exists(folder + L"\\" + kWrapper));
        if (c.ownPolicy) {
            const Bytes theirs = kxtest::ReadBytes(folder + L"\\" + kScript);
            EXPECT_EQ(std::string(theirs.begin(), theirs.end()), "@echo theirs\r\n");
            EXPECT_EQ(kxtest::ReadBytes(ini), iniBefore);
            EXPECT_EQ(kxtest::ReadBytes(policy + L"\\gpt.ini"), gptBefore);
        } else if (!c.blockFolder) {
            EXPECT_FALSE(kxtest::Exists(policy));
        }
    }
    // Names the registration refuses without touching anything.
    Guest guest("", "software", ".hive");
    EXPECT_EQ(g::Ivm_InjectStartupScriptToHive(guest.windows, L"..\\x.cmd", L"", nullptr),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(g::Ivm_InjectStartupScriptToHive(guest.windows, L"x.cmd", L"", nullptr),
              static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

// The whole copy-and-register on a real hive file, loading its own hive;
// the same on Wine's registry; the file is left for hivex to compare.
TEST(StartupScriptFile, EngineFileMatchesWinesRegistry) {
    kxtest::ScratchDir host;
    const std::wstring script = host / L"setup net.cmd";
    kxtest::WriteText(script, "@echo ran\r\n");
    Guest file("", "software-scripts", ".hive");
    ASSERT_EQ(g::InjectScript(file.windows, script, L"-x 1"), 0u);
    EXPECT_EQ(kxtest::ReadBytes(g::StartupScriptFolder(file.windows) + L"\\" + kScript), kxtest::ReadBytes(script));

    Guest wine("", "software-scripts", ".reg");
    std::unique_ptr<HiveLoader> software;
    ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, wine.windows, &software), 0u);
    ASSERT_EQ(software->GetBackend(), HiveLoader::Backend::kSystem);
    kxtest::MakeDirs(g::StartupScriptFolder(wine.windows));
    kxguest::Copy(script, g::StartupScriptFolder(wine.windows) + L"\\" + kScript);
    ASSERT_EQ(g::Ivm_InjectStartupScriptToHive(wine.windows, kScript, L"-x 1", software.get()), 0u);
    kxguest::LeaveForHivex(file.Hive(L"software"), "software-scripts-injected", kxguest::DumpHive(*software));
}

}  // namespace
