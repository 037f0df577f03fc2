/* A stand-in for the VDDK library: a DLL whose only content that matters is
   its version resource (vddk_fixture.rc.in). */
#include <windows.h>

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    (void)instance;
    (void)reason;
    (void)reserved;
    return TRUE;
}
