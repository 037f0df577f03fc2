// Lines per second of the debug log: one process, and four processes into
// one log (copies of this program), next to a plain loop that formats the
// same lines and appends them with WriteFile, without any locking. The log
// runs twice in the same run: with its positioned writes as built, and
// routed through WriteFile with an OVERLAPPED offset (the earlier way).
//
//   log_bench [lines per process]
//   log_bench --child <stem> <module> <lines> <ready semaphore> <start event> <overlapped 0|1>
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "common/positioned_io.h"
#include "common/unique_resource.h"
#include "log/logger.h"

namespace {

using kx::unique_handle;
using kx::unique_hfile;

constexpr int kWriters = 4;
constexpr const wchar_t* kModule = L"KxLogBench";
constexpr const wchar_t* kFormat = L"bench line %06d of writer %d: copied %d sectors of disk %s";

using Clock = std::chrono::steady_clock;
double Seconds(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

void WriteLines(kx::log::Logger& log, int writer, int lines) {
    for (int i = 0; i < lines; ++i) log.Write(2, 0, kFormat, i, writer, i * 64, L"disk0000000001.zek");
}

int Child(int argc, wchar_t** argv) {
    if (argc != 8) return 2;
    kx::io::testing::UseOverlappedOffsets(_wtoi(argv[7]) != 0);
    kx::log::Logger log(argv[2], argv[3]);
    const int lines = _wtoi(argv[4]);
    unique_handle ready(::OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, argv[5]));
    unique_handle go(::OpenEventW(SYNCHRONIZE, FALSE, argv[6]));
    if (!ready || !go) return 3;
    ::ReleaseSemaphore(ready.get(), 1, nullptr);
    ::WaitForSingleObject(go.get(), 60000);
    WriteLines(log, 0, lines);
    return 0;
}

// The same lines, prefix included, appended with one WriteFile each.
double PlainLoop(const std::wstring& path, int lines) {
    unique_hfile f(::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                 CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!f) return -1;
    DWORD done = 0;
    const wchar_t bom = 0xFEFF;
    ::WriteFile(f.get(), &bom, sizeof bom, &done, nullptr);
    const auto t0 = Clock::now();
    for (int i = 0; i < lines; ++i) {
        wchar_t message[1024];
        _snwprintf(message, 1023, kFormat, i, 0, i * 64, L"disk0000000001.zek");
        message[1023] = 0;
        SYSTEMTIME t;
        ::GetLocalTime(&t);
        wchar_t line[1200];
        int n = _snwprintf(line, 1199, L"[%4d/%02d/%02d %02d:%02d:%02d:%03d   %02d   %05ld   %05ld             ] %s\r\n",
                           t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds, 2,
                           static_cast<long>(::GetCurrentProcessId()), static_cast<long>(::GetCurrentThreadId()),
                           message);
        if (n < 0) n = 1199;
        ::WriteFile(f.get(), line, static_cast<DWORD>(n * sizeof(wchar_t)), &done, nullptr);
    }
    return Seconds(t0);
}

// One process writing `lines` lines into a new log; the first lines (the
// file, its header, the first pages) are not timed.
double OneProcess(const std::wstring& stem, int lines) {
    kx::log::Logger log(stem.c_str(), kModule);
    WriteLines(log, 0, 200);
    const auto t0 = Clock::now();
    WriteLines(log, 0, lines);
    return Seconds(t0);
}

double FourProcesses(const std::wstring& stem, int lines, bool overlapped) {
    const std::wstring tag = std::to_wstring(::GetCurrentProcessId()) + (overlapped ? L"o" : L"n");
    const std::wstring readyName = L"Local\\KxLogBenchReady" + tag, goName = L"Local\\KxLogBenchGo" + tag;
    unique_handle ready(::CreateSemaphoreW(nullptr, 0, kWriters, readyName.c_str()));
    unique_handle go(::CreateEventW(nullptr, TRUE, FALSE, goName.c_str()));
    if (!ready || !go) return -1;
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::vector<unique_handle> children;
    std::vector<HANDLE> waits;
    for (int w = 0; w < kWriters; ++w) {
        std::wstring cmd = L"\"" + std::wstring(self) + L"\" --child \"" + stem + L"\" " + kModule + L" " +
                           std::to_wstring(lines) + L" " + readyName + L" " + goName + (overlapped ? L" 1" : L" 0");
        STARTUPINFOW si{};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi{};
        if (!::CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) break;
        unique_handle thread(pi.hThread);
        children.emplace_back(pi.hProcess);
        waits.push_back(pi.hProcess);
    }
    for (size_t i = 0; i < children.size(); ++i) ::WaitForSingleObject(ready.get(), 60000);
    const auto t0 = Clock::now();
    ::SetEvent(go.get());
    ::WaitForMultipleObjects(static_cast<DWORD>(waits.size()), waits.data(), TRUE, 600000);
    const double s = Seconds(t0);
    bool ok = children.size() == kWriters;
    for (const unique_handle& c : children) {
        DWORD code = 1;
        ::GetExitCodeProcess(c.get(), &code);
        ok = ok && code == 0;
    }
    return ok ? s : -1;
}

void RemoveFolder(const std::wstring& dir) {
    WIN32_FIND_DATAW fd;
    {
        kx::unique_hfind find(::FindFirstFileW((dir + L"\\*").c_str(), &fd));
        if (find) {
            do {
                if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY))
                    ::DeleteFileW((dir + L"\\" + fd.cFileName).c_str());
            } while (::FindNextFileW(find.get(), &fd));
        }
    }
    ::RemoveDirectoryW(dir.c_str());
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc > 1 && wcscmp(argv[1], L"--child") == 0) return Child(argc, argv);
    const int lines = argc > 1 ? _wtoi(argv[1]) : 20000;
    if (lines <= 0) return 2;

    wchar_t temp[MAX_PATH];
    ::GetTempPathW(MAX_PATH, temp);
    const std::wstring dir = std::wstring(temp) + L"kx_log_bench_" + std::to_wstring(::GetCurrentProcessId());
    ::CreateDirectoryW(dir.c_str(), nullptr);

    // Each way in turn, three times, keeping the best: [0] OVERLAPPED offsets, [1] as built.
    double single[2] = {1e9, 1e9}, four[2] = {1e9, 1e9};
    bool failed = false;
    for (int round = 0; round < 3; ++round)
        for (int way = 0; way < 2; ++way) {
            const std::wstring stem = dir + (way ? L"\\Native" : L"\\Overlapped") + std::to_wstring(round);
            kx::io::testing::UseOverlappedOffsets(way == 0);
            const double one = OneProcess(stem + L"Single", lines);
            const double many = FourProcesses(stem + L"Four", lines, way == 0);
            failed = failed || one <= 0 || many <= 0;
            single[way] = std::min(single[way], one);
            four[way] = std::min(four[way], many);
        }
    kx::io::testing::UseOverlappedOffsets(false);
    const double plain = PlainLoop(dir + L"\\Plain.log", lines);
    RemoveFolder(dir);
    if (failed || plain <= 0) {
        std::printf("log_bench: a run failed\n");
        return 1;
    }

    const double plainRate = lines / plain;
    const char* names[2] = {"OVERLAPPED offsets", "as built"};
    for (int way = 0; way < 2; ++way) {
        std::printf("debug log, 1 process,  %-18s %8d lines in %7.3f s = %10.0f lines/s\n", names[way], lines,
                    single[way], lines / single[way]);
        std::printf("debug log, %d processes, %-18s %8d lines in %7.3f s = %10.0f lines/s\n", kWriters, names[way],
                    kWriters * lines, four[way], kWriters * lines / four[way]);
    }
    std::printf("plain WriteFile loop, no locking:           %8d lines in %7.3f s = %10.0f lines/s\n", lines, plain,
                plainRate);
    std::printf("as built / OVERLAPPED: %.2fx (1 process), %.2fx (%d processes)\n", single[0] / single[1],
                four[0] / four[1], kWriters);
    std::printf("ratio plain / debug log as built: %.2f (1 process), %.2f (%d processes)\n", plainRate * single[1] / lines,
                plainRate * four[1] / (kWriters * lines), kWriters);
    return 0;
}
