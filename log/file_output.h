// The file output of the debug log: one log, shared by every process that
// writes it, one line at a time.
//
// Files: the first is <stem>.Log; when the current file has reached the
// rotation size, writers move on to <stem>.%08d.log with the next index whose
// file is below that size.
// The index in force is kept in the log's entry of the shared configuration,
// so that every writer follows the first one that rotates.
//
// A line is written under a named mutex per file, which also makes the
// "is this file new" decision safe: the writer that finds a file of at most
// two bytes writes the byte-order mark and the header block before its line.
// An existing file keeps its encoding: UTF-16LE when it begins with the
// byte-order mark, the ANSI code page otherwise.
//
// The mutex wait is bounded (kFileWaitMs): a writer that holds the file for
// longer costs the line, not a hang; a mutex left by a dead writer is taken
// over. The folder of the log is made when the file cannot be opened for the
// lack of it.
#pragma once

#include <windows.h>

#include <cstdint>

#include "common/unique_resource.h"
#include "log/host_info.h"
#include "log/shared_config.h"

namespace kx::log {

inline constexpr size_t kPathChars = 512;      // a log path holds at most 511 characters
inline constexpr size_t kMessageChars = 1024;  // a message holds at most 1023 characters
inline constexpr DWORD kFileWaitMs = 5000;
inline constexpr size_t kMutexPathChars = 259;

// "Global\" and the path's first 259 characters, backslashes turned into
// slashes and letters upper-cased. Empty when the path is.
void FileMutexName(const wchar_t* path, wchar_t (&name)[8 + kMutexPathChars + 1]) noexcept;

class FileOutput {
public:
    FileOutput() noexcept;
    ~FileOutput();
    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;

    // `stem` is the path of the log without extension. `entry` is the log's
    // entry in `config`; without one the output keeps its state to itself.
    // Settles on the first file below the rotation size.
    void Init(const wchar_t* stem, SharedConfig* config, SharedEntry* entry, const HostInfo* host) noexcept;

    // Writes one line; `threshold` is printed as the level of header lines.
    // Faults lose the line; nothing but an exception raised by the runtime
    // leaves this call.
    void Write(int level, DWORD error, const wchar_t* message, int threshold);

    // The file the next line goes to, after any rotation that is due.
    void CurrentFile(wchar_t (&path)[kPathChars]) noexcept;

    void SetRotationLimit(uint64_t bytes) noexcept;

private:
    enum class Encoding { unknown, unicode, narrow };

    uint64_t Limit() noexcept;
    void NameFor(int index, wchar_t (&path)[kPathChars]) const noexcept;
    void Follow() noexcept;
    bool Open() noexcept;
    void Close() noexcept;
    void Settle() noexcept;
    bool WriteHeader(uint64_t* at, int threshold) noexcept;
    bool Put(const wchar_t* text, size_t chars, uint64_t* at) noexcept;

    CRITICAL_SECTION cs_;
    wchar_t stem_[kPathChars] = {};
    wchar_t path_[kPathChars] = {};
    int index_ = -1;
    unique_hfile file_;
    unique_handle mutex_;
    Encoding encoding_ = Encoding::unknown;
    SharedConfig* config_ = nullptr;
    SharedEntry* entry_ = nullptr;
    SharedEntry own_{};
    const HostInfo* host_ = nullptr;
};

}  // namespace kx::log
