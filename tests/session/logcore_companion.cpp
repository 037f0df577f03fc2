// Test companion of the activity log library: each LogActivity call becomes
// one line "type|code|root|file|text|computer|pid" in %TEMP%\kx_logcore_calls.txt.
#include <windows.h>

#include <cstdio>
#include <cwchar>
#include <memory>

extern "C" DWORD JobLoadString(DWORD message, wchar_t* buffer, DWORD chars) {
    if (message == 0x400B0064) return 1;  // a message whose text can't be loaded
    _snwprintf(buffer, chars, L"text-of-%08X", message);
    return 0;
}

extern "C" DWORD LogActivity(DWORD type, DWORD code, const wchar_t* root, const wchar_t* file, const wchar_t* text,
                             const wchar_t* computer, DWORD processId) {
    wchar_t path[MAX_PATH];
    GetTempPathW(MAX_PATH, path);
    std::unique_ptr<FILE, int (*)(FILE*)> f(_wfopen(wcscat(path, L"kx_logcore_calls.txt"), L"ab"), &fclose);
    if (!f) return 1;
    fprintf(f.get(), "%lu|%08lX|%ls|%ls|%ls|%ls|%lu\n", type, code, root, file, text, computer, processId);
    return 0;
}
