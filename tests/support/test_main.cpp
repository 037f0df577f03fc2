// The main of every test program: the run gets a registry root and an
// install folder of its own (so the debug log lands there) with detail
// logging on.
#include <gtest/gtest.h>

#include <cstdio>

#include "common/proc_address.h"
#include "log/debug_log.h"
#include "test_run.h"

namespace {

// A crash must fail the run: under Wine an unhandled exception otherwise
// starts the debugger, and the process can end with status 0.
LONG WINAPI Crashed(EXCEPTION_POINTERS* e) {
    std::fprintf(stderr, "unhandled exception 0x%08lx at %p in %s\n",
                 static_cast<unsigned long>(e->ExceptionRecord->ExceptionCode), e->ExceptionRecord->ExceptionAddress,
                 testing::UnitTest::GetInstance()->current_test_info()
                     ? testing::UnitTest::GetInstance()->current_test_info()->name()
                     : "(no test)");
    std::fflush(stderr);
    ::TerminateProcess(::GetCurrentProcess(), 3);
    return EXCEPTION_EXECUTE_HANDLER;
}

}  // namespace

int main(int argc, char** argv) {
    ::SetUnhandledExceptionFilter(Crashed);
    testing::InitGoogleTest(&argc, argv);
    kxtest::TestRun run;
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
