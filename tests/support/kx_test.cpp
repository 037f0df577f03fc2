#include "kx_test.h"

#include <cstdio>

#include <gtest/gtest.h>

#include <cwchar>
#include <sstream>
#include <stdexcept>

#include "common/unique_resource.h"
#include "log/debug_log.h"

namespace kxtest {

ScratchDir::ScratchDir() {
    static LONG counter = 0;
    wchar_t name[64];
    swprintf(name, 64, L"\\kx%lu_%ld_%lu", ::GetCurrentProcessId(), ::InterlockedIncrement(&counter), ::GetTickCount());
    path_ = TempFolder() + name;
    if (!::CreateDirectoryW(path_.c_str(), nullptr)) throw std::runtime_error("cannot create scratch folder");
}

void SetRegValue(const std::wstring& subkey, const std::wstring& name, DWORD value) {
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, subkey.c_str(), name.c_str(), REG_DWORD, &value, sizeof value);
}

void SetRegValue(const std::wstring& subkey, const std::wstring& name, const std::wstring& value) {
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, subkey.c_str(), name.c_str(), REG_SZ, value.c_str(),
                      static_cast<DWORD>((value.size() + 1) * 2));
}

void WriteBytes(const std::wstring& path, const void* data, size_t size) {
    kx::unique_hfile h(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                     nullptr));
    if (!h) throw std::runtime_error("cannot create " + Narrow(path));
    DWORD written = 0;
    if (size && (!::WriteFile(h.get(), data, static_cast<DWORD>(size), &written, nullptr) || written != size))
        throw std::runtime_error("cannot write " + Narrow(path));
}

void WriteText(const std::wstring& path, const std::string& text) { WriteBytes(path, text.data(), text.size()); }

