// kxha guest diff / fixup and the demo's guest stage. The diff is checked
// against one worked out here from hivex's dumps of the same hives; the
// repair runs on a scratch copy of the demo guest (hive files written by
// hivex from the descriptions in tools/kxha/demo).
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Fixture;
using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;
using kxhatest::Result;
using kxtest::ScratchDir;

namespace {

std::wstring Wide(const std::string& s) {
    std::wstring w(::MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), static_cast<int>(w.size()));
    return w;
}

std::string Upper(const std::string& s) {
    std::wstring w = Wide(s);
    if (!w.empty()) ::CharUpperBuffW(w.data(), static_cast<DWORD>(w.size()));
    return kxtest::Narrow(w);
}

std::string Json(const std::string& s) {
    std::string o = "\"";
    for (char c : s) o += (c == '\\' || c == '"') ? std::string("\\") + c : std::string(1, c);
    return o + "\"";
}

// The rows a diff of two hives must have, from hivex's dumps ("K\t<path>",
// "V\t<path>\t<name>\t<type>\t<hex>"), names compared without regard to
// case: each as the start of its JSON object.
std::set<std::string> DumpDiff(const std::string& dumpA, const std::string& dumpB) {
    struct Side {
        std::map<std::string, std::string> keys;                                  // folded -> path
        std::map<std::string, std::pair<std::string, std::string>> values;        // folded -> (name, type+data)
        std::map<std::string, std::string> valueKey;                              // folded value -> folded key
    } side[2];
    for (int i = 0; i < 2; ++i) {
        const auto bytes = kxtest::ReadBytes(Fixture(i ? dumpB : dumpA));
        std::istringstream in(std::string(bytes.begin(), bytes.end()));
        for (std::string line; std::getline(in, line);) {
            std::vector<std::string> f;
            std::istringstream fields(line);
            for (std::string x; std::getline(fields, x, '\t');) f.push_back(x);
            if (line.rfind("K\t", 0) == 0) side[i].keys[Upper(line.substr(2))] = line.substr(2);
            if (f.size() == 4) f.push_back("");
            if (f.size() == 5 && f[0] == "V") {
                side[i].values[Upper(f[1]) + "\t" + Upper(f[2])] = {f[2], f[3] + ":" + f[4]};
                side[i].valueKey[Upper(f[1]) + "\t" + Upper(f[2])] = Upper(f[1]);
            }
        }
    }
    const auto row = [](const char* kind, const std::string& key, const std::string* name) {
        return std::string("{\"change\": \"") + kind + "\", \"key\": " + Json(key) + ", \"value\": " +
               (name ? Json(*name) : "null");
    };
    const auto shownKey = [&](const std::string& folded) {
        return side[1].keys.count(folded) ? side[1].keys.at(folded) : side[0].keys.at(folded);
    };
    std::set<std::string> rows;
    for (int i = 0; i < 2; ++i) {
        for (const auto& [k, path] : side[i].keys)
            if (!side[1 - i].keys.count(k)) rows.insert(row(i ? "added" : "removed", path, nullptr));
        for (const auto& [id, v] : side[i].values) {
            const auto other = side[1 - i].values.find(id);
            if (other == side[1 - i].values.end())
                rows.insert(row(i ? "added" : "removed", shownKey(side[i].valueKey.at(id)), &v.first));
            else if (i == 1 && other->second.second != v.second)
                rows.insert(row("changed", shownKey(side[i].valueKey.at(id)), &v.first));
        }
    }
    return rows;
}

// The line of the output that holds every piece, in order.
bool HasLine(const Result& r, const std::vector<std::string>& pieces) {
    std::istringstream in(r.out);
    for (std::string line; std::getline(in, line);) {
        size_t at = 0;
        bool all = true;
        for (const std::string& p : pieces) {
            at = line.find(p, at);
            if (at == std::string::npos) {
                all = false;
                break;
            }
            at += p.size();
        }
        if (all) return true;
    }
    return false;
}

