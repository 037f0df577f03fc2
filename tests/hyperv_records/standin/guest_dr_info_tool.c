/* A stand-in GuestDrInfoTool.exe: writes its whole command line (UTF-16,
   as received) to "cmdline.txt" in the folder of its last argument, then
   "AdrConfigure.xml" naming the VM GUID there, and exits 0. A VM name
   "exit:N" makes it exit with N and write only the command line. */
#include <windows.h>
#include <stdlib.h>
#include <wchar.h>

static void WriteFileText(const wchar_t* folder, const wchar_t* name, const wchar_t* text) {
    wchar_t path[MAX_PATH * 2];
    HANDLE f;
    DWORD written;
    if (_snwprintf(path, MAX_PATH * 2, L"%ls\\%ls", folder, name) < 0) return;
    f = CreateFileW(path, GENERIC_WRITE, 0, NULL, CREATE_ALWAYS, 0, NULL);
    if (f == INVALID_HANDLE_VALUE) return;
    WriteFile(f, text, (DWORD)(wcslen(text) * sizeof(wchar_t)), &written, NULL);
    CloseHandle(f);
}

int wmain(int argc, wchar_t** argv) {
    wchar_t xml[1024];
    if (argc != 11) return 87;
    WriteFileText(argv[10], L"cmdline.txt", GetCommandLineW());
    if (wcsncmp(argv[9], L"exit:", 5) == 0) return _wtoi(argv[9] + 5);
    _snwprintf(xml, 1024, L"<AdrConfigure vm=\"%ls\" name=\"%ls\"/>", argv[8], argv[9]);
    xml[1023] = 0;
    WriteFileText(argv[10], L"AdrConfigure.xml", xml);
    return 0;
}
