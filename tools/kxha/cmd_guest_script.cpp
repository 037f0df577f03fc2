// kxha guest add-startup-script: copies a script into an offline guest and
// registers it as a machine startup script that runs once, then prints the
// policy entries, ini keys and files that changed. The hive is read before
// and after with the read-only engine; the change goes through InjectScript.
#include <windows.h>

#include <map>

#include "KestrixHA/guest_script.h"
#include "commands.h"
#include "guest_hive.h"
#include "output.h"

namespace kxha {

namespace regf = kx::regf;

namespace {

// "<where>" -> shown text, for every line that may change.
using State = std::map<std::wstring, std::wstring>;

const wchar_t* const kTrees[] = {L"Microsoft\\Windows\\CurrentVersion\\Group Policy\\Scripts\\Startup",
                                 L"Microsoft\\Windows\\CurrentVersion\\Group Policy\\State\\Machine\\Scripts\\Startup"};

void Entries(const regf::Hive& hive, regf::Key key, const std::wstring& path, int depth, State* out) {
    std::vector<std::pair<std::wstring, regf::Value>> values;
    (void)ReadValues(hive, key, &values);
    for (const auto& [name, v] : values) (*out)[L"reg " + path + L" " + name] = ShownData(v, false);
    std::u16string name;
    regf::Key child;
    for (uint32_t i = 0; depth > 0 && hive.EnumSubkey(key, i, &name, &child) == regf::kOk; ++i)
        Entries(hive, child, path + L"\\" + Wide(name), depth - 1, out);
}

void IniSection(const std::wstring& file, const wchar_t* section, State* out) {
    wchar_t buffer[8192];
    const DWORD n = ::GetPrivateProfileSectionW(section, buffer, 8192, file.c_str());
    for (const wchar_t* p = buffer; p < buffer + n && *p; p += wcslen(p) + 1) {
        const std::wstring line = p;
        const size_t eq = line.find(L'=');
        (*out)[file.substr(file.rfind(L'\\') + 1) + L" [" + section + L"] " + line.substr(0, eq)] =
            eq == std::wstring::npos ? L"" : line.substr(eq + 1);
    }
}

State Read(const std::wstring& windows, const std::wstring& scriptName) {
    State s;
    if (const GuestHive g = OpenGuestHive(windows + L"\\system32\\config\\software"); g.hive) {
        for (const wchar_t* tree : kTrees) {
            regf::Key key;
            if (g.hive->OpenKey(g.hive->Root(), U16(tree), &key) == regf::kOk) Entries(*g.hive, key, tree, 2, &s);
        }
    }
    const std::wstring policy = windows + L"\\System32\\GroupPolicy";
    IniSection(policy + L"\\Machine\\Scripts\\scripts.ini", L"Startup", &s);
    IniSection(policy + L"\\gpt.ini", L"General", &s);
    const std::wstring folder = policy + L"\\Machine\\Scripts\\Startup\\";
    WIN32_FIND_DATAW found;
    for (const std::wstring& name : {scriptName, std::wstring(L"kxonce-*.cmd")}) {
        HANDLE h = ::FindFirstFileW((folder + name).c_str(), &found);
        if (h == INVALID_HANDLE_VALUE) continue;
        do s[L"file " + folder + found.cFileName] = std::to_wstring(found.nFileSizeLow) + L" bytes";
        while (::FindNextFileW(h, &found));
        ::FindClose(h);
    }
    return s;
}

}  // namespace

int GuestAddStartupScript(const std::vector<std::wstring>& pos) {
    std::wstring windows = pos[1];
    while (!windows.empty() && (windows.back() == L'\\' || windows.back() == L'/')) windows.pop_back();
    const std::wstring script = pos[2], parameters = pos.size() > 3 ? pos[3] : L"";
    const std::wstring name = script.substr(script.find_last_of(L"\\/") + 1);
    const State before = Read(windows, name);
    if (DWORD rc = InjectScript(windows, script, parameters)) return Fail(L"InjectScript", rc);
    std::wstring o;
    for (const auto& [where, now] : Read(windows, name)) {
        const auto old = before.find(where);
        if (old == before.end()) o += L"+ " + where + L" = " + now + L"\n";
        else if (old->second != now) o += L"~ " + where + L": " + old->second + L" -> " + now + L"\n";
    }
    Out(o.empty() ? L"no changes\n" : o);
    return 0;
}

}  // namespace kxha
