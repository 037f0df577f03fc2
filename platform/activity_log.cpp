#include "platform/activity_log.h"

#include <cstring>

#include "common/proc_address.h"

namespace kx::platform {

DWORD LockHolderMessage(int op) noexcept {
    switch (op) {
    case 1: return 0x400B0053;
    case 2: return 0x400B0054;
    case 3: return 0x400B0055;
    case 4: return 0x400B0056;
    case 5: return 0x400B0057;
    case 6: return 0x400B0058;
    case 7:
    case 18: return 0x400B0059;
    case 8: return 0x400B006D;
    case 9: return 0x400B005A;
    case 10: return 0x400B005B;
    case 11: return 0x400B005D;  // 0x400B005C belongs to no operation
    case 12:
    case 13:
    case 15: return 0x400B005E;
    case 16: return 0x400B0063;
    case 17: return 0x400B0064;
    default: return 0;  // 14, 19, 20 and anything outside 1..20
    }
}

ActivityLog::ActivityLog() noexcept : dll_(::LoadLibraryW(L"LogCore.dll")) {
    if (!dll_) return;
    logActivity_ = ProcAddress<LogActivityFn>(dll_.get(), "LogActivity");
    loadString_ = ProcAddress<JobLoadStringFn>(dll_.get(), "JobLoadString");
}

void ActivityLog::Report(DWORD message, DWORD code, const wchar_t* root, const wchar_t* file,
                         const wchar_t* computer, DWORD processId) noexcept {
    if (!Available() || !message) return;
    wchar_t text[512];
    std::memset(text, 0, sizeof text);
    if (loadString_(message, text, 512) == 0) logActivity_(1, code, root, file, text, computer, processId);
}

}  // namespace kx::platform
