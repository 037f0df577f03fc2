// kxha guest: what an offline Windows installation's registry holds, read
// through the hive engine and never written (see guest_hive.h).
#include <windows.h>

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <iterator>

#include "commands.h"
#include "guest_hive.h"
#include "output.h"

namespace kxha {

namespace regf = kx::regf;

namespace {

const wchar_t* const kHiveNames[] = {L"system", L"software", L"SAM", L"SECURITY", L"DEFAULT"};
const wchar_t* const kBackend = L"offline engine (read-only)";

// What the guest's hives say about it, as the library reads it: the version
// from "CurrentVersion" ("%d.%d") and "CSDVersion" ("SERVICE PACK %d" once
// upper-cased), the current control set "ControlSet00" + "Current" (no
// zero-padding: 12 gives ControlSet0012), its computer name.
struct GuestFacts {
    int major = 0, minor = 0, servicePack = 0;
    std::wstring productName, controlSet, computerName;
};

GuestFacts ReadFacts(const GuestHive& system, const GuestHive& software) {
    GuestFacts f;
    if (software.hive) {
        const std::wstring cv = L"Microsoft\\windows NT\\CurrentVersion";
        if (auto v = ReadString(*software.hive, cv, L"CurrentVersion"); v && !v->empty())
            swscanf(v->c_str(), L"%d.%d", &f.major, &f.minor);
        if (auto v = ReadString(*software.hive, cv, L"CSDVersion"); v && !v->empty()) {
            std::wstring upper = v->substr(0, MAX_PATH);
            for (wchar_t& c : upper) c = static_cast<wchar_t>(std::towupper(c));
            swscanf(upper.c_str(), L"SERVICE PACK %d", &f.servicePack);
        }
        f.productName = ReadString(*software.hive, cv, L"ProductName").value_or(L"");
    }
    if (system.hive) {
        f.controlSet = L"ControlSet00" + std::to_wstring(ReadDword(*system.hive, L"Select", L"Current").value_or(1));
        f.computerName = ReadString(*system.hive, f.controlSet + L"\\Control\\ComputerName\\ComputerName", L"ComputerName")
                             .value_or(L"");
    }
    return f;
}

std::wstring State(const GuestHive& h) {
    if (!h.found) return L"missing";
    if (h.fileError) return L"unreadable, rc = " + Num(h.fileError);
    std::wstring s = h.headerRead ? (h.header.dirty ? L"dirty" : L"clean") : L"";
    if (h.rc) s += (s.empty() ? L"" : L", ") + std::wstring(L"refused by the engine, rc = ") + Num(h.rc);
    return s;
}

int GuestInfo(const std::vector<std::wstring>& pos, bool json) {
    const std::wstring& folder = pos[1];
    const DWORD attributes = ::GetFileAttributesW(folder.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || !(attributes & FILE_ATTRIBUTE_DIRECTORY))
        return Fail(L"guest info", ERROR_BAD_ENVIRONMENT, (L"no Windows folder " + folder).c_str());
    const std::wstring config =
        folder + (folder.back() == L'\\' || folder.back() == L'/' ? L"" : L"\\") + L"system32\\config\\";
    std::vector<GuestHive> hives;
    for (const wchar_t* name : kHiveNames) hives.push_back(OpenGuestHive(config + name));
    if (!hives[0].found)
        return Fail(L"guest info", ERROR_BAD_ENVIRONMENT, (L"no system hive at " + hives[0].path).c_str());
    const GuestFacts f = ReadFacts(hives[0], hives[1]);

    std::wstring o;
    if (json) {
        o = L"{\"windows_folder\": " + JsonString(folder) + L", \"backend\": " + JsonString(kBackend) + L", \"hives\": [";
        for (size_t i = 0; i < hives.size(); ++i) {
            const GuestHive& h = hives[i];
            o += (i ? L", " : L"") + std::wstring(L"{\"name\": ") + JsonString(kHiveNames[i]) + L", \"path\": " +
                 JsonString(h.path) + L", \"found\": " + (h.found ? L"true" : L"false");
            if (h.found)
                o += L", \"size\": " + Num(h.size) + L", \"rc\": " + Num(h.fileError ? h.fileError : h.rc);
            if (h.headerRead)
                o += L", \"dirty\": " + std::wstring(h.header.dirty ? L"true" : L"false") +
                     Printf(L", \"format\": \"1.%u\"", h.header.minorVersion);
            o += L"}";
        }
        o += Printf(L"], \"version\": \"%d.%d\", \"major\": %d, \"minor\": %d, \"service_pack\": %d", f.major,
                    f.minor, f.major, f.minor, f.servicePack) +
             L", \"product_name\": " + JsonString(f.productName) + L", \"current_control_set\": " +
             JsonString(f.controlSet) + L", \"computer_name\": " + JsonString(f.computerName) + L"}\n";
    } else {
        o = L"Windows folder:      " + folder + L"\nbackend:             " + kBackend + L"\n";
        for (const GuestHive& h : hives) {
            wchar_t line[160];
            const std::wstring name = h.path.substr(config.size());
            if (h.found && !h.fileError)
                swprintf(line, 160, L"  %-9ls %10llu bytes  %ls%ls\n", name.c_str(), h.size, State(h).c_str(),
                         h.headerRead ? Printf(L"  format 1.%u", h.header.minorVersion).c_str() : L"");
            else
                swprintf(line, 160, L"  %-9ls %ls\n", name.c_str(), State(h).c_str());
            o += line;
        }
        o += Printf(L"Windows version:     %d.%d\nService pack:        %d\n", f.major, f.minor, f.servicePack) +
             L"Product name:        " + f.productName + L"\nCurrent control set: " + f.controlSet +
             L"\nComputer name:       " + f.computerName + L"\n";
    }
    Out(o);
    return 0;
}

struct Walk {
    const regf::Hive& hive;
    bool json;
    long depth;  // levels below the starting key; negative: all
    std::wstring out;