// A boot volume holding the demo guest, from the demo data next to kxha.exe.
std::wstring DemoGuest(const std::wstring& root, const std::string& systemFixture = "") {
    const std::wstring data = kxtest::BinDir() + L"\\demo-data\\", windows = root + L"\\Windows";
    const std::wstring lsi = windows + L"\\System32\\DriverStore\\FileRepository\\lsi_scsi.inf_amd64_1";
    kxtest::MakeDirs(windows + L"\\System32\\config");
    kxtest::MakeDirs(windows + L"\\System32\\Drivers");
    kxtest::MakeDirs(lsi);
    kxtest::MakeDirs(root + L"\\Boot");
    const std::pair<std::wstring, std::wstring> files[] = {
        {systemFixture.empty() ? data + L"guest-system.hive" : Fixture(systemFixture), windows + L"\\System32\\config\\system"},
        {data + L"guest-software.hive", windows + L"\\System32\\config\\software"},
        {data + L"bcd.hive", root + L"\\Boot\\BCD"},
        {data + L"hal.dll", windows + L"\\System32\\hal.dll"}};
    for (const auto& [from, to] : files) {
        const auto bytes = kxtest::ReadBytes(from);
        kxtest::WriteBytes(to, bytes.data(), bytes.size());
    }
    kxtest::WriteText(windows + L"\\System32\\Drivers\\intelide.sys", "ide");
    kxtest::WriteText(lsi + L"\\lsi_scsi.sys", "lsi");
    return windows;
}

}  // namespace

TEST(KxhaGuestDiff, AgreesWithHivexDumps) {
    const struct {
        const char *a, *b;
        size_t rows;
    } pairs[] = {
        {"diff-before", "diff-after", 12}, {"diff-after", "diff-before", 12}, {"system", "system-cs12", 0},
        {"software", "software-60", 0},     {"bcd-bios", "bcd-uefi", 0},       {"system", "system", 0},
    };
    for (const auto& p : pairs) {
        const Result r = Kxha(L"guest diff " + Q(Fixture(std::string(p.a) + ".hive")) + L" " +
                              Q(Fixture(std::string(p.b) + ".hive")) + L" --json");
        ASSERT_EQ(r.code, 0u) << p.a << " " << p.b << "\n" << r.out;
        const std::set<std::string> rows = DumpDiff(std::string(p.a) + ".dump", std::string(p.b) + ".dump");
        if (p.rows) {
            EXPECT_EQ(rows.size(), p.rows) << p.a;
        }
        EXPECT_TRUE(Has(r, "\"count\": " + std::to_string(rows.size()) + ",")) << p.a << " " << p.b << "\n" << r.out;
        for (const std::string& row : rows) EXPECT_TRUE(Has(r, row)) << p.a << " " << p.b << ": " << row;
    }
}

TEST(KxhaGuestDiff, TableShowsTypesAndDataAndFailuresCarryTheCode) {
    ScratchDir d;
    kxtest::WriteText(d / L"notes.txt", std::string(8192, 'x'));
    const std::wstring a = Q(Fixture("diff-before.hive")), b = Q(Fixture("diff-after.hive"));
    const Result table = Kxha(L"guest diff " + a + L" " + b);
    EXPECT_EQ(table.code, 0u) << table.out;
    const std::vector<std::string> lines[] = {
        {"* Services\\Alpha", "(Default)", "REG_SZ default before", "REG_SZ default after"},
        {"* Services\\Alpha", "Start", "REG_DWORD 0x00000003 (3)", "REG_DWORD 0x00000002 (2)"},
        {"- Services\\Alpha", "Gone", "REG_SZ removed value", "(absent)"},
        {"+ Services\\Alpha", "Neu €", "(absent)", "REG_SZ größer"},
        {"* Services\\Beta\\Parameters", "Mode", "REG_SZ 1", "REG_DWORD 0x00000001 (1)"},
        {"* Services\\Same", "List", "REG_MULTI_SZ a | b", "REG_MULTI_SZ a | b | c"},
        {"- Services\\Löschen\\Unterschlüssel", "(key)", "(key)", "(absent)"},
        {"+ Services\\Neu\\Tief", "Zahl", "(absent)", "REG_QWORD 0x0000000000000005 (5)"},
    };
    for (const auto& l : lines) EXPECT_TRUE(HasLine(table, l)) << l[0] << " " << l[1] << "\n" << table.out;
    EXPECT_FALSE(Has(table, "CaseOnly")) << table.out;
    EXPECT_FALSE(Has(table, "CASEONLY")) << table.out;

    const struct {
        std::wstring args;
        DWORD code;
        std::string out;
    } cases[] = {
        {L"guest diff " + a + L" " + a, 0, "no changes\n"},
        {L"guest diff " + a + L" " + Q(d / L"none.hive"), 1, "none.hive failed, rc = 2 "},
        {L"guest diff " + Q(d / L"notes.txt") + L" " + b, 1, "not a well-formed registry hive"},
        {L"guest diff " + a, 2, "guest diff <hive file A>"},
    };
    for (const auto& c : cases) {
        const Result r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << kxtest::Narrow(c.args) << "\n" << r.out;
        EXPECT_TRUE(Has(r, c.out)) << kxtest::Narrow(c.args) << "\n" << r.out;
    }
}

