// The VHD library's file layer over POSIX files, for native tests and tools.
// Paths are UTF-16 and converted to UTF-8; '\' is taken as a separator, as
// the library's callers expect.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>

#include "platform/vhd/positioned_io.h"

namespace kxnative {

// A path that does not convert (a lone surrogate from a damaged image) is
// empty, and opens nothing.
inline std::string ToUtf8(const std::u16string& path) {
    std::u16string slashed = path;
    for (char16_t& c : slashed)
        if (c == u'\\') c = u'/';
    try {
        return std::filesystem::path(slashed).string();
    } catch (const std::exception&) {
        return {};
    }
}

inline std::u16string FromUtf8(const std::string& path) { return std::filesystem::path(path).u16string(); }

inline kx::vhd::Status FromErrno(int e) {
    return e == ENOENT || e == ENOTDIR ? kx::vhd::kFileNotFound : e == EEXIST ? kx::vhd::kFileExists : kx::vhd::kAccessDenied;
}

class PosixFile : public kx::vhd::PositionedFile {
public:
    using Status = kx::vhd::Status;
    explicit PosixFile(int fd) : fd_(fd) {}
    ~PosixFile() override { ::close(fd_); }

    // Opens an existing file (or, with O_CREAT, a new one) for the library.
    static Status Open(const std::u16string& path, int flags, std::unique_ptr<kx::vhd::PositionedFile>* file) {
        file->reset();
        const int fd = ::open(ToUtf8(path).c_str(), flags | O_CLOEXEC, 0644);
        if (fd < 0) return FromErrno(errno);
        struct stat st {};
        if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
            ::close(fd);
            return kx::vhd::kAccessDenied;
        }
        file->reset(new PosixFile(fd));
        return kx::vhd::kOk;
    }

    Status ReadAt(uint64_t offset, void* data, size_t bytes) override { return Transfer(offset, data, bytes, false); }
    Status WriteAt(uint64_t offset, const void* data, size_t bytes) override {
        return Transfer(offset, const_cast<void*>(data), bytes, true);
    }
    Status Size(uint64_t* bytes) override {
        struct stat st {};
        if (::fstat(fd_, &st) != 0) return FromErrno(errno);
        *bytes = static_cast<uint64_t>(st.st_size);
        return kx::vhd::kOk;
    }
    Status Flush() override { return ::fdatasync(fd_) == 0 ? kx::vhd::kOk : FromErrno(errno); }

private:
    Status Transfer(uint64_t offset, void* data, size_t bytes, bool write) {
        for (auto* p = static_cast<uint8_t*>(data); bytes;) {
            const ssize_t n = write ? ::pwrite(fd_, p, bytes, static_cast<off_t>(offset))
                                    : ::pread(fd_, p, bytes, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return FromErrno(errno);
            if (n == 0) return kx::vhd::kHandleEof;
            p += n, offset += static_cast<uint64_t>(n), bytes -= static_cast<size_t>(n);
        }
        return kx::vhd::kOk;
    }
    int fd_;
};

// Opens an existing file for the library, read-only or for reading and writing.
inline kx::vhd::Status OpenPosixFile(const std::u16string& path, bool writable,
                                     std::unique_ptr<kx::vhd::PositionedFile>* file) {
    return PosixFile::Open(path, writable ? O_RDWR : O_RDONLY, file);
}

class PosixFileSystem : public kx::vhd::FileSystem {
public:
    using Status = kx::vhd::Status;
    Status OpenParent(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) override {
        return PosixFile::Open(path, O_RDONLY, file);
    }
    Status CreateNew(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) override {
        return PosixFile::Open(path, O_RDWR | O_CREAT | O_EXCL, file);
    }
    Status Remove(const std::u16string& path) override {
        return ::unlink(ToUtf8(path).c_str()) == 0 ? kx::vhd::kOk : FromErrno(errno);
    }
    std::u16string Absolute(const std::u16string& path) override {
        std::error_code ec;
        const auto abs = std::filesystem::absolute(ToUtf8(path), ec);
        return ec ? path : abs.u16string();
    }
};

}  // namespace kxnative
