// kxha guest inject-drivers / ec2: runs the library's boot driver injection
// or EC2 preparation on an offline Windows folder and prints what changed.
// The keys are read before and after with the read-only hive engine (the
// tool cannot open the library's loaded hives); the change is made through
// the exports, which load and unload the hives themselves.
#include <windows.h>

#include <map>

#include "KestrixHA/guest_drivers.h"
#include "commands.h"
#include "guest_hive.h"
#include "output.h"

namespace kxha {

namespace regf = kx::regf;

namespace {

// "<key>\t<value name>" -> the value shown as text; "<key>\t" for a key.
using Snapshot = std::map<std::wstring, std::wstring>;

std::wstring Show(const regf::Value& v) {
    switch (v.type) {
        case REG_SZ: return L"\"" + ValueText(v) + L"\"";
        case REG_EXPAND_SZ: return L"expand:\"" + ValueText(v) + L"\"";
        case REG_DWORD:
            if (auto n = ValueNumber(v)) return L"dword:" + std::to_wstring(*n);
            break;
        case REG_MULTI_SZ: {
            std::wstring s = L"multi:";
            for (const std::wstring& item : ValueItems(v)) s += L"\"" + item + L"\" ";
            return s;
        }
    }
    return L"type " + std::to_wstring(v.type) + L", " + std::to_wstring(v.data.size()) + L" bytes";
}

void Take(const regf::Hive& hive, regf::Key key, const std::wstring& path, int depth, Snapshot* out) {
    (*out)[path + L"\t"] = L"";
    std::u16string name;
    regf::Value value;
    for (uint32_t i = 0; hive.EnumValue(key, i, &name, &value) == regf::kOk; ++i)
        (*out)[path + L"\t" + Wide(name)] = Show(value);
    regf::Key child;
    for (uint32_t i = 0; depth > 0 && hive.EnumSubkey(key, i, &name, &child) == regf::kOk; ++i)
        Take(hive, child, path + L"\\" + Wide(name), depth - 1, out);
}

// The keys below the current control set that the operation may touch.
Snapshot Read(const std::wstring& systemHive, const std::vector<std::wstring>& keys) {
    Snapshot s;
    const GuestHive g = OpenGuestHive(systemHive);
    if (!g.hive) return s;
    const std::wstring set = L"ControlSet00" + std::to_wstring(ReadDword(*g.hive, L"Select", L"Current").value_or(1));
    for (const std::wstring& path : keys) {
        regf::Key key;
        if (g.hive->OpenKey(g.hive->Root(), U16(set + L"\\" + path), &key) == regf::kOk)
            Take(*g.hive, key, set + L"\\" + path, 1, &s);
    }
    return s;
}

std::wstring Changes(const Snapshot& before, const Snapshot& after) {
    std::wstring o;
    for (const auto& [where, now] : after) {
        const size_t tab = where.find(L'\t');
        const std::wstring key = where.substr(0, tab), name = where.substr(tab + 1);
        const auto old = before.find(where);
        if (name.empty()) {
            if (old == before.end()) o += L"+ " + key + L"\n";
        } else if (old == before.end()) {
            o += L"    " + key + L" " + name + L" = " + now + L"\n";
        } else if (old->second != now) {
            o += L"    " + key + L" " + name + L": " + old->second + L" -> " + now + L"\n";
        }
    }
    return o.empty() ? L"no changes\n" : o;
}

std::wstring Under(const std::wstring& folder, const wchar_t* rel) {
    return folder + (folder.back() == L'\\' || folder.back() == L'/' ? L"" : L"\\") + rel;
}

bool IsFile(const std::wstring& path) {
    const DWORD a = ::GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

int RunFixup(const std::wstring& folder, const wchar_t* what, const std::vector<std::wstring>& keys,
             DWORD (*fixup)(const std::wstring&)) {
    const DWORD a = ::GetFileAttributesW(folder.c_str());
    if (a == INVALID_FILE_ATTRIBUTES || !(a & FILE_ATTRIBUTE_DIRECTORY))
        return Fail(what, ERROR_BAD_ENVIRONMENT, (L"no Windows folder " + folder).c_str());
    const std::wstring hive = Under(folder, L"system32\\config\\system");
    const wchar_t* const files[] = {L"IntelIde.sys", L"lsi_scsi.sys", L"symmpi.sys"};
    bool had[3];
    for (int i = 0; i < 3; ++i) had[i] = IsFile(Under(folder, L"System32\\Drivers\\") + files[i]);
    const Snapshot before = Read(hive, keys);
    if (DWORD rc = fixup(folder)) return Fail(what, rc);
    std::wstring o = Changes(before, Read(hive, keys));
    for (int i = 0; i < 3; ++i)
        if (!had[i] && IsFile(Under(folder, L"System32\\Drivers\\") + files[i]))
            o += L"+ file System32\\Drivers\\" + std::wstring(files[i]) + L"\n";
    Out(o);
    return 0;
}

DWORD Inject(const std::wstring& folder) { return InjectIDEDriver(folder); }
DWORD Ec2(const std::wstring& folder) { return InjectDriverForEC2Ex(folder, nullptr); }

}  // namespace

int GuestInjectDrivers(const std::wstring& folder) {
    return RunFixup(folder, L"InjectIDEDriver",
                    {L"Control\\CriticalDeviceDatabase", L"Services\\atapi", L"Services\\IntelIde", L"Services\\PCIIde",
                     L"Services\\LSI_SCSI", L"Services\\symmpi"},
                    Inject);
}

int GuestEc2(const std::wstring& folder) {
    return RunFixup(folder, L"InjectDriverForEC2Ex",
                    {L"Services\\rhelscsi", L"Control\\TimeZoneInformation", L"Services\\W32Time"}, Ec2);
}

}  // namespace kxha
