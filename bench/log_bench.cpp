// Lines per second of the debug log: one process, and four processes into
// one log (copies of this program), next to a plain loop that formats the
// same lines and appends them with WriteFile, without any locking.
//
//   log_bench [lines per process]
//   log_bench --child <stem> <module> <lines> <ready semaphore> <start event>
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "log/logger.h"

namespace {

constexpr int kWriters = 4;
constexpr const wchar_t* kModule = L"KxLogBench";
constexpr const wchar_t* kFormat = L"bench line %06d of writer %d: copied %d sectors of disk %s";

using Clock = std::chrono::steady_clock;
double Seconds(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

void WriteLines(kx::log::Logger& log, int writer, int lines) {
    for (int i = 0; i < lines; ++i) log.Write(2, 0, kFormat, i, writer, i * 64, L"disk0000000001.zek");
}

int Child(int argc, wchar_t** argv) {
    if (argc != 7) return 2;
    kx::log::Logger log(argv[2], argv[3]);
    const int lines = _wtoi(argv[4]);
    HANDLE ready = ::OpenSemaphoreW(SEMAPHORE_MODIFY_STATE, FALSE, argv[5]);
    HANDLE go = ::OpenEventW(SYNCHRONIZE, FALSE, argv[6]);
    if (!ready || !go) return 3;
    ::ReleaseSemaphore(ready, 1, nullptr);
    ::WaitForSingleObject(go, 60000);
    WriteLines(log, 0, lines);
    return 0;
}

// The same lines, prefix included, appended with one WriteFile each.
double PlainLoop(const std::wstring& path, int lines) {
    HANDLE f = ::CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr);
    if (f == INVALID_HANDLE_VALUE) return -1;
    DWORD done = 0;
    const wchar_t bom = 0xFEFF;
    ::WriteFile(f, &bom, sizeof bom, &done, nullptr);
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
        ::WriteFile(f, line, static_cast<DWORD>(n * sizeof(wchar_t)), &done, nullptr);
    }
    const double s = Seconds(t0);
    ::CloseHandle(f);
    return s;
}

double FourProcesses(const std::wstring& stem, int lines) {
    const std::wstring tag = std::to_wstring(::GetCurrentProcessId());
    const std::wstring readyName = L"Local\\KxLogBenchReady" + tag, goName = L"Local\\KxLogBenchGo" + tag;
    HANDLE ready = ::CreateSemaphoreW(nullptr, 0, kWriters, readyName.c_str());
    HANDLE go = ::CreateEventW(nullptr, TRUE, FALSE, goName.c_str());
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::vector<HANDLE> children;
    for (int w = 0; w < kWriters; ++w) {
        std::wstring cmd = L"\"" + std::wstring(self) + L"\" --child \"" + stem + L"\" " + kModule + L" " +
                           std::to_wstring(lines) + L" " + readyName + L" " + goName;
        STARTUPINFOW si{};
        si.cb = sizeof si;
        PROCESS_INFORMATION pi{};
        if (!::CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &si, &pi)) break;
        ::CloseHandle(pi.hThread);
        children.push_back(pi.hProcess);
    }
    for (size_t i = 0; i < children.size(); ++i) ::WaitForSingleObject(ready, 60000);
    const auto t0 = Clock::now();
    ::SetEvent(go);
    ::WaitForMultipleObjects(static_cast<DWORD>(children.size()), children.data(), TRUE, 600000);
    const double s = Seconds(t0);
    bool ok = children.size() == kWriters;
    for (HANDLE c : children) {
        DWORD code = 1;
        ::GetExitCodeProcess(c, &code);
        ok = ok && code == 0;
        ::CloseHandle(c);
    }
    ::CloseHandle(ready);
    ::CloseHandle(go);
    return ok ? s : -1;
}

void RemoveFolder(const std::wstring& dir) {
    WIN32_FIND_DATAW fd;
    HANDLE find = ::FindFirstFileW((dir + L"\\*").c_str(), &fd);
    if (find != INVALID_HANDLE_VALUE) {
        do {
            if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) ::DeleteFileW((dir + L"\\" + fd.cFileName).c_str());
        } while (::FindNextFileW(find, &fd));
        ::FindClose(find);
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

    double single = 0;
    {
        kx::log::Logger log((dir + L"\\Single").c_str(), kModule);
        WriteLines(log, 0, 200);  // the file, its header, the first pages
        const auto t0 = Clock::now();
        WriteLines(log, 0, lines);
        single = Seconds(t0);
    }
    const double four = FourProcesses(dir + L"\\Four", lines);
    const double plain = PlainLoop(dir + L"\\Plain.log", lines);
    RemoveFolder(dir);
    if (single <= 0 || four <= 0 || plain <= 0) {
        std::printf("log_bench: a run failed (single %.3f s, four %.3f s, plain %.3f s)\n", single, four, plain);
        return 1;
    }

    const double singleRate = lines / single, fourRate = kWriters * lines / four, plainRate = lines / plain;
    std::printf("debug log, 1 process:              %8d lines in %7.3f s = %10.0f lines/s\n", lines, single,
                singleRate);
    std::printf("debug log, %d processes, one log:   %8d lines in %7.3f s = %10.0f lines/s\n", kWriters,
                kWriters * lines, four, fourRate);
    std::printf("plain WriteFile loop, no locking:  %8d lines in %7.3f s = %10.0f lines/s\n", lines, plain, plainRate);
    std::printf("ratio plain / debug log: %.2f (1 process), %.2f (%d processes)\n", plainRate / singleRate,
                plainRate / fourRate, kWriters);
    return 0;
}
