#include "platform/process_runner.h"

#include <vector>

#include "common/unique_resource.h"

namespace kx::platform {

namespace {

class SystemProcessRunner final : public ProcessRunner {
public:
    DWORD Run(const std::wstring& commandLine, DWORD timeoutMs, DWORD* exitCode) override {
        *exitCode = 0;
        std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
        line.push_back(L'\0');  // CreateProcessW may write into the command line
        STARTUPINFOW si{};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi{};
        if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &si,
                              &pi))
            return ERROR_FILE_NOT_FOUND;
        unique_handle process(pi.hProcess);
        unique_handle thread(pi.hThread);
        const DWORD waited = ::WaitForSingleObject(process.get(), timeoutMs);
        if (waited != WAIT_OBJECT_0) {
            // Still running (or the wait failed): end it rather than leave a
            // stray process holding the files it works on.
            ::TerminateProcess(process.get(), ERROR_TIMEOUT);
            ::WaitForSingleObject(process.get(), 5000);
            return ERROR_FILE_NOT_FOUND;
        }
        if (!::GetExitCodeProcess(process.get(), exitCode)) return ERROR_FILE_NOT_FOUND;
        return ERROR_SUCCESS;
    }
};

class SleepPause final : public Pause {
public:
    void For(DWORD milliseconds) override { ::Sleep(milliseconds); }
};

SystemProcessRunner g_systemRunner;
SleepPause g_sleep;
ProcessRunner* g_runner = &g_systemRunner;
Pause* g_pause = &g_sleep;

}  // namespace

ProcessRunner& Processes() { return *g_runner; }
Pause& Pauses() { return *g_pause; }
void SetProcessRunner(ProcessRunner* runner) { g_runner = runner ? runner : &g_systemRunner; }
void SetPause(Pause* pause) { g_pause = pause ? pause : &g_sleep; }

}  // namespace kx::platform