    regf::Result Key(regf::Key key, const std::wstring& path, long level) {
        std::vector<std::pair<std::wstring, regf::Value>> values;
        regf::Result rc = ReadValues(hive, key, &values);
        if (rc) return rc;
        if (json) {
            out += L"{\"path\": " + JsonString(path) + L", \"values\": [";
            for (size_t i = 0; i < values.size(); ++i)
                out += (i ? L", " : L"") + std::wstring(L"{\"name\": ") + JsonString(values[i].first) +
                       L", \"type\": " + JsonString(TypeName(values[i].second.type)) + L", \"size\": " +
                       Num(values[i].second.data.size()) + L", \"data\": " + ShownData(values[i].second, true) + L"}";
            out += L"], \"subkeys\": [";
        } else {
            size_t nameWidth = 9, typeWidth = 0;  // "(Default)"
            for (const auto& [name, v] : values) {
                nameWidth = std::max(nameWidth, name.size());
                typeWidth = std::max(typeWidth, TypeName(v.type).size());
            }
            out += L"[" + (path.empty() ? std::wstring(L"\\") : path) + L"]\n";
            for (const auto& [name, v] : values) {
                std::wstring shown = name.empty() ? L"(Default)" : name, type = TypeName(v.type);
                std::wstring line = L"  " + shown + std::wstring(nameWidth - shown.size() + 2, L' ') + type +
                                    std::wstring(typeWidth - type.size() + 2, L' ') + ShownData(v, false);
                out += line.substr(0, line.find_last_not_of(L' ') + 1) + L"\n";
            }
        }
        for (uint32_t i = 0; depth < 0 || level < depth; ++i) {
            std::u16string name;
            regf::Key child;
            if ((rc = hive.EnumSubkey(key, i, &name, &child)) == regf::kNoMoreItems) break;
            if (rc) return rc;
            if (json && i) out += L", ";
            if ((rc = Key(child, path.empty() ? Wide(name) : path + L"\\" + Wide(name), level + 1))) return rc;
        }
        if (json) out += L"]}";
        return regf::kOk;
    }
};

int GuestReg(const std::vector<std::wstring>& pos, const Args& args) {
    std::wstring path = pos.size() > 2 ? pos[2] : L"";
    while (!path.empty() && path.front() == L'\\') path.erase(0, 1);
    while (!path.empty() && path.back() == L'\\') path.pop_back();
    const std::wstring depth = Option(args, L"--depth");
    const GuestHive g = OpenGuestHive(pos[1]);
    if (g.fileError) return Fail(L"opening " + pos[1], g.fileError);
    if (g.rc)
        return Fail(L"reading the hive " + pos[1], g.rc,
                    g.rc == regf::kBadDb ? L"not a well-formed registry hive" : nullptr);
    regf::Key key;
    if (regf::Result rc = g.hive->OpenKey(g.hive->Root(), U16(path), &key))
        return Fail(L"opening the key [" + path + L"]", rc, rc == regf::kNotFound ? L"no such key in the hive" : nullptr);
    Walk walk{*g.hive, HasFlag(args, L"--json"), depth.empty() ? -1 : wcstol(depth.c_str(), nullptr, 10), {}};
    if (regf::Result rc = walk.Key(key, path, 0)) return Fail(L"reading the hive " + pos[1], rc);
    Out(walk.out + (walk.json ? L"\n" : L""));
    return 0;
}

}  // namespace

// cmd_guest_boot.cpp
int GuestSafeBoot(const std::vector<std::wstring>& pos, const Args& args);
int GuestResetMarkers(const std::vector<std::wstring>& pos, const Args& args);

// cmd_guest_service.cpp
int GuestInjectService(const std::vector<std::wstring>& pos);

int CmdGuest(const Args& args) {
    const std::vector<std::wstring> pos = Positionals(args, {L"--depth", L"--target", L"--hostname", L"--boot-volume"});
    if (pos.size() == 2 && pos[0] == L"info") return GuestInfo(pos, HasFlag(args, L"--json"));
    if ((pos.size() == 2 || pos.size() == 3) && pos[0] == L"reg") return GuestReg(pos, args);
    if (pos.size() == 3 && pos[0] == L"safeboot") return GuestSafeBoot(pos, args);
    if (pos.size() == 2 && pos[0] == L"reset-markers") return GuestResetMarkers(pos, args);
    if (pos.size() == 2 && pos[0] == L"inject-drivers") return GuestInjectDrivers(pos[1]);
    if (pos.size() == 2 && pos[0] == L"ec2") return GuestEc2(pos[1]);
    if (pos.size() == 3 && pos[0] == L"diff") return GuestDiff(pos, args);
    if (pos.size() == 2 && pos[0] == L"fixup") return GuestFixup(pos, args);
    if (pos.size() == 3 && pos[0] == L"cd-letter") return GuestCdLetter(pos[1], pos[2]);
    if (pos.size() == 3 && pos[0] == L"inject-service") return GuestInjectService(pos);
    if ((pos.size() == 3 || pos.size() == 4) && pos[0] == L"add-startup-script") return GuestAddStartupScript(pos);
    Err(std::wstring(L"usage: ") + kGuestUsage + L"\n");
    return 2;
}

}  // namespace kxha
