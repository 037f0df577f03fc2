#include "guestfix/dotnet_version.h"

#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

constexpr const wchar_t* kNdpPath = L"SOFTWARE\\Microsoft\\NET Framework Setup\\NDP";

// The smallest "Release" of each version, ascending. A version's later
// builds (other Windows releases, updates) carry higher numbers below the
// next version's smallest.
constexpr struct {
    DWORD release;
    const wchar_t* version;
} kReleases[] = {
    {378389, L"4.5"},   {378675, L"4.5.1"}, {379893, L"4.5.2"}, {393295, L"4.6"},
    {394254, L"4.6.1"}, {394802, L"4.6.2"}, {460798, L"4.7"},   {461308, L"4.7.1"},
    {461808, L"4.7.2"}, {528040, L"4.8"},   {533320, L"4.8.1"},
};

// True when `key`\`sub` has the DWORD `name` = 1.
bool Flag(const RegistryKey& key, const wchar_t* sub, const wchar_t* name) {
    RegistryKey k = key.GetSubItem(sub, KEY_READ);
    DWORD v = 0;
    return k && k.GetValue(name, 0, &v) == ERROR_SUCCESS && v == 1;
}

std::wstring Where(const std::wstring& systemDir, bool guest) {
    return !guest ? L"host" : systemDir.empty() ? L"the guest" : systemDir;
}

}  // namespace

const wchar_t* DotNetVersionOfRelease(DWORD release) noexcept {
    const wchar_t* version = L"";
    for (const auto& r : kReleases)
        if (release >= r.release) version = r.version;
    return version;
}

DWORD ReadDotNetVersions(const RegistryKey& ndp, std::vector<std::wstring>* versions) {
    versions->clear();
    if (!ndp) return ndp.Error();
    if (Flag(ndp, L"v1.1.4322", L"Install")) versions->push_back(L"1.1");
    if (Flag(ndp, L"v2.0.50727", L"Install")) versions->push_back(L"2.0");
    if (Flag(ndp, L"v3.0\\Setup", L"InstallSuccess") || Flag(ndp, L"v3.0", L"Install")) versions->push_back(L"3.0");
    if (Flag(ndp, L"v3.5", L"Install")) versions->push_back(L"3.5");
    // 4.5 and later replace 4.0 in place: one entry for the v4 family.
    RegistryKey full = ndp.GetSubItem(L"v4\\Full", KEY_READ);
    DWORD release = 0;
    const wchar_t* v4 = L"";
    if (full && full.GetValue(L"Release", 0, &release) == ERROR_SUCCESS) v4 = DotNetVersionOfRelease(release);
    if (!*v4 && (Flag(ndp, L"v4\\Full", L"Install") || Flag(ndp, L"v4\\Client", L"Install"))) v4 = L"4.0";
    if (*v4) versions->push_back(v4);
    return ERROR_SUCCESS;
}

DWORD GetDotNetVersion(const std::wstring& systemDir, HiveLoader* software, bool guest, std::wstring* highest,
                       std::vector<std::wstring>* installed) {
    return RunExport<kgetDotNetVersion>(
        [&](auto& frame) -> DWORD {
            highest->clear();
            std::vector<std::wstring> local;
            std::vector<std::wstring>* out = installed ? installed : &local;
            out->clear();
            if (guest && systemDir.empty() && !software) return frame.InvalidParameter();
            FixupHive hive;
            RegistryKey ndp;
            if (guest) {
                if (DWORD rc = hive.Acquire(GuestHive::kSoftware, systemDir, software)) return rc;
                ndp = hive.Key(L"\\Microsoft\\NET Framework Setup\\NDP", KEY_READ);
            } else {
                ndp = RegistryKey(HKEY_LOCAL_MACHINE, kNdpPath, KEY_READ);
            }
            if (!ndp && ndp.Error() != ERROR_FILE_NOT_FOUND) {
                LogErr(0, ndp.Error(), L"Fail to open the .NET Framework setup key of %s",
                       Where(systemDir, guest).c_str());
                return ndp.Error();
            }
            if (ndp) ReadDotNetVersions(ndp, out);
            if (out->empty()) {
                Log(1, L"No .NET Framework is installed on %s.", Where(systemDir, guest).c_str());
                return ERROR_PRODUCT_UNINSTALLED;
            }
            *highest = out->back();
            Log(2, L".NET Framework on %s: newest %s, %u version(s) installed.", Where(systemDir, guest).c_str(),
                highest->c_str(), static_cast<DWORD>(out->size()));
            return ERROR_SUCCESS;
        },
        guest ? systemDir.c_str() : L"host");
}

}  // namespace kx::guestfix
