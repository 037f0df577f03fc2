// log_writer_child <stem> <module> <writer> <lines> <rotation bytes> <start event>
//
// Opens the log <stem>.Log as module <module>, lowers its rotation size,
// waits for the start event and writes <lines> lines whose text, level and
// error code follow from the writer and line number.
#include <windows.h>

#include <cwchar>
#include <string>

#include "common/unique_resource.h"
#include "log/logger.h"
#include "test_run.h"

int wmain(int argc, wchar_t** argv) {
    if (argc != 7) return 2;
    kxtest::TestRun run;
    const int writer = _wtoi(argv[3]);
    const int lines = _wtoi(argv[4]);
    kx::log::Logger log(argv[1], argv[2]);
    log.SetRotationLimit(_wcstoui64(argv[5], nullptr, 10));
    if (kx::unique_handle go{::OpenEventW(SYNCHRONIZE, FALSE, argv[6])}) ::WaitForSingleObject(go.get(), 60000);
    for (int i = 0; i < lines; ++i) {
        const std::wstring tail(static_cast<size_t>(i % 41), L'x');
        const DWORD error = i % 5 == 0 ? 0x80070000u + static_cast<DWORD>(i) : 0;
        log.Write(1 + i % 2, error, L"writer %d line %06d %s", writer, i, tail.c_str());
    }
    return 0;
}
