#include "progress.h"

#include <cwchar>
#include <vector>

#include "KestrixHA.h"
#include "commands.h"
#include "common/unique_resource.h"
#include "output.h"

namespace kxha {

namespace {
unsigned long long FileSize(const std::wstring& f) {
    WIN32_FILE_ATTRIBUTE_DATA a{};
    if (!::GetFileAttributesExW(f.c_str(), GetFileExInfoStandard, &a)) return 0;
    return (static_cast<unsigned long long>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
}
}  // namespace

LogProgress::LogProgress() {
    if (!StdoutIsTerminal()) return;
    wchar_t path[1024];
    DWORD chars = 1024;
    if (KxGetDebugLogFile(path, &chars)) return;
    file_ = path;
    offset_ = FileSize(file_);
    thread_ = std::thread([this] { Run(); });
}

LogProgress::~LogProgress() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    if (shown_) Out(L"\r" + std::wstring(79, L' ') + L"\r");
}

void LogProgress::Run() {
    wchar_t pidField[16];
    _snwprintf(pidField, 16, L"   %05lu   ", ::GetCurrentProcessId());
    std::wstring session;
    while (!stop_) {
        ::Sleep(200);
        const unsigned long long size = FileSize(file_);
        if (size <= offset_) continue;
        kx::unique_hfile h(::CreateFileW(file_.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
        if (!h) continue;
        LARGE_INTEGER at;
        at.QuadPart = static_cast<LONGLONG>(offset_);
        ::SetFilePointerEx(h.get(), at, nullptr, FILE_BEGIN);
        std::vector<wchar_t> buf(static_cast<size_t>((size - offset_) / 2));
        DWORD got = 0;
        ::ReadFile(h.get(), buf.data(), static_cast<DWORD>(buf.size() * 2), &got, nullptr);
        std::wstring text(buf.data(), got / 2);
        const size_t lastNewline = text.rfind(L"\r\n");
        if (lastNewline == std::wstring::npos) continue;
        offset_ += (lastNewline + 2) * 2;
        text.resize(lastNewline);
        std::wstring status;
        size_t start = 0;
        while (start <= text.size()) {
            size_t end = text.find(L"\r\n", start);
            if (end == std::wstring::npos) end = text.size();
            const std::wstring line = text.substr(start, end - start);
            start = end + 2;
            if (line.find(pidField) == std::wstring::npos) continue;
            size_t p;
            if ((p = line.find(L"Processing session [")) != std::wstring::npos)
                session = line.substr(p + 20, 11);
            else if ((p = line.find(L"generating bitmap for [")) != std::wstring::npos)
                status = L"session " + session + L": reading " + line.substr(p + 23, line.find(L']', p) - p - 23);
            else if (line.find(L"Backup session information only") != std::wstring::npos)
                status = L"session " + session + L": full session, description only";
        }
        if (!status.empty()) {
            if (status.size() > 78) status.resize(78);
            Out(L"\r" + status + std::wstring(79 - status.size(), L' '));
            shown_ = true;
        }
    }
}

}  // namespace kxha
