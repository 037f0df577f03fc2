// The process-wide debug log: one Logger, made on first use and never taken
// down, so that lines written while the process or the library shuts down
// (static destructors, other threads) still find it.
#include "log/debug_log.h"

#include <cwchar>
#include <new>

#include "log/logger.h"
#include "common/install_path.h"

namespace kx::log {

namespace {

INIT_ONCE g_once = INIT_ONCE_STATIC_INIT;
alignas(Logger) unsigned char g_storage[sizeof(Logger)];
Logger* g_logger = nullptr;
wchar_t g_folder[kPathChars];

BOOL CALLBACK Make(PINIT_ONCE, PVOID, PVOID*) {
    std::wstring install;
    try {
        (void)GetZekInstallPath(install);
    } catch (...) {
        install.clear();  // out of memory: the folder without an install path
    }
    LogFolderFor(install.c_str(), g_folder);
    wchar_t stem[kPathChars];
    _snwprintf(stem, kPathChars - 1, L"%s%s", g_folder, kModuleName);
    stem[kPathChars - 1] = 0;
    g_logger = new (g_storage) Logger(stem, kModuleName);
    return TRUE;
}

Logger& Get() noexcept {
    ::InitOnceExecuteOnce(&g_once, Make, nullptr, nullptr);
    return *g_logger;
}

}  // namespace

void WriteV(int level, DWORD error, const wchar_t* format, va_list args) noexcept {
    // Making the logger on the first line touches the last-error value; the
    // Logger keeps it for the lines after.
    const DWORD lastError = ::GetLastError();
    Get().WriteV(level, error, format, args);
    ::SetLastError(lastError);
}

void Write(int level, DWORD error, const wchar_t* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    WriteV(level, error, format, args);
    va_end(args);
}

std::wstring CurrentFile() {
    wchar_t path[kPathChars];
    Get().CurrentFile(path);
    return path;
}

std::wstring Folder() {
    Get();
    std::wstring folder = g_folder;
    if (folder.size() > 3 && folder.back() == L'\\') folder.pop_back();
    return folder;
}

int Threshold() noexcept { return Get().Threshold(); }

namespace testing {
void SetRotationLimit(uint64_t bytes) noexcept { Get().SetRotationLimit(bytes); }
}  // namespace testing

}  // namespace kx::log