std::vector<uint8_t> ReadBytes(const std::wstring& path) {
    kx::unique_hfile h(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                     nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!h || !::GetFileSizeEx(h.get(), &size)) return {};
    std::vector<uint8_t> data(static_cast<size_t>(size.QuadPart));
    DWORD got = 0;
    if (!data.empty() && !::ReadFile(h.get(), data.data(), static_cast<DWORD>(data.size()), &got, nullptr)) got = 0;
    data.resize(got);
    return data;
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

void MakeDirs(const std::wstring& path) {
    for (size_t i = 3; i <= path.size(); ++i)
        if (i == path.size() || path[i] == L'\\' || path[i] == L'/')
            ::CreateDirectoryW(path.substr(0, i).c_str(), nullptr);
}

std::string Narrow(const std::wstring& s) {
    if (s.empty()) return {};
    int n = ::WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0, nullptr, nullptr);
    std::string out(n, '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), out.data(), n, nullptr, nullptr);
    return out;
}

namespace {
// The CR LF separated lines of UTF-16LE bytes from `from` on; a last line
// without its end only when asked for.
std::vector<std::wstring> Lines(const std::vector<uint8_t>& bytes, size_t from, bool partial) {
    std::vector<std::wstring> lines;
    if (bytes.size() <= from) return lines;
    const std::wstring all(reinterpret_cast<const wchar_t*>(bytes.data() + from), (bytes.size() - from) / 2);
    size_t start = 0;
    for (size_t end; (end = all.find(L"\r\n", start)) != std::wstring::npos; start = end + 2)
        lines.push_back(all.substr(start, end - start));
    if (partial && start < all.size()) lines.push_back(all.substr(start));
    return lines;
}
}  // namespace

std::optional<LogLine> ParseLogLine(const std::wstring& raw) {
    // "[yyyy/mm/dd hh:mm:ss:mmm   LL   PPPPP   TTTTT   <code or blanks>] text"
    const size_t close = raw.find(L"] ");
    unsigned long pid = 0;
    int level = -1;
    if (raw.empty() || raw[0] != L'[' || close == std::wstring::npos ||
        swscanf(raw.c_str() + 1, L"%*ls %*ls %d %lu", &level, &pid) != 2)
        return std::nullopt;
    return LogLine{pid, raw.substr(close + 2), level};
}

std::vector<std::wstring> ReadLogFileLines(const std::wstring& path) {
    const std::vector<uint8_t> bytes = ReadBytes(path);
    if (bytes.size() < 2 || bytes[0] != 0xFF || bytes[1] != 0xFE) return {};
    return Lines(bytes, 2, true);
}

LogCursor::LogCursor() {
    kx::Log(4, L"kxtest: log cursor");  // makes sure the file exists and is current
    file_ = kx::log::CurrentFile();
    offset_ = ReadBytes(file_).size();
}

std::vector<LogLine> LogCursor::Matching(const std::wstring& needle) const {
    std::vector<LogLine> out;
    auto take = [&](const std::wstring& file, uint64_t from) {
        for (const auto& raw : Lines(ReadBytes(file), static_cast<size_t>(std::max<uint64_t>(from, 2)), false))
            if (auto l = ParseLogLine(raw);
                l && l->pid == ::GetCurrentProcessId() && l->text.find(needle) != std::wstring::npos)
                out.push_back(*l);
    };
    take(file_, offset_);
    if (const std::wstring now = kx::log::CurrentFile(); now != file_) take(now, 0);
    return out;
}

namespace {
// Starts a program with the given standard handles (inherited when set).
kx::unique_handle Start(const std::wstring& commandLine, HANDLE output, DWORD* pid) {
    STARTUPINFOW si{};
    si.cb = sizeof si;
    if (output) {
        si.dwFlags = STARTF_USESTDHANDLES;
        si.hStdOutput = si.hStdError = output;
    }
    PROCESS_INFORMATION pi{};
    std::wstring cmd = commandLine;
    if (!::CreateProcessW(nullptr, cmd.data(), nullptr, nullptr, output != nullptr, 0, nullptr, nullptr, &si, &pi))
        return {};
    kx::unique_handle thread(pi.hThread);
    if (pid) *pid = pi.dwProcessId;
    return kx::unique_handle(pi.hProcess);
}
}  // namespace

kx::unique_handle SpawnHelper(const std::wstring& test, const std::wstring& task, DWORD* pid) {
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    ::SetEnvironmentVariableW(L"KX_HELPER_TASK", task.c_str());  // inherited by the helper
    return Start(L"\"" + std::wstring(self) + L"\" --gtest_also_run_disabled_tests --gtest_filter=" + test, nullptr, pid);
}

std::vector<std::wstring> HelperTask() {
    wchar_t task[4096] = {};
    ::GetEnvironmentVariableW(L"KX_HELPER_TASK", task, 4096);
    std::vector<std::wstring> fields;
    std::wistringstream in(task);
    for (std::wstring field; std::getline(in, field, L'|');) fields.push_back(field);
    return fields;
}

DWORD RunCapture(const std::wstring& commandLine, std::string* output, DWORD timeoutMs) {
    ScratchDir d;
    const std::wstring outFile = d / L"out.txt";
    SECURITY_ATTRIBUTES sa{sizeof sa, nullptr, TRUE};
    kx::unique_hfile out(::CreateFileW(outFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &sa,
                                       CREATE_ALWAYS, 0, nullptr));
    // Under parallel test load a process start has now and then been refused
    // outright (the call failed within milliseconds; the program never ran).
    // A refusal is the harness's failure, not the program's: it is reported
    // on stderr with its code and the start is tried again, twice at most.
    kx::unique_handle process;
    DWORD startError = 0;
    for (int attempt = 0; attempt < 3 && !process; ++attempt) {
        if (attempt) {
            std::fprintf(stderr, "kxtest: CreateProcessW refused (error %lu), starting again: %s\n", startError,
                         Narrow(commandLine).c_str());
            ::Sleep(200);
        }
        process = Start(commandLine, out.get(), nullptr);
        if (!process) startError = ::GetLastError();
    }
    if (!process) {
        *output = "kxtest: CreateProcessW failed, error " + std::to_string(startError);
        return 0xFFFFFFFF;
    }
    DWORD code = 0xFFFFFFFE;
    if (::WaitForSingleObject(process.get(), timeoutMs) == WAIT_OBJECT_0)
        ::GetExitCodeProcess(process.get(), &code);
    else
        ::TerminateProcess(process.get(), code);
    out.reset();
    const auto bytes = ReadBytes(outFile);
    output->clear();
    for (size_t i = 0; i < bytes.size(); ++i)
        if (!(bytes[i] == '\r' && i + 1 < bytes.size() && bytes[i + 1] == '\n')) output->push_back(static_cast<char>(bytes[i]));
    return code;
}

std::wstring BinDir() {
    wchar_t path[MAX_PATH];
    DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring p(path, n);
    return p.substr(0, p.rfind(L'\\'));
}

}  // namespace kxtest
