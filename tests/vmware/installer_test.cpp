// The silent installers through a recording process runner: the exact
// command line and time limit, how each exit code is reported, and that a
// missing installer starts nothing.
#include <gtest/gtest.h>

#include "host/vmware_support.h"
#include "kx_test.h"
#include "platform/process_runner.h"

namespace h = kx::host;

namespace {

class RecordingRunner final : public kx::platform::ProcessRunner {
public:
    DWORD result = 0;  // the runner's own answer
    DWORD exit = 0;    // the program's exit code
    std::vector<std::wstring> lines;
    std::vector<DWORD> timeouts;
    DWORD Run(const std::wstring& commandLine, DWORD timeoutMs, DWORD* exitCode) override {
        lines.push_back(commandLine);
        timeouts.push_back(timeoutMs);
        *exitCode = result ? 0 : exit;
        return result;
    }
};

struct RunnerInPlace {
    RecordingRunner runner;
    RunnerInPlace() { kx::platform::SetProcessRunner(&runner); }
    ~RunnerInPlace() { kx::platform::SetProcessRunner(nullptr); }
};

using Install = DWORD (*)(const std::wstring&, DWORD*);

}  // namespace

TEST(Installers, CommandLinesOfFilesAndFolders) {
    kxtest::ScratchDir disc;
    kxtest::MakeDirs(disc / L"tools disc");
    kxtest::MakeDirs(disc / L"ic\\support\\amd64");
    kxtest::MakeDirs(disc / L"old tools");
    for (const wchar_t* f : {L"tools disc\\setup.exe", L"tools disc\\setup64.exe", L"ic\\setup.exe",
                             L"ic\\support\\amd64\\setup.exe", L"old tools\\setup.exe"})
        kxtest::WriteText(disc / f, "MZ");
    const struct {
        Install install;
        std::wstring given, line;
    } cases[] = {
        {h::InstallVMwareTools, disc / L"tools disc",
         L"\"" + disc / L"tools disc\\setup64.exe" + L"\" /S /v \"/qn REBOOT=R\""},
        {h::InstallVMwareTools, disc / L"old tools", L"\"" + disc / L"old tools\\setup.exe" + L"\" /S /v \"/qn REBOOT=R\""},
        {h::InstallVMwareTools, disc / L"tools disc\\setup.exe",
         L"\"" + disc / L"tools disc\\setup.exe" + L"\" /S /v \"/qn REBOOT=R\""},
        {h::InstallIntegrationService, disc / L"ic",
         L"\"" + disc / L"ic\\support\\amd64\\setup.exe" + L"\" /quiet /norestart"},
        {h::InstallIntegrationService, disc / L"ic\\setup.exe", L"\"" + disc / L"ic\\setup.exe" + L"\" /quiet /norestart"},
    };
    for (const auto& c : cases) {
        RunnerInPlace fake;
        DWORD exitCode = 99;
        EXPECT_EQ(c.install(c.given, &exitCode), 0u);
        EXPECT_EQ(exitCode, 0u);
        ASSERT_EQ(fake.runner.lines.size(), 1u);
        EXPECT_EQ(fake.runner.lines[0], c.line);
        EXPECT_EQ(fake.runner.timeouts[0], 30u * 60 * 1000);
    }
}

TEST(Installers, ExitCodesAndFailures) {
    kxtest::ScratchDir disc;
    kxtest::WriteText(disc / L"setup.exe", "MZ");
    const struct {
        DWORD runnerResult, exit, rc, exitOut;
        const wchar_t* logged;
    } cases[] = {
        {0, 0, 0, 0, L"The installer finished."},
        {0, 3010, 3010, 3010, L"a restart completes it"},
        {0, 1641, 1641, 1641, L"started a restart"},
        {0, 1603, 1603, 1603, L"failed"},
        {0, 1618, 1618, 1618, L"failed"},
        {ERROR_FILE_NOT_FOUND, 0, ERROR_PROCESS_ABORTED, 0, L"could not be started or did not finish within 30"},
    };
    for (Install install : {h::InstallVMwareTools, h::InstallIntegrationService}) {
        for (const auto& c : cases) {
            RunnerInPlace fake;
            fake.runner.result = c.runnerResult;
            fake.runner.exit = c.exit;
            kxtest::LogCursor log;
            DWORD exitCode = 99;
            EXPECT_EQ(install(disc / L"setup.exe", &exitCode), c.rc) << c.exit;
            EXPECT_EQ(exitCode, c.exitOut);
            EXPECT_EQ(fake.runner.lines.size(), 1u);
            EXPECT_TRUE(log.Contains(c.logged)) << c.exit;
            EXPECT_TRUE(log.Contains(L"finished, rc = [" + std::to_wstring(c.rc) + L"]"));
        }
        // Nothing there, a folder without an installer, no path: nothing starts.
        RunnerInPlace fake;
        kxtest::ScratchDir emptyDisc;
        DWORD exitCode = 99;
        EXPECT_EQ(install(disc / L"missing.exe", &exitCode), DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(exitCode, 0u);
        EXPECT_EQ(install(emptyDisc.path(), nullptr), DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(install(L"", &exitCode), DWORD{ERROR_INVALID_PARAMETER});
        EXPECT_TRUE(fake.runner.lines.empty());
    }
}