TEST(KxhaGuestFixup, PrintsWhatTheRepairChangedPerTarget) {
    struct Case {
        const char* what;
        std::wstring options;
        std::vector<std::vector<std::string>> lines;
        std::vector<std::string> absent;
    };
    const Case cases[] = {
        {"Hyper-V, all steps", L"--target hyperv --hostname WIN7-STANDBY-HYPERV --rdp --boot-volume ",
         {{"* ControlSet001\\Services\\IntelIde", "Start", "(3)", "(0)"},
          {"+ ControlSet001\\Services\\LSI_SCSI", "ImagePath", "(absent)", "REG_EXPAND_SZ System32\\DRIVERS\\lsi_scsi.sys"},
          {"* ControlSet001\\Services\\VMTools", "Start", "(2)", "(4)"},
          {"* ControlSet001\\Services\\vmicheartbeat", "Start", "(3)", "(2)"},
          {"* ControlSet001\\Control\\ComputerName\\ComputerName", "REG_SZ WIN7-VMW-01", "REG_SZ WIN7-STANDBY-HY"},
          {"RemoteDesktop-In-TCP", "Active=FALSE", "Active=True"},
          {"+ ControlSet001\\Services\\Tcpip\\Parameters", "DisableDynamicUpdate", "(absent)", "(1)"},
          {"* Veltrana\\Quillon\\Engine\\KbBackupDll", "SessionNumberActiveJobCrashed", "(17)", "(0)"},
          {"* Policies\\Microsoft\\Windows NT\\Terminal Services", "fDenyTSConnections", "(1)", "(0)"},
          {"+ ControlSet001\\Services\\qlnvmhelpersvc", "SetSafeBootFirst", "(absent)", "(1)"},
          {"BCD hive", "2 changes"},
          {"+ Objects\\{b2721d73-1db4-11e9-8c4e-a7f2d1c3e501}\\Elements\\25000080", "Element", "01 00 00 00 00 00 00 00"}},
         {}},
        {"VMware keeps its tools and turns Hyper-V's off", L"--target vmware",
         {{"* ControlSet001\\Services\\vmicheartbeat", "Start", "(3)", "(4)"}, {"software hive", "2 changes"}},
         {"VMTools", "vmvss", "fDenyTSConnections", "ComputerName", "BCD", "qlnvmhelpersvc"}},
        {"EC2 gets no boot drivers", L"--target ec2",
         {{"* ControlSet001\\Services\\VMTools", "Start", "(2)", "(4)"}},
         {"LSI_SCSI", "IntelIde", "CriticalDeviceDatabase"}},
    };
    for (const Case& c : cases) {
        ScratchDir d;
        const std::wstring windows = DemoGuest(d.path());
        const std::wstring options = c.options + (c.options.back() == L' ' ? Q(d.path()) : L"");
        const Result r = Kxha(L"guest fixup " + Q(windows) + L" " + options);
        EXPECT_EQ(r.code, 0u) << c.what << "\n" << r.out;
        for (const auto& l : c.lines) EXPECT_TRUE(HasLine(r, l)) << c.what << ": " << l[0] << "\n" << r.out;
        for (const auto& s : c.absent) EXPECT_FALSE(Has(r, s)) << c.what << ": " << s << "\n" << r.out;
        // The repair done, a second run finds nothing left to change.
        const Result again = Kxha(L"guest fixup " + Q(windows) + L" " + options);
        EXPECT_EQ(again.code, 0u) << c.what << "\n" << again.out;
        EXPECT_FALSE(Has(again, "+ ") || Has(again, "* ") || Has(again, "- ")) << c.what << "\n" << again.out;
    }
}

