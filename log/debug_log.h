// The library's debug log: one process-wide logger that writes fixed-format
// UTF-16 lines to a log file shared by every process of the product.
//
// Formats use the Windows C runtime's wide conventions: %s is a wide string,
// %I64d / %lld a 64-bit integer. A line is at most 1023 characters; longer
// messages are cut. Logging never fails towards its caller.
//
// Levels: 0 failures, 1 start and end lines, 2 notable steps, 4 detail.
#pragma once

#include <windows.h>

#include <cstdarg>
#include <cstdint>
#include <string>

namespace kx::log {

// The name under which this library's threshold is read from
// HKLM\SOFTWARE\Veltrana\Quillon\Engine\Debug (a DWORD of that name) and
// matched against "DisableGlobalOption".
inline constexpr const wchar_t* kModuleName = L"KestrixHA";

// The threshold used when the registry names none for the module.
inline constexpr int kDefaultThreshold = 2;

// A log file may grow to this size before the writers move to the next one.
inline constexpr uint64_t kRotationLimit = 0x6400000;

// Writes one line when `level` is at most the module's threshold. `error` is
// printed in the prefix when it is not 0.
void Write(int level, DWORD error, const wchar_t* format, ...) noexcept;
void WriteV(int level, DWORD error, const wchar_t* format, va_list args) noexcept;

// The full path of the file the next line goes to (after rotation), and the
// folder that holds the log files.
std::wstring CurrentFile();
std::wstring Folder();

// The threshold currently in force for this process's module.
int Threshold() noexcept;

namespace testing {
// Lowers (or with 0 restores) the rotation size for every writer of the
// shared configuration; only tests and benchmarks call it.
void SetRotationLimit(uint64_t bytes) noexcept;
}  // namespace testing

}  // namespace kx::log

// Shorthands used throughout the library.
namespace kx {
template <class... A>
inline void Log(int level, const wchar_t* format, A... args) noexcept {
    log::Write(level, 0, format, args...);
}
template <class... A>
inline void LogErr(int level, DWORD error, const wchar_t* format, A... args) noexcept {
    log::Write(level, error, format, args...);
}
}  // namespace kx
