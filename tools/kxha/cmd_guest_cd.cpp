// kxha guest cd-letter: frees a drive letter for the CD-ROM a guest gets on
// Hyper-V (AdjustVirtualCDDriveLetter_HyperVEx) and prints the letters the
// call removed from and reserved in the guest's MountedDevices.
#include <windows.h>

#include "KestrixHA/guest_cd.h"
#include "commands.h"
#include "output.h"

namespace kxha {

int GuestCdLetter(const std::wstring& folder, const std::wstring& letter) {
    const wchar_t* const what = L"AdjustVirtualCDDriveLetter_HyperV";
    const DWORD a = ::GetFileAttributesW(folder.c_str());
    if (a == INVALID_FILE_ATTRIBUTES || !(a & FILE_ATTRIBUTE_DIRECTORY))
        return Fail(what, ERROR_BAD_ENVIRONMENT, (L"no Windows folder " + folder).c_str());
    // "E" or "E:".
    if (letter.empty() || letter.size() > 2 || (letter.size() == 2 && letter[1] != L':'))
        return Fail(what, ERROR_INVALID_PARAMETER, (L"not a drive letter: " + letter).c_str());
    std::wstring freed, reserved;
    if (DWORD rc = AdjustVirtualCDDriveLetter_HyperVEx(folder, letter[0], nullptr, &freed, &reserved))
        return Fail(what, rc,
                    rc == ERROR_ALREADY_ASSIGNED ? (L"drive letter " + letter.substr(0, 1) + L": belongs to a volume")
                                                       .c_str()
                                                 : nullptr);
    std::wstring o;
    for (wchar_t c : freed) o += L"- \\DosDevices\\" + std::wstring(1, c) + L": (old CD-ROM entry removed)\n";
    for (wchar_t c : reserved) o += L"+ \\DosDevices\\" + std::wstring(1, c) + L": (reserved)\n";
    Out(o.empty() ? L"no changes\n" : o);
    return 0;
}

}  // namespace kxha
