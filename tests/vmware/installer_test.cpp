// The silent installers through a recording process runner: the exact
// command line and time limit, how each exit code is reported, and that a
// missing installer starts nothing.
#include <gtest/gtest.h>

#include "host/vmware_support.h"
#include "kx_test.h"
#include "platform/process_runner.h"

namespace h = kx::host;

namespace {

struct RecordingRunner final : kx::platform::ProcessRunner {
    DWORD result = 0, exit = 0;  // the runner's answer, the program's exit code
    std::vector<std::wstring> lines;
    std::vector<DWORD> timeouts;
    RecordingRunner() { kx::platform::SetProcessRunner(this); }
    ~RecordingRunner() override { kx::platform::SetProcessRunner(nullptr); }
    DWORD Run(const std::wstring& commandLine, DWORD timeoutMs, DWORD* exitCode) override {
        lines.push_back(commandLine);
        timeouts.push_back(timeoutMs);
        *exitCode = result ? 0 : exit;
        return result;
    }
};

using Install = DWORD (*)(const std::wstring&, DWORD*);
const wchar_t* const kTools = L"\" /S /v \"/qn REBOOT=R\"";
const wchar_t* const kIc = L"\" /quiet /norestart";

}  // namespace

TEST(Installers, CommandLinesOfFilesAndFolders) {
    kxtest::ScratchDir d;
    for (const wchar_t* f : {L"tools\\setup.exe", L"tools\\setup64.exe", L"old\\setup.exe", L"ic\\setup.exe",
                             L"ic\\support\\amd64\\setup.exe"}) {
        kxtest::MakeDirs((d / f).substr(0, (d / f).rfind(L'\\')));
        kxtest::WriteText(d / f, "MZ");
    }
    const struct {
        Install install;
        std::wstring given, line;
    } cases[] = {
        {h::InstallVMwareTools, d / L"tools", L"\"" + d / L"tools\\setup64.exe" + kTools},
        {h::InstallVMwareTools, d / L"old", L"\"" + d / L"old\\setup.exe" + kTools},
        {h::InstallVMwareTools, d / L"tools\\setup.exe", L"\"" + d / L"tools\\setup.exe" + kTools},
        {h::InstallIntegrationService, d / L"ic", L"\"" + d / L"ic\\support\\amd64\\setup.exe" + kIc},
        {h::InstallIntegrationService, d / L"ic\\setup.exe", L"\"" + d / L"ic\\setup.exe" + kIc},
    };
    for (const auto& c : cases) {
        RecordingRunner fake;
        EXPECT_EQ(c.install(c.given, nullptr), 0u);
        EXPECT_EQ(fake.lines, std::vector<std::wstring>{c.line});
        EXPECT_EQ(fake.timeouts, std::vector<DWORD>{30u * 60 * 1000});
    }
}

TEST(Installers, ExitCodesAndFailures) {
    kxtest::ScratchDir disc;
    kxtest::WriteText(disc / L"setup.exe", "MZ");
    const struct {
        DWORD runnerResult, exit, rc;
        const wchar_t* logged;
    } cases[] = {
        {0, 0, 0, L"The installer finished."},
        {0, 3010, 3010, L"a restart completes it"},
        {0, 1641, 1641, L"started a restart"},
        {0, 1603, 1603, L"failed"},
        {ERROR_FILE_NOT_FOUND, 0, ERROR_PROCESS_ABORTED, L"could not be started or did not finish within 30"},
    };
    for (Install install : {h::InstallVMwareTools, h::InstallIntegrationService}) {
        for (const auto& c : cases) {
            RecordingRunner fake;
            fake.result = c.runnerResult;
            fake.exit = c.exit;
            kxtest::LogCursor log;
            DWORD exitCode = 99;
            EXPECT_EQ(install(disc / L"setup.exe", &exitCode), c.rc) << c.exit;
            EXPECT_EQ(exitCode, c.exit);
            EXPECT_TRUE(log.Contains(c.logged)) << c.exit;
            EXPECT_TRUE(log.Contains(L"finished, rc = [" + std::to_wstring(c.rc) + L"]"));
        }
        // Nothing there, a folder without an installer, no path: nothing starts.
        RecordingRunner fake;
        DWORD exitCode = 99;
        EXPECT_EQ(install(disc / L"missing.exe", &exitCode), DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(exitCode, 0u);
        EXPECT_EQ(install(kxtest::ScratchDir().path(), nullptr), DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(install(L"", nullptr), DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_TRUE(fake.lines.empty());
    }
}
