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

// Sets a value under HKEY_LOCAL_MACHINE and restores the previous state (the
// old value, or no value) at the end of the scope.
class RegValueOverride {
public:
    RegValueOverride(const std::wstring& subkey, const std::wstring& name, DWORD value)
        : RegValueOverride(subkey, name, REG_DWORD, &value, sizeof value) {}
    RegValueOverride(const std::wstring& subkey, const std::wstring& name, const std::wstring& value)
        : RegValueOverride(subkey, name, REG_SZ, value.c_str(), static_cast<DWORD>((value.size() + 1) * 2)) {}
    // Deletes the value for the life of the scope.
    RegValueOverride(const std::wstring& subkey, const std::wstring& name, std::nullptr_t)
        : RegValueOverride(subkey, name, REG_NONE, nullptr, 0) {}
    ~RegValueOverride() { Put(existed_, type_, old_.data(), static_cast<DWORD>(old_.size())); }
    RegValueOverride(const RegValueOverride&) = delete;
    RegValueOverride& operator=(const RegValueOverride&) = delete;

private:
    // No data: deletes the value.
    RegValueOverride(const std::wstring& subkey, const std::wstring& name, DWORD type, const void* data, DWORD bytes);
    void Put(bool set, DWORD type, const void* data, DWORD bytes) const;
    std::wstring subkey_, name_;
    bool existed_ = false;
    DWORD type_ = 0;
    std::vector<uint8_t> old_;
};

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
    std::wstring raw;  // the whole line
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

// Starts a helper program (it joins this test run); the process handle, empty
// when it can't start.
kx::unique_handle Spawn(const std::wstring& commandLine, DWORD* pid = nullptr);
// Runs a program with stdout and stderr captured (UTF-8 text, lines ending in
// LF), returns its exit code.
DWORD RunCapture(const std::wstring& commandLine, std::string* output, DWORD timeoutMs = 300000);
// The folder that holds the running test program (and the DLL, the tool).
std::wstring BinDir();

}  // namespace kxtest