TEST(KxhaGuestFixup, StopsAtTheFailingStepAndKeepsWhatWasWritten) {
    ScratchDir d;
    const std::wstring windows = DemoGuest(d.path());
    const struct {
        std::wstring args;
        DWORD code;
        std::string out;
    } cases[] = {
        {L"guest fixup " + Q(windows) + L" --target hyper-v", 2, "usage: "},
        {L"guest fixup " + Q(d / L"NoSuch\\Windows") + L" --target hyperv", 1, "error: GetSystemHiveKeyEx failed, rc = 10 "},
        // No BCD store on the volume: the last step fails, after the hives were written.
        {L"guest fixup " + Q(windows) + L" --target hyperv --boot-volume " + Q(d / L"NoStore"), 1,
         "error: EnableVMBootInSafeBoot failed, rc = "},
    };
    for (const auto& c : cases) {
        const Result r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << kxtest::Narrow(c.args) << "\n" << r.out;
        EXPECT_TRUE(Has(r, c.out)) << kxtest::Narrow(c.args) << "\n" << r.out;
    }
    const Result diff = Kxha(L"guest diff " + Q(kxtest::BinDir() + L"\\demo-data\\guest-system.hive") + L" " +
                             Q(windows + L"\\System32\\config\\system"));
    EXPECT_TRUE(HasLine(diff, {"* ControlSet001\\Services\\IntelIde", "Start", "(3)", "(0)"})) << diff.out;
    EXPECT_FALSE(Has(diff, "qlnvmhelpersvc")) << diff.out;
}

TEST(KxhaDemo, GuestStageChecksTheRepairAgainstItsExpectation) {
    ScratchDir d;
    Result r = Kxha(L"demo " + Q(d / L"ok") + L" --guest-only --json");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"changes\": 47, \"expected\": 38, \"problems\": [], \"guest_match\": true")) << r.out;
    EXPECT_FALSE(Has(r, "\"destination\"")) << r.out;

    // A guest other than the one the demo expects: a Windows 7 system hive
    // of the test fixtures, whose changes fall partly outside the expected keys.
    const std::wstring data = d / L"data";
    kxtest::MakeDirs(data);
    for (const wchar_t* f : {L"guest-software.hive", L"bcd.hive", L"hal.dll"}) {
        const auto bytes = kxtest::ReadBytes(kxtest::BinDir() + L"\\demo-data\\" + f);
        kxtest::WriteBytes(data + L"\\" + f, bytes.data(), bytes.size());
    }
    const auto other = kxtest::ReadBytes(Fixture("system.hive"));
    kxtest::WriteBytes(data + L"\\guest-system.hive", other.data(), other.size());
    r = Kxha(L"demo " + Q(d / L"other") + L" --guest-only --guest-data " + Q(data));
    EXPECT_EQ(r.code, 1u) << r.out;
    EXPECT_TRUE(Has(r, "the guest's changes differ")) << r.out;
    EXPECT_TRUE(Has(r, "changed unexpectedly")) << r.out;
    EXPECT_TRUE(Has(r, "CriticalDeviceDatabase\\gendisk ClassGUID: changed unexpectedly")) << r.out;
    EXPECT_TRUE(Has(r, "system ControlSet001\\Services\\VMTools Start: unchanged, expected REG_DWORD 0x00000004 (4)")) << r.out;

    r = Kxha(L"demo " + Q(d / L"nodata") + L" --guest-only --guest-data " + Q(d / L"none"));
    EXPECT_EQ(r.code, 1u) << r.out;
    EXPECT_TRUE(Has(r, "copying the demo guest's")) << r.out;
}
