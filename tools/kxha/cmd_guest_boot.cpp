// kxha guest safeboot / reset-markers: the boot fix-ups of the library run
// on an offline guest, with what they changed shown by reading the files
// before and after through the read-only engine (guest_hive.h).
#include <windows.h>

#include <cwchar>
#include <memory>
#include <optional>

#include "KestrixHA.h"
#include "commands.h"
#include "guest_hive.h"
#include "output.h"

namespace kxha {

namespace regf = kx::regf;

namespace {

const wchar_t* const kBootManager = L"{9dea862c-5cdd-4e70-acc1-f32b344d4795}";
const wchar_t* const kMarkers[] = {L"IVM_NETWORK_READY", L"IVM_PR_SCRIPT",     L"IVM_PR_EXIT_CODE", L"IVM_PR_ERROR_CODE",
                                   L"IVM_PR_PROCESS_ID", L"IVM_PR_START_TIME", L"IVM_PR_END_TIME"};

std::wstring Joined(std::wstring folder, const std::wstring& rest) {
    if (folder.empty() || (folder.back() != L'\\' && folder.back() != L'/')) folder += L'\\';
    return folder + rest;
}

// A value as one short text; nullopt when the key or the value is absent.
std::optional<std::wstring> Shown(const regf::Hive& hive, const std::wstring& path, const std::wstring& name) {
    regf::Key key;
    regf::Value v;
    if (hive.OpenKey(hive.Root(), U16(path), &key) || hive.GetValue(key, U16(name), &v)) return std::nullopt;
    if (v.type == regf::kRegSz || v.type == regf::kRegExpandSz) return ValueText(v);
    if (v.type == regf::kRegDword || v.type == regf::kRegQword) {
        if (auto n = ValueNumber(v)) return std::to_wstring(*n);
    }
    std::wstring hex = L"hex:";
    for (size_t i = 0; i < v.data.size() && i < 16; ++i) {
        wchar_t b[4];
        swprintf(b, 4, L"%02x", v.data[i]);
        hex += (i ? L"," : L"") + std::wstring(b);
    }
    return hex;
}

std::wstring Text(const std::optional<std::wstring>& v) { return v ? *v : L"(absent)"; }

std::wstring Change(const std::optional<std::wstring>& before, const std::optional<std::wstring>& after) {
    return before == after ? Text(after) + L" (unchanged)" : Text(before) + L" -> " + Text(after);
}

std::wstring ControlSet(const regf::Hive& system) {
    return L"ControlSet00" + std::to_wstring(ReadDword(system, L"Select", L"Current").value_or(1));
}

// What the safe-boot change touches, read from the files.
struct SafeBootView {
    std::optional<std::wstring> defaultEntry, element, entry, flag;
    std::wstring controlSet;
};

SafeBootView ReadSafeBoot(const std::wstring& store, const std::wstring& systemHive) {
    SafeBootView v;
    if (GuestHive bcd = OpenGuestHive(store); bcd.hive) {
        v.defaultEntry = Shown(*bcd.hive, L"Objects\\" + std::wstring(kBootManager) + L"\\Elements\\23000003", L"Element");
        if (v.defaultEntry)
            v.element = Shown(*bcd.hive, L"Objects\\" + *v.defaultEntry + L"\\Elements\\25000080", L"Element");
    }
    if (GuestHive system = OpenGuestHive(systemHive); system.hive) {
        v.controlSet = ControlSet(*system.hive);
        v.entry = Shown(*system.hive, v.controlSet + L"\\Control\\SafeBoot\\Network\\qlnvmhelpersvc", L"");
        v.flag = Shown(*system.hive, v.controlSet + L"\\Services\\qlnvmhelpersvc", L"SetSafeBootFirst");
    }
    return v;
}

}  // namespace

int GuestSafeBoot(const std::vector<std::wstring>& pos, const Args& args) {
    const std::wstring& volume = pos[1];
    const std::wstring& windows = pos[2];
    const bool uefi = HasFlag(args, L"--uefi");
    const std::wstring store = Joined(volume, uefi ? L"EFI\\Microsoft\\Boot\\BCD" : L"Boot\\BCD");
    const std::wstring systemHive = Joined(windows, L"system32\\config\\system");
    const SafeBootView before = ReadSafeBoot(store, systemHive);
    const DWORD rc = EnableVMBootInSafeBoot(volume, windows, uefi ? 1 : 0);
    const SafeBootView after = ReadSafeBoot(store, systemHive);
    std::wstring o = L"BCD store:        " + store + L"\n  default entry:  " + Text(after.defaultEntry) +
                     L"\n  safeboot (25000080): " + Change(before.element, after.element) +
                     L"\nsystem hive:      " + systemHive + L"\n  " + after.controlSet +
                     L"\\Control\\SafeBoot\\Network\\qlnvmhelpersvc (Default): " + Change(before.entry, after.entry) +
                     L"\n  " + after.controlSet + L"\\Services\\qlnvmhelpersvc SetSafeBootFirst: " +
                     Change(before.flag, after.flag) + L"\n";
    Out(o);
    if (rc == ERROR_OPEN_FAILED) return Fail(L"guest safeboot", rc, L"the BCD store was not edited");
    return rc ? Fail(L"guest safeboot", rc) : 0;
}

int GuestResetMarkers(const std::vector<std::wstring>& pos, const Args& args) {
    const std::wstring& windows = pos[1];
    const bool hyperv = HasFlag(args, L"--hyperv");
    const std::wstring file = Joined(windows, hyperv ? L"system32\\config\\software" : L"system32\\config\\system");
    const auto read = [&](std::wstring* where) {
        std::vector<std::optional<std::wstring>> values;
        GuestHive g = OpenGuestHive(file);
        if (g.hive)
            *where = hyperv ? L"Microsoft\\Virtual Machine\\Guest"
                            : ControlSet(*g.hive) + L"\\Control\\Session Manager\\Environment";
        for (const wchar_t* m : kMarkers) values.push_back(g.hive ? Shown(*g.hive, *where, m) : std::nullopt);
        return values;
    };
    std::wstring where;
    const auto before = read(&where);
    RegistryHiveLoader* raw = nullptr;
    DWORD rc = hyperv ? GetSoftwareHiveKeyEx(windows, &raw) : GetSystemHiveKeyEx(windows, &raw);
    std::unique_ptr<RegistryHiveLoader> hive(raw);
    if (rc == 0) rc = ResetPRTag(hive.get(), hyperv ? 1 : 0);
    hive.reset();  // unloads: the engine writes the changes back here
    const auto after = read(&where);
    std::wstring o = L"hive:    " + file + L"\nmarkers: " + where + L"\n";
    for (size_t i = 0; i < before.size(); ++i) {
        wchar_t name[24];
        swprintf(name, 24, L"%-18ls", kMarkers[i]);
        o += L"  " + std::wstring(name) + L" " + Change(before[i], after[i]) + L"\n";
    }
    Out(o);
    return rc ? Fail(L"guest reset-markers", rc) : 0;
}

}  // namespace kxha
