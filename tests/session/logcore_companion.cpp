// Test companion of the activity log library: each LogActivity call becomes
// one line "type|code|root|file|text|computer|pid" in %TEMP%\kx_logcore_calls.txt.
#include <windows.h>

#include <cstdio>
#include <cwchar>

extern "C" DWORD JobLoadString(DWORD message, wchar_t* buffer, DWORD chars) {
    if (message == 0x400B0064) return 1;  // a message whose text can't be loaded
    _snwprintf(buffer, chars, L"text-of-%08X", message);
    return 0;
}

extern "C" DWORD LogActivity(DWORD type, DWORD code, const wchar_t* root, const wchar_t* file, const wchar_t* text,
                             const wchar_t* computer, DWORD processId) {
    wchar_t path[MAX_PATH];
    GetTempPathW(MAX_PATH, path);
    wcscat(path, L"kx_logcore_calls.txt");
    wchar_t line[2048];
    int n = _snwprintf(line, 2048, L"%lu|%08lX|%ls|%ls|%ls|%ls|%lu\n", type, code, root, file, text, computer,
                       processId);
    char utf8[4096];
    int bytes = WideCharToMultiByte(CP_UTF8, 0, line, n, utf8, sizeof utf8, nullptr, nullptr);
    HANDLE f = CreateFileW(path, FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr);
    if (f == INVALID_HANDLE_VALUE) return 1;
    DWORD written;
    WriteFile(f, utf8, bytes, &written, nullptr);
    CloseHandle(f);
    return 0;
}
