#include "log/file_output.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cwchar>
#include <cwctype>

#include "common/positioned_io.h"
#include "log/debug_log.h"
#include "log/log_trace.h"

namespace kx::log {

namespace {

constexpr int kMaxIndex = 99999999;  // eight digits in the file name
constexpr size_t kLineChars = kMessageChars + 128;
constexpr size_t kHeaderChars = 2048;
constexpr const wchar_t* kHeaderTitle =
    L"[   Date        Time      Level  PID     TID   ErrCode    ] .......\r\n";

size_t Append(wchar_t* buf, size_t cap, size_t len, const wchar_t* format, ...) noexcept {
    if (len + 1 >= cap) return len;
    va_list args;
    va_start(args, format);
    const int n = _vsnwprintf(buf + len, cap - len - 1, format, args);
    va_end(args);
    len = (n < 0 || static_cast<size_t>(n) >= cap - len - 1) ? cap - 1 : len + static_cast<size_t>(n);
    buf[len] = 0;
    return len;
}

size_t AppendText(wchar_t* buf, size_t cap, size_t len, const wchar_t* text) noexcept {
    while (*text && len + 1 < cap) buf[len++] = *text++;
    buf[len] = 0;
    return len;
}

// "[time   LL   PID   TID   code] ", the code column blank when there is none.
size_t AppendPrefix(wchar_t* buf, size_t cap, size_t len, const SYSTEMTIME& t, int level, DWORD error) noexcept {
    wchar_t time[32];
    _snwprintf(time, 31, L"%4d/%02d/%02d %02d:%02d:%02d:%03d", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
               t.wSecond, t.wMilliseconds);
    time[31] = 0;
    const long pid = static_cast<long>(::GetCurrentProcessId());
    const long tid = static_cast<long>(::GetCurrentThreadId());
    if (error == 0) return Append(buf, cap, len, L"[%s   %02d   %05ld   %05ld             ] ", time, level, pid, tid);
    return Append(buf, cap, len, L"[%s   %02d   %05ld   %05ld   0X%08x] ", time, level, pid, tid, error);
}

// The size of a file as its data says, not as a directory entry may still
// have it while another process writes; 0 when it does not exist.
uint64_t SizeOf(const wchar_t* path) noexcept {
    if (!path[0]) return 0;
    unique_hfile f(::CreateFileW(path, FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                 nullptr, OPEN_EXISTING, 0, nullptr));
    LARGE_INTEGER size{};
    if (!f || !::GetFileSizeEx(f.get(), &size)) return 0;
    return static_cast<uint64_t>(size.QuadPart);
}

// Makes the folders of `path` that are missing, from the root down.
void MakeParentFolders(const wchar_t* path) noexcept {
    wchar_t folder[kPathChars];
    wcsncpy(folder, path, kPathChars - 1);
    folder[kPathChars - 1] = 0;
    wchar_t* last = wcsrchr(folder, L'\\');
    if (!last) return;
    *last = 0;
    // The root (C:\ or \\server\share) is there or cannot be made.
    wchar_t* p = folder;
    if (p[0] == L'\\' && p[1] == L'\\') {
        p = wcschr(p + 2, L'\\');
        if (p) p = wcschr(p + 1, L'\\');
        if (!p) return;
    } else if (p[0] && p[1] == L':') {
        p += 2;
    }
    for (;;) {
        if (*p == L'\\') ++p;
        p = wcschr(p, L'\\');
        if (!p) break;
        *p = 0;
        ::CreateDirectoryW(folder, nullptr);
        *p = L'\\';
    }
    ::CreateDirectoryW(folder, nullptr);
}

}  // namespace

void FileMutexName(const wchar_t* path, wchar_t (&name)[8 + kMutexPathChars + 1]) noexcept {
    name[0] = 0;
    if (!path || !path[0]) return;
    wcscpy(name, L"Global\\");
    const size_t prefix = wcslen(name);
    const size_t n = std::min(wcslen(path), kMutexPathChars);
    wchar_t* out = name + prefix;
    const int done = ::LCMapStringEx(LOCALE_NAME_INVARIANT, LCMAP_UPPERCASE, path, static_cast<int>(n), out,
                                     static_cast<int>(n), nullptr, nullptr, 0);
    if (done != static_cast<int>(n))
        for (size_t i = 0; i < n; ++i) out[i] = static_cast<wchar_t>(std::towupper(path[i]));
    for (size_t i = 0; i < n; ++i)
        if (out[i] == L'\\') out[i] = L'/';
    out[n] = 0;
}

FileOutput::FileOutput() noexcept { ::InitializeCriticalSection(&cs_); }

FileOutput::~FileOutput() { ::DeleteCriticalSection(&cs_); }

void FileOutput::Init(const wchar_t* stem, SharedConfig* config, SharedEntry* entry, const HostInfo* host) noexcept {
    critical_section_guard guard(cs_);
    wcsncpy(stem_, stem, kPathChars - 1);
    stem_[kPathChars - 1] = 0;
    config_ = config;
    entry_ = entry ? entry : &own_;
    host_ = host;
    Settle();
}

uint64_t FileOutput::Limit() noexcept {
    const uint64_t shared = LoadRelaxed(entry_->limit);
    return shared ? shared : kRotationLimit;
}

void FileOutput::SetRotationLimit(uint64_t bytes) noexcept {
    if (entry_) Store(entry_->limit, bytes);
}

void FileOutput::NameFor(int index, wchar_t (&path)[kPathChars]) const noexcept {
    path[0] = 0;
    if (!stem_[0]) return;
    const int n = index == 0 ? _snwprintf(path, kPathChars - 1, L"%s.Log", stem_)
                             : _snwprintf(path, kPathChars - 1, L"%s.%08d.log", stem_, index);
    path[kPathChars - 1] = 0;
    if (n < 0) path[0] = 0;  // too long for a log path: no file, lines are dropped
}

void FileOutput::Close() noexcept {
    file_.reset();
    mutex_.reset();
    encoding_ = Encoding::unknown;
}

// Moves to the file the shared configuration names, when another writer has
// rotated.
void FileOutput::Follow() noexcept {
    const int shared = LoadRelaxed(entry_->index);
    if (shared == index_) return;
    Close();
    index_ = shared;
    NameFor(index_, path_);
}

// Settles on the first file, from the current one on, that is below the
// rotation size, and makes it current for every writer.
void FileOutput::Settle() noexcept {
    mutex_release lock;
    if (entry_ != &own_) lock = config_->Lock();  // without it, carry on alone: better than growing forever
    int index = std::max<int>(LoadRelaxed(entry_->index), std::max(index_, 0));
    const uint64_t limit = Limit();
    wchar_t name[kPathChars];
    NameFor(index, name);
    while (index < kMaxIndex && SizeOf(name) >= limit) NameFor(++index, name);
    if (index > LoadRelaxed(entry_->index)) Store(entry_->index, index);
    if (index != index_) {
        Close();
        index_ = index;
        wcscpy(path_, name);
    }
}

bool FileOutput::Open() noexcept {
    if (!path_[0]) return false;
    wchar_t name[8 + kMutexPathChars + 1];
    FileMutexName(path_, name);
    OpenToAll everyone;
    mutex_.reset(::CreateMutexW(everyone.get(), FALSE, name));
    if (!mutex_) {
        Trace(L"Failed to create mutex with name [%s]. ERR=%d\r\n", name, ::GetLastError());
        return false;
    }
    auto create = [&] {
        return ::CreateFileW(path_, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, everyone.get(),
                             OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    };
    file_.reset(create());
    if (!file_ && ::GetLastError() == ERROR_PATH_NOT_FOUND) {
        MakeParentFolders(path_);
        file_.reset(create());
    }
    if (!file_) {
        Trace(L"Failed to create file [%s]. ERR=%d\r\n", path_, ::GetLastError());
        mutex_.reset();
        return false;
    }
    encoding_ = Encoding::unknown;
    return true;
}

// Writes `chars` characters at `*at` in the file's encoding and advances `*at`.
bool FileOutput::Put(const wchar_t* text, size_t chars, uint64_t* at) noexcept {
    char narrow[kHeaderChars * 4];
    const void* data = text;
    DWORD bytes = static_cast<DWORD>(chars * sizeof(wchar_t));
    if (encoding_ == Encoding::narrow) {
        const int n = ::WideCharToMultiByte(CP_ACP, 0, text, static_cast<int>(chars), narrow, sizeof narrow, nullptr,
                                            nullptr);
        if (n <= 0) return false;
        data = narrow;
        bytes = static_cast<DWORD>(n);
    }
    DWORD written = 0;
    if (io::WriteAt(file_.get(), *at, data, bytes, &written) || written != bytes) {
        Trace(L"Failed to Write log message. ERR=%d, [%d]File=%s\r\n", ::GetLastError(), bytes, path_);
        return false;
    }
    *at += written;
    return true;
}

bool FileOutput::WriteHeader(uint64_t* at, int threshold) noexcept {
    wchar_t product[160];
    size_t n = Append(product, 160, 0, L"Product Info: %s %s Version[%d.%d.%d]", host_->maker, host_->product,
                      host_->major, host_->minor, host_->build);
    if (host_->update) Append(product, 160, n, L" (Update %d)", host_->update);
    wchar_t os[160];
    Append(os, 160, 0, L"OS      Info: Computer Name[%s] Version[%d.%d] Platform[%s]", host_->computer,
           static_cast<int>(host_->osMajor), static_cast<int>(host_->osMinor), host_->platform);
    const wchar_t* lines[] = {
        L"================ SUMMARY LOG =======================",
        product,
        os,
        L"Log level of each module can be controlled by registry key:",
        L"[HKEY_LOCAL_MACHINE\\SOFTWARE\\Veltrana\\Quillon\\Engine\\Debug\\ModuleName:DWORD]",
        L"=====================================================",
    };
    SYSTEMTIME now;
    ::GetLocalTime(&now);
    wchar_t buf[kHeaderChars];
    size_t len = AppendText(buf, kHeaderChars, 0, kHeaderTitle);
    for (const wchar_t* text : lines) {
        len = AppendPrefix(buf, kHeaderChars, len, now, threshold, 0);
        len = AppendText(buf, kHeaderChars, len, text);
        len = AppendText(buf, kHeaderChars, len, L"\r\n");
    }
    return Put(buf, len, at);
}

void FileOutput::Write(int level, DWORD error, const wchar_t* message, int threshold) {
    critical_section_guard guard(cs_);
    // A rotation makes another round; more than a few mean the files cannot
    // be settled (sizes changing under us), and the line is dropped.
    for (int round = 0; round < 4; ++round) {
        Follow();
        if (!file_ && !Open()) return;
        mutex_release lock = acquire_mutex(mutex_.get(), kFileWaitMs);
        if (!lock) {
            Trace(L"Failed to wait for mutex of file [%s]. ERR=%d\r\n", path_, ::GetLastError());
            return;
        }
        LARGE_INTEGER size{};
        if (!::GetFileSizeEx(file_.get(), &size)) {
            Trace(L"Failed to get size of file [%s]. ERR=%d\r\n", path_, ::GetLastError());
            return;
        }
        uint64_t at = static_cast<uint64_t>(size.QuadPart);
        if (at >= Limit()) {
            lock.reset();
            Settle();
            continue;
        }
        if (at <= 2) {
            // A new file: Unicode, with the byte-order mark and the header.
            encoding_ = Encoding::unicode;
            at = 0;
            const wchar_t bom = 0xFEFF;
            if (!Put(&bom, 1, &at) || !WriteHeader(&at, threshold)) return;
        } else if (encoding_ == Encoding::unknown) {
            unsigned char mark[2] = {};
            DWORD got = 0;
            io::ReadAt(file_.get(), 0, mark, 2, &got);
            encoding_ = (got == 2 && mark[0] == 0xFF && mark[1] == 0xFE) ? Encoding::unicode : Encoding::narrow;
        }
        SYSTEMTIME now;
        ::GetLocalTime(&now);
        wchar_t line[kLineChars];
        size_t len = AppendPrefix(line, kLineChars, 0, now, level, error);
        len = AppendText(line, kLineChars, len, message);
        len = AppendText(line, kLineChars, len, L"\r\n");
        Put(line, len, &at);
        return;
    }
}

void FileOutput::CurrentFile(wchar_t (&path)[kPathChars]) noexcept {
    critical_section_guard guard(cs_);
    Follow();
    uint64_t size = 0;
    LARGE_INTEGER open{};
    if (file_ && ::GetFileSizeEx(file_.get(), &open))
        size = static_cast<uint64_t>(open.QuadPart);
    else
        size = SizeOf(path_);
    if (size >= Limit()) Settle();
    wcscpy(path, path_);
}

}  // namespace kx::log
