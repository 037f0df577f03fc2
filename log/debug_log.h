// The library's debug log: one process-wide logger that writes fixed-format
// UTF-16 lines to a log file shared by every process of the product.
//
// Formats use the Windows C runtime's wide conventions: %s is a wide string,
// %I64d / %lld a 64-bit integer. A message is at most 1023 characters; longer
// messages are cut. Logging never fails towards its caller: it does not
// throw, leaves the thread's last-error value as it found it, and drops a
// line it cannot write (a log it cannot open, a writer of another process
// that holds the file for more than 5 seconds).
//
// Levels: 0 failures, 1 start and end lines, 2 notable steps, 4 detail.
//
// Where the lines go: <InstallPath>\Logs\KestrixHA.Log, InstallPath being the
// string "Path" under HKLM\SOFTWARE\Veltrana\Quillon\Engine\InstallPath (the
// value the rest of the library reads for the install path). Without one the
// folder is \Log\ on the Windows drive, so that every process still agrees on
// one file. When a file reaches 0x6400000 bytes, all writers move on to
// KestrixHA.00000001.log, KestrixHA.00000002.log, ... together. The folder
// is made when it is missing.
//
// Threshold: the DWORD named kModuleName under
// HKLM\SOFTWARE\Veltrana\Quillon\Engine\Debug, read once per process;
// kDefaultThreshold when there is none. Unless "DisableGlobalOption" (same
// key, blank-separated module names) lists the module, the threshold is
// shared by every process of the module through the log's shared memory: a
// process that starts with the DWORD set hands its value to all running ones.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <string>

#include "common/result_codes.h"
#include "log/log_format.h"

namespace kx::log {

// The name under which this library's threshold is read from
// HKLM\SOFTWARE\Veltrana\Quillon\Engine\Debug (a DWORD of that name) and
// matched against "DisableGlobalOption".
inline constexpr const wchar_t* kModuleName = L"KestrixHA";

// The threshold used when the registry names none for the module (and no
// other process of the module has set one): failures, start and end lines
// and notable steps, but not the detail lines.
inline constexpr int kDefaultThreshold = 2;

// A log file may grow to this size before the writers move to the next one.
inline constexpr uint64_t kRotationLimit = 0x6400000;

// Writes one line when `level` is at most the module's threshold. `error` is
// printed in the prefix when it is not 0.
void Write(int level, DWORD error, const wchar_t* format, ...) noexcept;
void WriteV(int level, DWORD error, const wchar_t* format, va_list args) noexcept;

// The full path of the file the next line goes to (after rotation), and the
// folder that holds the log files (without a trailing backslash).
std::wstring CurrentFile();
std::wstring Folder();

// The threshold currently in force for this process's module.
int Threshold() noexcept;

namespace testing {
// Lowers (or with 0 restores) the rotation size for every writer of the
// shared configuration; only tests and benchmarks call it.
void SetRotationLimit(uint64_t bytes) noexcept;

// Receives the log's own fault reports (see log/log_trace.h); null, the
// default, discards them. The sink must not log.
using TraceSink = void (*)(const wchar_t* text);
void SetTraceSink(TraceSink sink) noexcept;
}  // namespace testing

}  // namespace kx::log

// Shorthands used throughout the library. The format is checked against the
// arguments when the call is compiled (log/log_format.h).
namespace kx {
template <class... A>
inline void Log(int level, log::fmt::Format<A...> format, A... args) noexcept {
    log::Write(level, 0, format.get(), args...);
}
template <class... A>
inline void LogErr(int level, DWORD error, log::fmt::Format<A...> format, A... args) noexcept {
    log::Write(level, error, format.get(), args...);
}
}  // namespace kx

// Failing calls of a function that returns a Win32 code: log the call that failed with its code in
// one line and leave the body with that code.
#define KX_RETURN_IF_FAILED(expr, what)                                              \
    do {                                                                             \
        if (const DWORD kx_rc_ = (expr); kx_rc_ != 0) {                              \
            ::kx::Log(0, L"%s failed, rc = [%d]", what, kx_rc_);                     \
            return kx_rc_;                                                           \
        }                                                                            \
    } while (0)

// A Win32 call that reports failure through FALSE and GetLastError.
#define KX_RETURN_IF_WIN32_FALSE(call, what)                                         \
    do {                                                                             \
        if (!(call)) {                                                               \
            const DWORD kx_rc_ = ::kx::LastErrorOr();                                \
            ::kx::Log(0, L"%s failed, rc = [%d]", what, kx_rc_);                     \
            return kx_rc_;                                                           \
        }                                                                            \
    } while (0)

