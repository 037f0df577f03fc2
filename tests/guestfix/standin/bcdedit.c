/* A stand-in bcdedit.exe for the boot configuration tests: appends its
   command line (UTF-8, one line) to the file named by KX_BCDEDIT_LOG and
   exits with the status in KX_BCDEDIT_STATUS (0 when unset). It touches no
   store. */
#include <windows.h>
#include <stdlib.h>

int wmain(void) {
    wchar_t logPath[MAX_PATH], status[32];
    const wchar_t* line = GetCommandLineW();
    if (GetEnvironmentVariableW(L"KX_BCDEDIT_LOG", logPath, MAX_PATH) - 1u < MAX_PATH - 1u) {
        HANDLE f = CreateFileW(logPath, FILE_APPEND_DATA, FILE_SHARE_READ, NULL, OPEN_ALWAYS, 0, NULL);
        if (f != INVALID_HANDLE_VALUE) {
            char utf8[4096];
            int n = WideCharToMultiByte(CP_UTF8, 0, line, -1, utf8, sizeof utf8 - 1, NULL, NULL);
            DWORD written;
            if (n > 0) {
                utf8[n - 1] = '\n';
                WriteFile(f, utf8, (DWORD)n, &written, NULL);
            }
            CloseHandle(f);
        }
    }
    if (GetEnvironmentVariableW(L"KX_BCDEDIT_STATUS", status, 32) - 1u < 31u) return _wtoi(status);
    return 0;
}
