#include "platform/win32_positioned_file.h"

#include <algorithm>
#include <vector>

#include "common/positioned_io.h"

namespace kx::vdisk {
namespace {

// ReadFile and WriteFile move at most this much per call.
constexpr size_t kMaxTransfer = 1u << 30;

}  // namespace

vhd::Status Win32PositionedFile::ReadAt(uint64_t offset, void* data, size_t bytes) {
    auto* p = static_cast<BYTE*>(data);
    while (bytes) {
        const DWORD chunk = static_cast<DWORD>(std::min(bytes, kMaxTransfer));
        DWORD done = 0;
        if (const DWORD e = io::ReadAt(file_.get(), offset, p, chunk, &done))
            return e == ERROR_HANDLE_EOF ? vhd::kHandleEof : e;
        if (done == 0) return vhd::kHandleEof;
        p += done, offset += done, bytes -= done;
    }
    return vhd::kOk;
}

vhd::Status Win32PositionedFile::WriteAt(uint64_t offset, const void* data, size_t bytes) {
    auto* p = static_cast<const BYTE*>(data);
    while (bytes) {
        const DWORD chunk = static_cast<DWORD>(std::min(bytes, kMaxTransfer));
        DWORD done = 0;
        if (const DWORD e = io::WriteAt(file_.get(), offset, p, chunk, &done)) return e;
        if (done == 0) return ERROR_WRITE_FAULT;
        p += done, offset += done, bytes -= done;
    }
    return vhd::kOk;
}

vhd::Status Win32PositionedFile::Size(uint64_t* bytes) {
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file_.get(), &size)) return ::GetLastError();
    *bytes = static_cast<uint64_t>(size.QuadPart);
    return vhd::kOk;
}

vhd::Status Win32PositionedFile::Flush() { return ::FlushFileBuffers(file_.get()) ? vhd::kOk : ::GetLastError(); }

vhd::Status Win32FileSystem::OpenFile(const std::wstring& path, DWORD access, DWORD share, DWORD disposition,
                                      std::unique_ptr<vhd::PositionedFile>* file) {
    unique_hfile h(::CreateFileW(path.c_str(), access, share, nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!h) return ::GetLastError();
    *file = std::make_unique<Win32PositionedFile>(std::move(h));
    return vhd::kOk;
}

vhd::Status Win32FileSystem::OpenParent(const std::u16string& path, std::unique_ptr<vhd::PositionedFile>* file) {
    return OpenFile(ToWide(path), GENERIC_READ, parentShare_, OPEN_EXISTING, file);
}

vhd::Status Win32FileSystem::CreateNew(const std::u16string& path, std::unique_ptr<vhd::PositionedFile>* file) {
    return OpenFile(ToWide(path), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, CREATE_NEW, file);
}

vhd::Status Win32FileSystem::Remove(const std::u16string& path) {
    return ::DeleteFileW(ToWide(path).c_str()) ? vhd::kOk : ::GetLastError();
}

std::u16string Win32FileSystem::Absolute(const std::u16string& path) {
    const std::wstring in = ToWide(path);
    const DWORD need = ::GetFullPathNameW(in.c_str(), 0, nullptr, nullptr);
    if (need == 0) return path;
    std::vector<wchar_t> out(need);
    const DWORD got = ::GetFullPathNameW(in.c_str(), need, out.data(), nullptr);
    if (got == 0 || got >= need) return path;
    return ToU16(std::wstring(out.data(), got));
}

}  // namespace kx::vdisk
