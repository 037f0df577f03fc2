// kxha guest against the guest hive fixtures (written by hivex from their
// descriptions): what it reports, its failures, and that it never changes a
// byte of a guest, not even of a dirty hive.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
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

// A guest "Windows" folder under `root` whose config folder holds the named
// fixture hives (target name -> fixture file) and `extra` files as given.
std::wstring Guest(const std::wstring& root, const std::map<std::wstring, std::string>& hives,
                   const std::map<std::wstring, std::vector<uint8_t>>& extra = {}) {
    const std::wstring windows = root + L"\\Windows", config = windows + L"\\system32\\config\\";
    kxtest::MakeDirs(config);
    for (const auto& [name, file] : hives) kxhatest::Put(file, config + name);
    for (const auto& [name, bytes] : extra) kxtest::WriteBytes(config + name, bytes.data(), bytes.size());
    return windows;
}

// The system hive as a write cut off half-way leaves it: primary sequence
// number ahead of the secondary, the base block's checksum valid.
std::vector<uint8_t> DirtySystem() {
    auto b = kxtest::ReadBytes(Fixture("system.hive"));
    uint32_t v, sum = 0;
    std::memcpy(&v, b.data() + 4, 4);
    ++v;
    std::memcpy(b.data() + 4, &v, 4);
    for (size_t i = 0; i < 508; i += 4) {
        std::memcpy(&v, b.data() + i, 4);
        sum ^= v;
    }
    std::memcpy(b.data() + 508, &sum, 4);
    return b;
}

// Every file below a folder with its bytes.
std::map<std::wstring, std::vector<uint8_t>> Snapshot(const std::wstring& folder) {
    std::map<std::wstring, std::vector<uint8_t>> files;
    WIN32_FIND_DATAW fd;
    kx::unique_hfind find(::FindFirstFileW((folder + L"\\*").c_str(), &fd));
    for (bool more = find.valid(); more; more = ::FindNextFileW(find.get(), &fd)) {
        const std::wstring name = fd.cFileName, path = folder + L"\\" + name;
        if (name == L"." || name == L"..") continue;
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
            files.merge(Snapshot(path));
        else
            files[path] = kxtest::ReadBytes(path);
    }
    return files;
}

// Runs of spaces as one, so that a line reads "name TYPE data".
std::string Squeezed(const std::string& s) {
    std::string out;
    for (char c : s)
        if (c != ' ' || out.empty() || out.back() != ' ') out += c;
    return out;
}

// Whether the output, spaces squeezed, has `line` as a whole line.
bool HasLine(const Result& r, const std::string& line) {
    std::string text(1, '\n'), needle(1, '\n');
    text += Squeezed(r.out);
    needle += line;
    needle += '\n';
    return text.find(needle) != std::string::npos;
}

// A JSON text's syntax, by recursive descent; true when the whole text is
// one value (followed by a line end).
struct Json {
    const std::string& s;
    size_t i = 0;
    void Ws() { while (i < s.size() && (s[i] == ' ' || s[i] == '\n')) ++i; }
    bool Lit(const char* w) { return s.compare(i, std::strlen(w), w) == 0 && (i += std::strlen(w), true); }
    bool String() {
        if (!Lit("\"")) return false;
        for (; i < s.size() && s[i] != '"'; ++i)
            if (static_cast<unsigned char>(s[i]) < 0x20 || (s[i] == '\\' && !std::strchr("\"\\/bfnrtu", s[++i]))) return false;
        return Lit("\"");
    }
    template <class F>
    bool List(char open, char close, F item) {
        if (!Lit(std::string(1, open).c_str())) return false;
        Ws();
        if (Lit(std::string(1, close).c_str())) return true;
        do {
            Ws();
            if (!item()) return false;
            Ws();
        } while (Lit(","));
        return Lit(std::string(1, close).c_str());
    }
    bool Value() {
        Ws();
        if (i < s.size() && (s[i] == '-' || isdigit(static_cast<unsigned char>(s[i])))) {
            while (i < s.size() && std::strchr("-+.eE0123456789", s[i])) ++i;
            return true;
        }
        return String() || Lit("true") || Lit("false") || Lit("null") ||
               List('[', ']', [&] { return Value(); }) ||
               List('{', '}', [&] { return String() && (Ws(), Lit(":")) && Value(); });
    }
    bool Whole() { return Value() && Lit("\n") && i == s.size(); }
};

}  // namespace

