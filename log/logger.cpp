#include "log/logger.h"

#include <cstdio>
#include <cwchar>
#include <vector>

#include "log/debug_log.h"

namespace kx::log {

namespace {

bool ReadModuleLevel(const wchar_t* module, int* level) noexcept {
    if (!module || !*module) return false;
    DWORD value = 0;
    DWORD size = sizeof value;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kDebugKey, module, RRF_RT_REG_DWORD, nullptr, &value, &size) !=
        ERROR_SUCCESS)
        return false;
    *level = static_cast<int>(value);
    return true;
}

// Whether the blank-separated list in "DisableGlobalOption" names `module`.
bool GlobalDisabled(const wchar_t* module) {
    if (!module || !*module) return true;
    DWORD size = 0;
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kDebugKey, kDisableGlobalValue, RRF_RT_REG_SZ, nullptr, nullptr, &size) !=
        ERROR_SUCCESS)
        return false;
    std::vector<wchar_t> list(size / sizeof(wchar_t) + 2, L'\0');
    size = static_cast<DWORD>(list.size() * sizeof(wchar_t));
    if (::RegGetValueW(HKEY_LOCAL_MACHINE, kDebugKey, kDisableGlobalValue, RRF_RT_REG_SZ, nullptr, list.data(),
                       &size) != ERROR_SUCCESS)
        return false;
    const wchar_t* p = list.data();
    for (;;) {
        while (*p == L' ' || *p == L'\t') ++p;
        if (!*p) return false;
        const wchar_t* start = p;
        while (*p && *p != L' ' && *p != L'\t') ++p;
        if (::CompareStringOrdinal(start, static_cast<int>(p - start), module, -1, TRUE) == CSTR_EQUAL) return true;
    }
}

void CopyText(wchar_t* to, size_t cap, const wchar_t* from) noexcept {
    wcsncpy(to, from, cap - 1);
    to[cap - 1] = 0;
}

}  // namespace

Logger::Logger(const wchar_t* stem, const wchar_t* module) noexcept {
    ReadHostInfo(&host_);
    int registry = kDefaultThreshold;
    const bool named = ReadModuleLevel(module, &registry);
    ownLevel_ = registry;
    bool global = false;
    try {
        global = !GlobalDisabled(module);
    } catch (...) {
        // Without the list, the module keeps to itself.
    }

    wchar_t first[kPathChars];
    const int n = _snwprintf(first, kPathChars - 1, L"%s.Log", stem ? stem : L"");
    first[kPathChars - 1] = 0;
    SharedEntry* logEntry = nullptr;
    config_.Open(kConfigBlock);
    if (config_.available()) {
        if (mutex_release lock = config_.Lock()) {
            bool added = false;
            if (n > 0) logEntry = config_.Find(kLogEntry, first, &added);
            if (global) moduleEntry_ = config_.Find(kModuleEntry, module, &added);
            if (moduleEntry_ && (named || LoadRelaxed(moduleEntry_->level) == kLevelUnset))
                Store(moduleEntry_->level, registry);
        }
    }
    output_.Init(stem ? stem : L"", logEntry ? &config_ : nullptr, logEntry, &host_);
}

int Logger::Threshold() const noexcept { return moduleEntry_ ? LoadRelaxed(moduleEntry_->level) : ownLevel_; }

void Logger::Write(int level, DWORD error, const wchar_t* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    WriteV(level, error, format, args);
    va_end(args);
}

void Logger::WriteV(int level, DWORD error, const wchar_t* format, va_list args) noexcept {
    const DWORD lastError = ::GetLastError();
    const int threshold = Threshold();
    if (level <= threshold) {
        wchar_t message[kMessageChars];
        try {
            message[0] = 0;
            if (format) _vsnwprintf(message, kMessageChars - 1, format, args);
            message[kMessageChars - 1] = 0;  // a cut message carries no terminator of its own
        } catch (...) {
            CopyText(message, kMessageChars, kExceptionLine);
        }
        try {
            output_.Write(level, error, message, threshold);
        } catch (...) {
            try {
                output_.Write(level, error, kExceptionLine, threshold);
            } catch (...) {
                // The line is lost.
            }
        }
    }
    ::SetLastError(lastError);
}

void LogFolderFor(const wchar_t* installPath, wchar_t (&folder)[kPathChars]) noexcept {
    folder[0] = 0;
    if (installPath && *installPath) {
        const size_t len = wcslen(installPath);
        const wchar_t* logs = installPath[len - 1] == L'\\' ? L"Logs\\" : L"\\Logs\\";
        const int n = _snwprintf(folder, kPathChars - 1, L"%s%s", installPath, logs);
        folder[kPathChars - 1] = 0;
        if (n > 0) return;
    }
    // No install path (or one too long for a log path): \Log\ on the Windows
    // drive rather than on whatever drive the caller's current folder is.
    wchar_t windows[MAX_PATH] = {};
    const UINT w = ::GetSystemWindowsDirectoryW(windows, MAX_PATH);
    if (w >= 2 && w < MAX_PATH && windows[1] == L':')
        _snwprintf(folder, kPathChars - 1, L"%c:\\Log\\", windows[0]);
    else
        CopyText(folder, kPathChars, L"\\Log\\");
    folder[kPathChars - 1] = 0;
}

}  // namespace kx::log
