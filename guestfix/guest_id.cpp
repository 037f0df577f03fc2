#include "guestfix/guest_id.h"

#include <cwchar>

#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

// One row per version and edition: the identifiers for x86 and x64 (null
// where the release never shipped in that architecture). Releases that
// share major.minor (the 10.0 family) are told apart by the lowest build
// of each; rows of one family stand in ascending build order.
struct Row {
    DWORD major, minor;
    bool server;
    DWORD firstBuild;
    const wchar_t* x86;
    const wchar_t* x64;
};

constexpr Row kRows[] = {
    {5, 0, false, 0, L"win2000ProGuest", nullptr},
    {5, 0, true, 0, L"win2000ServGuest", nullptr},
    {5, 1, false, 0, L"winXPProGuest", nullptr},
    {5, 2, false, 0, nullptr, L"winXPPro64Guest"},
    {5, 2, true, 0, L"winNetStandardGuest", L"winNetStandard64Guest"},
    {6, 0, false, 0, L"winVistaGuest", L"winVista64Guest"},
    {6, 0, true, 0, L"winLonghornGuest", L"winLonghorn64Guest"},
    {6, 1, false, 0, L"windows7Guest", L"windows7_64Guest"},
    {6, 1, true, 0, nullptr, L"windows7Server64Guest"},
    {6, 2, false, 0, L"windows8Guest", L"windows8_64Guest"},
    {6, 2, true, 0, nullptr, L"windows8Server64Guest"},
    {6, 3, false, 0, L"windows8Guest", L"windows8_64Guest"},
    {6, 3, true, 0, nullptr, L"windows8Server64Guest"},
    {10, 0, false, 0, L"windows9Guest", L"windows9_64Guest"},        // Windows 10
    {10, 0, false, 22000, nullptr, L"windows11_64Guest"},            // Windows 11
    {10, 0, true, 0, nullptr, L"windows9Server64Guest"},             // Server 2016
    {10, 0, true, 17763, nullptr, L"windows2019srv_64Guest"},        // Server 2019
    {10, 0, true, 20348, nullptr, L"windows2019srvNext_64Guest"},    // Server 2022
    {10, 0, true, 26100, nullptr, L"windows2022srvNext_64Guest"},    // Server 2025
};

DWORD Identify(const WindowsRelease& r, std::wstring* guestId) {
    if (const wchar_t* id = VmwareGuestId(r)) {
        *guestId = id;
        return ERROR_SUCCESS;
    }
    *guestId = FallbackGuestId(r.architecture);
    Log(1, L"Windows %u.%u build %u (%s, architecture %u) has no VMware guest identifier; using %s.", r.major, r.minor,
        r.build, r.server ? L"server" : L"client", r.architecture, guestId->c_str());
    return ERROR_NOT_FOUND;
}

DWORD ArchitectureOf(const std::wstring& name) {
    const struct {
        const wchar_t* name;
        DWORD code;
    } known[] = {{L"x86", PROCESSOR_ARCHITECTURE_INTEL}, {L"AMD64", PROCESSOR_ARCHITECTURE_AMD64},
                 {L"ARM64", 12}, {L"IA64", PROCESSOR_ARCHITECTURE_IA64}};
    for (const auto& k : known)
        if (EqualsNoCase(name, k.name)) return k.code;
    return PROCESSOR_ARCHITECTURE_UNKNOWN;
}

}  // namespace

const wchar_t* VmwareGuestId(const WindowsRelease& r) noexcept {
    const Row* match = nullptr;
    for (const Row& row : kRows)
        if (row.major == r.major && row.minor == r.minor && row.server == r.server && r.build >= row.firstBuild)
            match = &row;  // the last row whose first build the build has reached
    if (!match) return nullptr;
    if (r.architecture == kArchX86) return match->x86;
    if (r.architecture == kArchX64) return match->x64;
    return nullptr;
}

const wchar_t* FallbackGuestId(DWORD architecture) noexcept {
    return architecture == kArchX86 ? L"otherGuest" : L"otherGuest64";
}

DWORD GetGuestID(const WindowsRelease& r, std::wstring* guestId) {
    return RunExport<kGetGuestID>(
        [&](auto&) -> DWORD { return Identify(r, guestId); },
        r.major, r.minor, r.build, r.server ? L"server" : L"client", r.architecture);
}

DWORD ReadGuestRelease(const std::wstring& systemDir, HiveLoader* software, HiveLoader* system,
                       WindowsRelease* r) {
    *r = {};
    r->architecture = PROCESSOR_ARCHITECTURE_UNKNOWN;
    FixupHive soft, sys;
    if (DWORD rc = soft.Acquire(GuestHive::kSoftware, systemDir, software)) return rc;
    if (DWORD rc = sys.Acquire(GuestHive::kSystem, systemDir, system)) return rc;

    const hostutil::RegistryKey nt = soft.Key(L"\\Microsoft\\Windows NT\\CurrentVersion", KEY_READ);
    std::wstring text;
    if (nt.GetValue(L"CurrentMajorVersionNumber", 0, &r->major) != ERROR_SUCCESS ||
        nt.GetValue(L"CurrentMinorVersionNumber", 0, &r->minor) != ERROR_SUCCESS) {
        r->major = r->minor = 0;
        if (nt.GetValue(L"CurrentVersion", L"", &text) == ERROR_SUCCESS &&
            swscanf(text.c_str(), L"%u.%u", &r->major, &r->minor) != 2)
            r->major = r->minor = 0;
    }
    if (nt.GetValue(L"CurrentBuildNumber", L"", &text) == ERROR_SUCCESS) r->build = wcstoul(text.c_str(), nullptr, 10);

    std::wstring ccs;
    CurrentControlSet(*sys, &ccs);
    const std::wstring control = L"\\" + ccs + L"\\Control";
    if (sys.Key(control + L"\\ProductOptions", KEY_READ).GetValue(L"ProductType", L"", &text) == ERROR_SUCCESS)
        r->server = !EqualsNoCase(text, L"WinNT");
    else if (nt.GetValue(L"InstallationType", L"", &text) == ERROR_SUCCESS)
        r->server = !EqualsNoCase(text, L"Client");
    if (sys.Key(control + L"\\Session Manager\\Environment", KEY_READ)
            .GetValue(L"PROCESSOR_ARCHITECTURE", L"", &text) == ERROR_SUCCESS)
        r->architecture = ArchitectureOf(text);
    return ERROR_SUCCESS;
}

DWORD GetGuestIDEx(const std::wstring& systemDir, HiveLoader* software, HiveLoader* system, std::wstring* guestId,
                   WindowsRelease* release) {
    return RunExport<kGetGuestIDEx>(
        [&](auto& frame) -> DWORD {
            guestId->clear();
            WindowsRelease local;
            WindowsRelease* r = release ? release : &local;
            *r = {};
            if (systemDir.empty() && (!software || !system)) return frame.InvalidParameter();
            if (DWORD rc = ReadGuestRelease(systemDir, software, system, r)) return rc;
            Log(2, L"The guest runs Windows %u.%u build %u, %s, architecture %u.", r->major, r->minor, r->build,
                r->server ? L"server" : L"client", r->architecture);
            return Identify(*r, guestId);
        },
        systemDir.c_str());
}

}  // namespace kx::guestfix
