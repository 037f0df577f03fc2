// The main of every test program: the product's registry is pointed at a
// test install folder (so the debug log lands there) with detail logging on.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "common/proc_address.h"
#include "log/debug_log.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    kxtest::MakeDirs(L"C:\\KxTest\\install");
    const std::wstring path = L"C:\\KxTest\\install";
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kxtest::kInstallPathKey, L"Path", REG_SZ, path.c_str(),
                      static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
    const DWORD detail = 4;
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kxtest::kDebugKey, L"KestrixHA", REG_DWORD, &detail, sizeof detail);
    // The install path is read once per process, at the first log line. Pin it
    // now, in this program's copy of the library code and in the DLL if it is
    // loaded, so that tests which later point the registry at a scratch
    // install folder still log where LogCursor reads.
    kx::Log(4, L"kxtest: started");
    if (HMODULE dll = ::GetModuleHandleW(L"KestrixHA.dll")) {
        using GetLogFile = DWORD(WINAPI*)(wchar_t*, DWORD*);
        if (auto get = kx::ProcAddress<GetLogFile>(dll, "KxGetDebugLogFile")) {
            wchar_t file[MAX_PATH];
            DWORD chars = MAX_PATH;
            get(file, &chars);
        }
    }
    return RUN_ALL_TESTS();
}
