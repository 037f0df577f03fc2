// lock_holder <root> <begin> <end> <ready event> <stop event>: locks the
// range through the DLL, signals `ready` and holds until `stop` is set.
#include <windows.h>

#include <cwchar>

#include "KestrixHA.h"

int wmain(int argc, wchar_t** argv) {
    if (argc < 6) return 2;
    SessionLockHandle* h = nullptr;
    DWORD rc = HA_LockZekSessions(argv[1], _wtoi(argv[2]), _wtoi(argv[3]), &h, 0);
    if (rc) return static_cast<int>(rc);
    HANDLE ready = OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[4]);
    HANDLE stop = OpenEventW(SYNCHRONIZE, FALSE, argv[5]);
    SetEvent(ready);
    WaitForSingleObject(stop, 60000);
    HA_UnlockZekSessions(h);
    return 0;
}
