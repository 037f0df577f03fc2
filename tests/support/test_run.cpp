#include "test_run.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>

#include "common/unique_resource.h"

namespace kxtest {

namespace {

constexpr const wchar_t* kRunVariable = L"KX_TEST_RUN";
constexpr const wchar_t* kRunsKey = L"Software\\KxTestRuns";
const TestRun* g_run = nullptr;

// What the system itself reads from HKEY_LOCAL_MACHINE on the process's
// behalf (the computer name of the log header and of lock records, the time
// zone of the log's times): copied into the run's root.
constexpr const wchar_t* kSystemKeys[] = {
    L"System\\CurrentControlSet\\Control\\ComputerName",
    L"System\\CurrentControlSet\\Control\\TimeZoneInformation",
};

[[noreturn]] void Fail(const char* what, long rc) {
    std::fprintf(stderr, "test run: %s failed, rc = %ld\n", what, rc);
    std::exit(3);
}

void SetValue(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data, DWORD bytes) {
    if (LSTATUS rc = ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, subkey, name, type, data, bytes)) Fail("RegSetKeyValue", rc);
}

}  // namespace

void RemoveTree(const std::wstring& folder) {
    WIN32_FIND_DATAW fd;
    kx::unique_hfind find(::FindFirstFileW((folder + L"\\*").c_str(), &fd));
    if (find) {
        do {
            const std::wstring name = fd.cFileName;
            if (name == L"." || name == L"..") continue;
            const std::wstring path = folder + L"\\" + name;
            ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                RemoveTree(path);
            else
                ::DeleteFileW(path.c_str());
        } while (::FindNextFileW(find.get(), &fd));
    }
    find.reset();
    ::SetFileAttributesW(folder.c_str(), FILE_ATTRIBUTE_NORMAL);
    ::RemoveDirectoryW(folder.c_str());
}

std::wstring TempFolder() {
    wchar_t temp[MAX_PATH];
    const DWORD n = ::GetTempPathW(MAX_PATH, temp);
    return std::wstring(temp, n && temp[n - 1] == L'\\' ? n - 1 : n);
}

namespace {

bool Running(DWORD pid) {
    kx::unique_handle p(::OpenProcess(SYNCHRONIZE, FALSE, pid));
    return p && ::WaitForSingleObject(p.get(), 0) == WAIT_TIMEOUT;
}

// A program's log stays open until the process has ended, so its run folder
// (and a key left by a crash) goes when a later run starts.
void SweepEndedRuns() {
    WIN32_FIND_DATAW fd;
    const std::wstring temp = TempFolder();
    kx::unique_hfind find(::FindFirstFileW((temp + L"\\kxrun_*").c_str(), &fd));
    if (find)
        do
            if (!Running(wcstoul(fd.cFileName + 6, nullptr, 10))) RemoveTree(temp + L"\\" + fd.cFileName);
        while (::FindNextFileW(find.get(), &fd));
    kx::unique_hkey runs;
    if (::RegOpenKeyExW(HKEY_CURRENT_USER, kRunsKey, 0, KEY_ALL_ACCESS, runs.put())) return;
    wchar_t name[64];
    for (DWORD i = 0, chars = 64; ::RegEnumKeyExW(runs.get(), i, name, &chars, nullptr, nullptr, nullptr, nullptr) == 0;
         chars = 64)
        if (Running(wcstoul(name, nullptr, 10)) || ::RegDeleteTreeW(runs.get(), name)) ++i;
}

}  // namespace

TestRun::TestRun() {
    wchar_t joined[64] = {};
    const DWORD n = ::GetEnvironmentVariableW(kRunVariable, joined, 64);
    if (n > 0 && n < 64) {
        key_ = joined;
    } else {
        owner_ = true;
        SweepEndedRuns();
        wchar_t name[64];
        swprintf(name, 64, L"%s\\%lu_%lu", kRunsKey, ::GetCurrentProcessId(), ::GetTickCount());
        key_ = name;
        ::SetEnvironmentVariableW(kRunVariable, key_.c_str());
    }
    kx::unique_hkey root;
    if (LSTATUS rc = ::RegCreateKeyExW(HKEY_CURRENT_USER, key_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                       root.put(), nullptr))
        Fail("RegCreateKeyEx", rc);
    for (const wchar_t* system : kSystemKeys) {
        kx::unique_hkey from, to;
        if (!owner_ || ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, system, 0, KEY_READ, from.put())) continue;
        if (LSTATUS rc = ::RegCreateKeyExW(root.get(), system, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, to.put(), nullptr))
            Fail("RegCreateKeyEx", rc);
        if (LSTATUS rc = ::RegCopyTreeW(from.get(), nullptr, to.get())) Fail("RegCopyTree", rc);
    }
    if (LSTATUS rc = ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, root.get())) Fail("RegOverridePredefKey", rc);

    wchar_t path[MAX_PATH];
    DWORD bytes = sizeof path;
    if (owner_) {
        install_ = TempFolder() + L"\\kxrun_" + key_.substr(key_.rfind(L'\\') + 1);
        if (!::CreateDirectoryW(install_.c_str(), nullptr)) Fail("CreateDirectory", static_cast<long>(::GetLastError()));
        SetValue(kInstallPathKey, L"Path", REG_SZ, install_.c_str(), static_cast<DWORD>((install_.size() + 1) * 2));
        const DWORD detail = 4;
        SetValue(kDebugKey, L"KestrixHA", REG_DWORD, &detail, sizeof detail);
    } else if (::RegGetValueW(HKEY_LOCAL_MACHINE, kInstallPathKey, L"Path", RRF_RT_REG_SZ, nullptr, path, &bytes) == 0) {
        install_ = path;
    }
    g_run = this;
}

TestRun::~TestRun() {
    g_run = nullptr;
    ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    if (!owner_) return;
    ::RegDeleteTreeW(HKEY_CURRENT_USER, key_.c_str());
    RemoveTree(install_);  // what the open log leaves goes in a later run
}

const TestRun& CurrentRun() { return *g_run; }

}  // namespace kxtest
