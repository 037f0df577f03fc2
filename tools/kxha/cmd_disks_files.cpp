// kxha disks file-attrs and kxha disks raw: what the library's file and raw
// disk checks answer on this host.
#include <windows.h>

#include <cstdint>

#include "KestrixHA.h"
#include "commands.h"
#include "output.h"

namespace kxha {

namespace {

const wchar_t* YesNo(bool b) { return b ? L"yes" : L"no"; }
const wchar_t* JsonBool(bool b) { return b ? L"true" : L"false"; }

std::wstring Hex32(DWORD v) {
    wchar_t text[16];
    swprintf(text, 16, L"0x%08X", v);
    return text;
}

}  // namespace

int RunDisksFileAttrs(const Args& args) {
    const auto pos = Positionals(args, {});
    if (pos.size() != 1) {
        Err(std::wstring(L"usage: ") + kDisksUsage + L"\n");
        return 2;
    }
    const std::wstring& path = pos[0];
    bool compressed = false, encrypted = false, onVolume = false;
    if (DWORD rc = CheckFileCryptCmprsAttr(path.c_str(), &compressed, &encrypted))
        return Fail(L"CheckFileCryptCmprsAttr " + path, rc);
    if (DWORD rc = CheckIfFileOnCmprsVol(path.c_str(), &onVolume)) return Fail(L"CheckIfFileOnCmprsVol " + path, rc);
    if (HasFlag(args, L"--json")) {
        Out(L"{\"path\": " + JsonString(path) + L", \"compressed\": " + JsonBool(compressed) + L", \"encrypted\": " +
            JsonBool(encrypted) + L", \"on_compressing_volume\": " + JsonBool(onVolume) + L"}\n");
        return 0;
    }
    Out(L"path:                   " + path + L"\ncompressed:             " + YesNo(compressed) +
        L"\nencrypted:              " + YesNo(encrypted) + L"\non compressing volume:  " + YesNo(onVolume) + L"\n");
    return 0;
}

int RunDisksRaw(const Args& args) {
    if (!Positionals(args, {}).empty()) {
        Err(std::wstring(L"usage: ") + kDisksUsage + L"\n");
        return 2;
    }
    int64_t largest = 0;
    bool larger = false;
    DWORD signature = 0;
    // A host that lists no disk answers "no more items": no size, not a failure.
    DWORD sizeRc = getMaxDiskSize(&largest);
    if (sizeRc == ERROR_NO_MORE_ITEMS) sizeRc = 0;
    const DWORD largerRc = CheckIfExistDiskLargerThan2T(&larger);
    const DWORD signatureRc = GetSystemDiskSignature(&signature);
    auto failed = [](DWORD rc) { return L"failed, rc = " + Num(rc); };
    if (HasFlag(args, L"--json")) {
        auto value = [](DWORD rc, const std::wstring& v) { return rc ? std::wstring(L"null") : v; };
        auto code = [](DWORD rc) { return Num(rc); };
        Out(L"{\"largest_disk_bytes\": " + value(sizeRc, Num(static_cast<unsigned long long>(largest))) +
            L", \"largest_disk_rc\": " + code(sizeRc) + L", \"disk_over_2tib\": " +
            value(largerRc, JsonBool(larger)) + L", \"disk_over_2tib_rc\": " + code(largerRc) +
            L", \"system_disk_signature\": " + value(signatureRc, JsonString(Hex32(signature))) +
            L", \"system_disk_signature_rc\": " + code(signatureRc) + L"}\n");
    } else {
        Out(L"largest disk:           " +
            (sizeRc ? failed(sizeRc) : largest ? Num(static_cast<unsigned long long>(largest)) + L" bytes" : L"no disk listed") +
            L"\ndisk over 2 TiB:        " + (largerRc ? failed(largerRc) : std::wstring(YesNo(larger))) +
            L"\nsystem disk signature:  " + (signatureRc ? failed(signatureRc) : Hex32(signature)) + L"\n");
    }
    return sizeRc || largerRc || signatureRc ? 1 : 0;
}

}  // namespace kxha
