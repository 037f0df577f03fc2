// Starting a program and waiting for it, and pausing between retries: the
// two outside services the guest driver extraction needs, each behind a
// small interface with the real one as default so that a test can put its
// own in place (an instant pause instead of a 10 s wait).
#pragma once

#include <windows.h>

#include <string>

namespace kx::platform {

class ProcessRunner {
public:
    virtual ~ProcessRunner() = default;
    // Runs `commandLine` (program name first, searched for the usual way:
    // the starting program's folder first, then the current folder, then the
    // system folders) with no window and waits for it for at most
    // `timeoutMs`. Returns 0 with its exit code in `*exitCode`, or 2
    // (ERROR_FILE_NOT_FOUND) when it cannot be started, cannot be waited for,
    // or is still running at the timeout. A program still running at the
    // timeout is terminated and waited for, so none is left behind.
    virtual DWORD Run(const std::wstring& commandLine, DWORD timeoutMs, DWORD* exitCode) = 0;
};

class Pause {
public:
    virtual ~Pause() = default;
    virtual void For(DWORD milliseconds) = 0;
};

// The services in use: the real ones unless a test put others in place.
ProcessRunner& Processes();
Pause& Pauses();

// Puts `runner` / `pause` in place (null puts the real one back). For tests:
// not to be switched while another thread uses the service.
void SetProcessRunner(ProcessRunner* runner);
void SetPause(Pause* pause);

}  // namespace kx::platform
