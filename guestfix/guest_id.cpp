#include "guestfix/guest_id.h"

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
        [&](auto&) -> DWORD {
            if (const wchar_t* id = VmwareGuestId(r)) {
                *guestId = id;
                return ERROR_SUCCESS;
            }
            *guestId = FallbackGuestId(r.architecture);
            Log(1, L"Windows %u.%u build %u (%s, architecture %u) has no VMware guest identifier; using %s.", r.major,
                r.minor, r.build, r.server ? L"server" : L"client", r.architecture, guestId->c_str());
            return ERROR_NOT_FOUND;
        },
        r.major, r.minor, r.build, r.server ? L"server" : L"client", r.architecture);
}

}  // namespace kx::guestfix
