// Entries in the user's activity log, through "LogCore.dll" when the product
// has it installed. Without the library (or its entry points) nothing is
// written and nothing fails.
#pragma once

#include <windows.h>

#include "common/unique_resource.h"

namespace kx::platform {

// The activity message of a lock holder's operation code; 0 when the
// operation has none.
DWORD LockHolderMessage(int op) noexcept;

class ActivityLog {
public:
    ActivityLog() noexcept;  // loads the library
    bool Available() const noexcept { return logActivity_ && loadString_; }
    // JobLoadString(message) and, when that succeeds, LogActivity(1, code, ...).
    void Report(DWORD message, DWORD code, const wchar_t* root, const wchar_t* file, const wchar_t* computer,
                DWORD processId) noexcept;

private:
    using LogActivityFn = DWORD (*)(DWORD type, DWORD code, const wchar_t* root, const wchar_t* file,
                                    const wchar_t* text, const wchar_t* computer, DWORD processId);
    using JobLoadStringFn = DWORD (*)(DWORD message, wchar_t* buffer, DWORD chars);
    unique_hmodule dll_;
    LogActivityFn logActivity_ = nullptr;
    JobLoadStringFn loadString_ = nullptr;
};

}  // namespace kx::platform
