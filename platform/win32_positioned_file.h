// The VHD library's file layer on Win32 files.
#pragma once

#include <windows.h>

#include "common/unique_resource.h"
#include "platform/vhd/positioned_io.h"

namespace kx::vdisk {

class Win32PositionedFile final : public vhd::PositionedFile {
public:
    explicit Win32PositionedFile(unique_hfile file) : file_(std::move(file)) {}
    vhd::Status ReadAt(uint64_t offset, void* data, size_t bytes) override;
    vhd::Status WriteAt(uint64_t offset, const void* data, size_t bytes) override;
    vhd::Status Size(uint64_t* bytes) override;
    vhd::Status Flush() override;

private:
    unique_hfile file_;
};

// Opens parents for reading with the sharing the caller of the top disk
// asked for (reading is always shared), and creates files exclusively.
class Win32FileSystem final : public vhd::FileSystem {
public:
    explicit Win32FileSystem(DWORD parentShare) : parentShare_(parentShare | FILE_SHARE_READ) {}
    vhd::Status OpenParent(const std::u16string& path, std::unique_ptr<vhd::PositionedFile>* file) override;
    vhd::Status CreateNew(const std::u16string& path, std::unique_ptr<vhd::PositionedFile>* file) override;
    vhd::Status Remove(const std::u16string& path) override;
    std::u16string Absolute(const std::u16string& path) override;

    // Opens a file with the caller's access and sharing.
    static vhd::Status OpenFile(const std::wstring& path, DWORD access, DWORD share, DWORD disposition,
                                std::unique_ptr<vhd::PositionedFile>* file);

private:
    DWORD parentShare_;
};

inline std::wstring ToWide(const std::u16string& s) { return std::wstring(s.begin(), s.end()); }
inline std::u16string ToU16(const std::wstring& s) { return std::u16string(s.begin(), s.end()); }

}  // namespace kx::vdisk
