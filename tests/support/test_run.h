// The registry root and install folder of one test run.
//
// A test program redirects HKEY_LOCAL_MACHINE, for the whole process and so
// for the library too, to a key of its own under
// HKEY_CURRENT_USER\Software\KxTestRuns, and registers an install folder of
// its own there (hence its own debug log) with detail logging on. Programs
// run side by side under `ctest -j`, and the demo, never see each other's
// switches, install path or log. A helper process started by a test finds
// the run in its environment and joins it; the run's starter removes the key
// and the folder at the end.
#pragma once

#include <string>

namespace kxtest {

class TestRun {
public:
    TestRun();
    ~TestRun();
    TestRun(const TestRun&) = delete;
    TestRun& operator=(const TestRun&) = delete;

    // The run's install folder (the debug log is in its Logs subfolder).
    const std::wstring& install() const { return install_; }

private:
    std::wstring key_;      // under HKEY_CURRENT_USER
    std::wstring install_;
    bool owner_ = false;    // started the run (not a helper that joined it)
};

// The run of this process; valid while the TestRun object lives.
const TestRun& CurrentRun();

// Removes a folder with everything in it (read-only attributes cleared first).
void RemoveTree(const std::wstring& folder);
// %TEMP% without its trailing separator.
std::wstring TempFolder();

// The registry keys of the product's debug switches and install folder.
inline const wchar_t* kDebugKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine\\Debug";
inline const wchar_t* kInstallPathKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine\\InstallPath";

}  // namespace kxtest
