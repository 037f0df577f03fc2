#include "guestfix/cd_letter.h"

#include <cstring>

#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

constexpr size_t kMbrBytes = 12;
constexpr char kGuidTag[] = "DMIO:ID:";
constexpr size_t kGuidBytes = 8 + 16;

std::wstring DosName(wchar_t letter) { return std::wstring(L"\\DosDevices\\") + letter + L":"; }

// The letter of a "\DosDevices\X:" value name, or 0 for any other name.
wchar_t LetterOf(const std::wstring& name) {
    constexpr size_t kPrefix = 12;  // "\DosDevices\"
    if (name.size() != kPrefix + 2 || name[kPrefix + 1] != L':') return 0;
    if (!EqualsNoCase(name.substr(0, kPrefix), L"\\DosDevices\\")) return 0;
    const wchar_t c = name[kPrefix];
    if (c >= L'a' && c <= L'z') return static_cast<wchar_t>(c - L'a' + L'A');
    return c >= L'A' && c <= L'Z' ? c : 0;
}

const wchar_t* KindName(MountKind kind) {
    switch (kind) {
        case MountKind::kMbrVolume: return L"MBR volume";
        case MountKind::kGuidVolume: return L"GPT or dynamic volume";
        case MountKind::kCdRom: return L"CD-ROM";
        case MountKind::kReserved: return L"reservation";
        case MountKind::kOther: break;
    }
    return L"other device";
}

DWORD Adjust(const std::wstring& systemDir, wchar_t wanted, HiveLoader* given, CdLetterChanges* changes) {
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, given)) return rc;
    // A guest without the key has no letter held yet; it is made only when
    // there is a reservation to write.
    RegistryKey mounted = hive.Key(L"\\MountedDevices");
    // Who holds each letter now.
    bool held[26] = {};
    MountKind kinds[26] = {};
    std::wstring name;
    DWORD type = 0;
    std::vector<BYTE> data;
    for (DWORD i = 0; mounted.EnumRawValue(i, &name, &type, &data) == ERROR_SUCCESS; ++i) {
        const wchar_t letter = LetterOf(name);
        if (!letter) continue;
        held[letter - L'A'] = true;
        kinds[letter - L'A'] = ClassifyMountData(data);
    }
    const int at = wanted - L'A';
    if (held[at] && kinds[at] != MountKind::kCdRom && kinds[at] != MountKind::kReserved) {
        Log(0, L"Drive letter %c: belongs to the guest's %s; the CD-ROM letter is not changed.", static_cast<int>(wanted),
            KindName(kinds[at]));
        return ERROR_ALREADY_ASSIGNED;
    }
    if (held[at]) {
        if (DWORD rc = mounted.DeleteValue(DosName(wanted))) {
            LogErr(0, rc, L"Fail to remove %s", DosName(wanted).c_str());
            return rc;
        }
        Log(2, L"Drive letter %c: freed from the guest's old %s.", static_cast<int>(wanted), KindName(kinds[at]));
        changes->freed += wanted;
    }
    for (wchar_t c = L'C'; c < wanted; ++c) {
        if (held[c - L'A']) continue;
        if (!mounted) {
            mounted = hive.Key(L"").CreateSubItem(L"MountedDevices", KEY_ALL_ACCESS);
            if (!mounted) {
                LogErr(0, mounted.Error(), L"Fail to create MountedDevices under %s", hive->GetHiveName().c_str());
                return mounted.Error();
            }
        }
        const std::wstring path = kReservedPrefix + std::wstring(1, c);
        if (DWORD rc = mounted.SetValue(DosName(c), reinterpret_cast<const BYTE*>(path.c_str()),
                                        static_cast<DWORD>(path.size() * sizeof(wchar_t)))) {
            LogErr(0, rc, L"Fail to reserve drive letter %c:", static_cast<int>(c));
            return rc;
        }
        Log(2, L"Drive letter %c: reserved so that the CD-ROM gets %c:.", static_cast<int>(c), static_cast<int>(wanted));
        changes->reserved += c;
    }
    return ERROR_SUCCESS;
}

}  // namespace

MountKind ClassifyMountData(const std::vector<BYTE>& data) {
    if (data.size() == kMbrBytes) return MountKind::kMbrVolume;
    if (data.size() == kGuidBytes && std::memcmp(data.data(), kGuidTag, 8) == 0) return MountKind::kGuidVolume;
    if (data.empty() || data.size() % 2) return MountKind::kOther;
    std::wstring text(data.size() / 2, L'\0');
    std::memcpy(text.data(), data.data(), data.size());
    const std::wstring prefix = kReservedPrefix;
    if (text.size() >= prefix.size() && EqualsNoCase(text.substr(0, prefix.size()), prefix))
        return MountKind::kReserved;
    for (size_t i = 0; i + 5 <= text.size(); ++i)
        if (EqualsNoCase(text.substr(i, 5), L"CdRom")) return MountKind::kCdRom;
    return MountKind::kOther;
}

DWORD AdjustVirtualCDDriveLetter_HyperV(const std::wstring& systemDir, wchar_t letter) {
    return AdjustVirtualCDDriveLetter_HyperVEx(systemDir, letter, nullptr, nullptr);
}

DWORD AdjustVirtualCDDriveLetter_HyperVEx(const std::wstring& systemDir, wchar_t letter, HiveLoader* system,
                                          CdLetterChanges* changes) {
    return RunExport<kAdjustVirtualCDDriveLetter_HyperV>(
        [&](auto& frame) -> DWORD {
            CdLetterChanges local;
            CdLetterChanges* out = changes ? changes : &local;
            *out = {};
            if (letter >= L'a' && letter <= L'z') letter = static_cast<wchar_t>(letter - L'a' + L'A');
            if (systemDir.empty() || letter < L'C' || letter > L'Z') return frame.InvalidParameter();
            return Adjust(systemDir, letter, system, out);
        },
        systemDir.c_str(), static_cast<int>(letter));
}

}  // namespace kx::guestfix
