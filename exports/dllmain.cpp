#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    (void)reason;  // The library keeps no per-process or per-thread state to set up.
    return TRUE;
}