TEST(KxhaGuest, InfoReportsEachGuestAndChangesNothing) {
    ScratchDir d;
    const std::wstring w7 = Guest(d / L"w7", {{L"system", "system.hive"}, {L"software", "software.hive"}},
                                  {{L"SAM", std::vector<uint8_t>(8192, 'x')}});
    const std::wstring dirty = Guest(d / L"dirty", {{L"software", "software-nosp.hive"}}, {{L"system", DirtySystem()}});
    const std::wstring cs12 = Guest(d / L"cs12", {{L"system", "system-cs12.hive"}, {L"SECURITY", "system-1.5.hive"}});
    const std::wstring noSystem = Guest(d / L"nosystem", {{L"software", "software.hive"}});
    const auto before = Snapshot(d.path());
    auto bytes = [](const char* file) { return std::to_string(kxtest::ReadBytes(Fixture(file)).size()) + " bytes"; };
    const std::string system = bytes("system.hive"), software = bytes("software.hive");
    const struct {
        std::wstring folder;
        DWORD code;
        std::vector<std::string> lines;  // each a whole line of the output, spaces squeezed
    } cases[] = {
        {w7, 0, {"backend: offline engine (read-only)", " system " + system + " clean format 1.3",
                 " software " + software + " clean format 1.3", " SAM 8192 bytes refused by the engine, rc = 1009",
                 " SECURITY missing", "Windows version: 6.1", "Service pack: 1", "Product name: Windows 7 Professional",
                 "Current control set: ControlSet001", "Computer name: WIN7-GUEST"}},
        // Two backslashes before the closing quote: one once the command line is parsed.
        {w7 + L"\\\\", 0, {"Current control set: ControlSet001", "Computer name: WIN7-GUEST"}},
        {dirty, 0, {" system " + system + " dirty format 1.3", "Windows version: 5.2", "Service pack: 0",
                    "Product name: Microsoft Windows Server 2003 R2", "Current control set: ControlSet001"}},
        {cs12, 0, {"Current control set: ControlSet0012", "Computer name: GUEST-SET12",
                   " SECURITY " + bytes("system-1.5.hive") + " clean format 1.5", " software missing", "Windows version: 0.0"}},
        {d / L"absent", 1, {"error: guest info failed, rc = 10 (0x0000000A): no Windows folder " + kxtest::Narrow(d / L"absent")}},
        {noSystem, 1, {"error: guest info failed, rc = 10 (0x0000000A): no system hive at " +
                       kxtest::Narrow(noSystem + L"\\system32\\config\\system")}},
    };
    for (const auto& c : cases) {
        const Result r = Kxha(L"guest info " + Q(c.folder));
        EXPECT_EQ(r.code, c.code) << r.out;
        for (const auto& line : c.lines) EXPECT_TRUE(HasLine(r, line)) << line << "\n" << r.out;
        const Result j = Kxha(L"guest info " + Q(c.folder) + L" --json");
        EXPECT_EQ(j.code, c.code);
        EXPECT_EQ(Json{j.out}.Whole(), c.code == 0) << j.out;
    }
    EXPECT_TRUE(Has(Kxha(L"guest info " + Q(dirty) + L" --json"), "\"dirty\": true, \"format\": \"1.3\""));
    EXPECT_TRUE(Has(Kxha(L"guest info " + Q(cs12) + L" --json"), "\"current_control_set\": \"ControlSet0012\""));
    // Not a byte changed, no file added (no repaired header, no logs).
    EXPECT_TRUE(Snapshot(d.path()) == before);
}

