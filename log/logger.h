// One log and the threshold of the module that writes it. The library's
// process-wide debug log (debug_log.h) is one Logger; tests and benchmarks
// make their own over folders of their own.
//
// Threshold, settled when the Logger is made:
// - the DWORD named after the module under the Debug key, else
//   kDefaultThreshold;
// - unless "DisableGlobalOption" lists the module (blank-separated names,
//   compared without regard to case), the module's entry in the shared
//   configuration carries the threshold for every process of the module: a
//   Logger whose registry names a value stores it there, one without takes
//   what is there (or stores the default when nothing is). Every line reads
//   the entry again, so a later process's value applies at once;
// - a module on that list, or one that cannot reach the shared
//   configuration, keeps its own value for the life of the Logger.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>

#include "log/file_output.h"
#include "log/host_info.h"
#include "log/shared_config.h"

namespace kx::log {

// The shared configuration block that every writer of the product uses.
inline constexpr int kConfigBlock = 0;
inline constexpr const wchar_t* kDebugKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine\\Debug";
inline constexpr const wchar_t* kDisableGlobalValue = L"DisableGlobalOption";
// Written in place of a line whose formatting or writing raised an exception.
inline constexpr const wchar_t* kExceptionLine = L"!!!!!Exception when write below log.!!!!!";

class Logger {
public:
    // `stem` is the path of the log without its extension: lines go to
    // <stem>.Log and, after rotations, <stem>.%08d.log. `module` names the
    // threshold in the registry.
    Logger(const wchar_t* stem, const wchar_t* module) noexcept;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    int Threshold() const noexcept;
    // True when the module takes the shared settings.
    bool Global() const noexcept { return moduleEntry_ != nullptr; }

    void Write(int level, DWORD error, const wchar_t* format, ...) noexcept;
    void WriteV(int level, DWORD error, const wchar_t* format, va_list args) noexcept;

    void CurrentFile(wchar_t (&path)[kPathChars]) noexcept { output_.CurrentFile(path); }
    // 0 restores the standard size; applies to every writer of this log.
    void SetRotationLimit(uint64_t bytes) noexcept { output_.SetRotationLimit(bytes); }

private:
    HostInfo host_;
    SharedConfig config_;
    FileOutput output_;
    SharedEntry* moduleEntry_ = nullptr;
    int ownLevel_ = 0;
};

// The folder of the log files for a product installed at `installPath` (null
// or empty when none is registered), ending in a backslash:
// <installPath>\Logs\, or \Log\ on the Windows drive.
void LogFolderFor(const wchar_t* installPath, wchar_t (&folder)[kPathChars]) noexcept;

}  // namespace kx::log
