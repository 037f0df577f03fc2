// session_lock_child <root> <op> <desc> <ready event> <stop event> <exclude|-> <session>...
// Takes the built-in session lock on the sessions, excludes the file (a path
// relative to root) unless "-", signals `ready` and holds until `stop` is set
// or the process is killed. Exit code: 0, or the failing call's code.
#include <windows.h>

#include <cwchar>
#include <memory>

#include "common/unique_resource.h"
#include "platform/builtin_session_lock.h"
#include "test_run.h"

int wmain(int argc, wchar_t** argv) {
    if (argc < 8) return 1000;
    kxtest::TestRun run;
    kx::platform::ISessionLock* raw = nullptr;
    if (DWORD rc = kx::platform::CreateBuiltinSessionLock(_wtoi(argv[2]), &raw)) return static_cast<int>(rc);
    std::unique_ptr<kx::platform::ISessionLock, kx::release_deleter<kx::platform::ISessionLock>> lock(raw);
    kx::platform::SessionLockRequest request;
    request.root = argv[1];
    request.jobDescription = argv[3];
    for (int i = 7; i < argc; ++i) request.sessions.push_back(wcstoul(argv[i], nullptr, 10));
    std::vector<kx::platform::SessionLockConflict> conflicts;
    if (DWORD rc = lock->LockSession(request, conflicts)) return static_cast<int>(rc);
    if (wcscmp(argv[6], L"-") != 0)
        if (DWORD rc = lock->ExcludeFile(argv[1], argv[6])) return static_cast<int>(rc);
    kx::unique_handle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, argv[4]));
    kx::unique_handle stop(::OpenEventW(SYNCHRONIZE, FALSE, argv[5]));
    if (!ready || !stop) return 1001;
    ::SetEvent(ready.get());
    ::WaitForSingleObject(stop.get(), 120000);
    lock->UnlockSession();
    return 0;
}