TEST(KxhaGuest, RegShowsKeysAndValuesWithTheirTypes) {
    ScratchDir d;
    const std::wstring system = Q(Fixture("system.hive")), software = Q(Fixture("software.hive"));
    const std::wstring dirtyFile = d / L"system";
    const auto dirty = DirtySystem();
    kxtest::WriteBytes(dirtyFile, dirty.data(), dirty.size());
    const struct {
        std::wstring args;
        DWORD code;
        std::vector<std::string> lines;  // whole lines, spaces squeezed
        std::string absent = "";         // a piece the output must not hold
    } cases[] = {
        {system + L" ControlSet001\\Services\\atapi", 0,
         {"[ControlSet001\\Services\\atapi]", " ImagePath REG_EXPAND_SZ system32\\DRIVERS\\atapi.sys",
          " Start REG_DWORD 0x00000000 (0)", " Owners REG_MULTI_SZ mshdc.inf", " Group REG_SZ SCSI miniport"}},
        {system + L" \\ControlSet001\\Services\\W32Time\\", 0,
         {" DependOnService REG_MULTI_SZ RpcSs | Tcpip", " Type REG_DWORD 0x00000020 (32)",
          " FailureActions REG_BINARY 80 51 01 00 00 00 00 00 00 00 00 00 03 00 00 00 14 00 00 00 01 00 00 00 60 ea 00 "
          "00 01 00 00 00 ... 44 bytes",
          "[ControlSet001\\Services\\W32Time\\Parameters]", " Type REG_SZ NTP"}},
        {system + L" ControlSet001\\Control\\SafeBoot --depth 1", 0,
         {" AlternateShell REG_SZ cmd.exe", "[ControlSet001\\Control\\SafeBoot\\Network]"}, "AppMgmt"},
        {system + L" ControlSet001\\Control\\SafeBoot\\Network\\AppMgmt", 0, {" (Default) REG_SZ Service"}},
        {system + L" \"ControlSet002\\Control\\Print\\Printers\\B\u00fcrodrucker\"", 0,
         {"[ControlSet002\\Control\\Print\\Printers\\B\xc3\xbcrodrucker]", " Name REG_SZ B\xc3\xbcrodrucker"}},
        {software + L" \"Microsoft\\Windows NT\\CurrentVersion\" --depth 0", 0,
         {" InstallTime REG_QWORD 0x01cea82b7f3c1e00 (130226344012029440)", " CurrentVersion REG_SZ 6.1",
          " RegisteredOwner REG_SZ J\xc3\xbcrgen Wei\xc3\x9f"}, "Winlogon"},
        {Q(dirtyFile) + L" ControlSet002\\Control\\ComputerName\\ComputerName", 0, {" ComputerName REG_SZ WIN7-OLDNAME"}},
        {system + L" ControlSet001\\Services\\nope", 1,
         {"error: opening the key [ControlSet001\\Services\\nope] failed, rc = 2 (0x00000002): no such key in the hive"}},
        {Q(Fixture("system.reg")), 1, {}, "REG_"},
        {Q(d / L"none"), 1, {}, "REG_"},
        {L"", 2, {"usage: kxha guest info <Windows folder> [--json]"}},
    };
    for (const auto& c : cases) {
        const Result r = Kxha(L"guest reg " + c.args);
        EXPECT_EQ(r.code, c.code) << kxtest::Narrow(c.args) << "\n" << r.out;
        for (const auto& line : c.lines) EXPECT_TRUE(HasLine(r, line)) << line << "\n" << r.out;
        EXPECT_FALSE(!c.absent.empty() && Has(r, c.absent)) << r.out;
    }
    EXPECT_TRUE(kxtest::ReadBytes(dirtyFile) == dirty);

    // The whole hive as a tree: valid JSON with typed data.
    const Result j = Kxha(L"guest reg " + system + L" --json");
    ASSERT_EQ(j.code, 0u);
    EXPECT_TRUE(Json{j.out}.Whole()) << j.out.substr(0, 400);
    for (const char* piece : {"{\"path\": \"ControlSet001\\\\Services\\\\W32Time\\\\Parameters\", \"values\": [",
                              "{\"name\": \"DependOnService\", \"type\": \"REG_MULTI_SZ\", \"size\": 26, \"data\": [\"RpcSs\", \"Tcpip\"]}",
                              "{\"name\": \"Type\", \"type\": \"REG_DWORD\", \"size\": 4, \"data\": 32}",
                              "{\"name\": \"LOGON_BANNER\", \"type\": \"REG_SZ\", \"size\": 44, \"data\": \"Say \\\"hi\\\" to C:\\\\Users\\\\\"}"})
        EXPECT_TRUE(Has(j, piece)) << piece;
}
