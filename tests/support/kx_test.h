// Shared test helpers: scratch folders, host registry values that are put
// back afterwards, files, and the debug log read back line by line.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/unique_resource.h"
#include "test_run.h"

namespace kxtest {

// A fresh, empty folder under %TEMP%, removed with everything in it at the
// end of the scope (read-only attributes are cleared first).
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir() { RemoveTree(path_); }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::wstring& path() const { return path_; }
    std::wstring operator/(const std::wstring& name) const { return path_ + L"\\" + name; }

private:
    std::wstring path_;
};

// Sets a value under HKEY_LOCAL_MACHINE, that is under the run's own root:
// it lasts until the run ends, for the later tests of the program too.
void SetRegValue(const std::wstring& subkey, const std::wstring& name, DWORD value);
void SetRegValue(const std::wstring& subkey, const std::wstring& name, const std::wstring& value);

// Files.
void WriteBytes(const std::wstring& path, const void* data, size_t size);
void WriteText(const std::wstring& path, const std::string& text);
std::vector<uint8_t> ReadBytes(const std::wstring& path);
bool Exists(const std::wstring& path);
void MakeDirs(const std::wstring& path);

std::string Narrow(const std::wstring& s);

// One line of the debug log: its writer and what follows the prefix.
struct LogLine {
    DWORD pid = 0;
    std::wstring text;
    int level = -1;
};

// Parses a line; nullopt when it has no prefix.
std::optional<LogLine> ParseLogLine(const std::wstring& raw);

// Every line of a UTF-16LE log file (the byte-order mark is checked).
std::vector<std::wstring> ReadLogFileLines(const std::wstring& path);

// The lines this process adds to the library's debug log from construction
// on (following a rotation to a newer file too). Helper processes of the run
// log into the same file; their lines are not counted.
class LogCursor {
public:
    LogCursor();
    // Lines whose text contains `needle`.
    std::vector<LogLine> Matching(const std::wstring& needle) const;
    bool Contains(const std::wstring& needle) const { return !Matching(needle).empty(); }

private:
    std::wstring file_;
    uint64_t offset_ = 0;
};

// Starts this test program again as a helper (it joins this test run) that
// runs only the disabled test `test`, with its task fields given as "a|b|c";
// the process handle, empty when it can't start.
kx::unique_handle SpawnHelper(const std::wstring& test, const std::wstring& task, DWORD* pid = nullptr);
// The task fields of a helper.
std::vector<std::wstring> HelperTask();
// Runs a program with stdout and stderr captured (UTF-8 text, lines ending in
// LF), returns its exit code.
DWORD RunCapture(const std::wstring& commandLine, std::string* output, DWORD timeoutMs = 300000);
// The folder that holds the running test program (and the DLL, the tool).
std::wstring BinDir();

}  // namespace kxtest
