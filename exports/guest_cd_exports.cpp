// Exported fix-up: the CD-ROM drive letter of a guest starting on Hyper-V.
#include "KestrixHA/guest_cd.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/cd_letter.h"

namespace g = kx::guestfix;

KXHA_API DWORD AdjustVirtualCDDriveLetter_HyperV(const std::wstring& systemDir, wchar_t letter) {
    return g::AdjustVirtualCDDriveLetter_HyperV(systemDir, letter);
}

KXHA_API DWORD AdjustVirtualCDDriveLetter_HyperVEx(const std::wstring& systemDir, wchar_t letter,
                                                   RegistryHiveLoader* system, std::wstring* freed,
                                                   std::wstring* reserved) {
    g::CdLetterChanges changes;
    const DWORD rc = g::AdjustVirtualCDDriveLetter_HyperVEx(systemDir, letter, kx::exports::Inner(system), &changes);
    if (freed) *freed = changes.freed;
    if (reserved) *reserved = changes.reserved;
    return rc;
}
