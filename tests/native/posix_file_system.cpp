#include "posix_file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

namespace kxnative {
namespace {

using kx::vhd::Status;

Status FromErrno(int e) {
    switch (e) {
        case ENOENT: return kx::vhd::kFileNotFound;
        case ENOTDIR: return 3;  // path not found
        case EACCES:
        case EPERM:
        case EBADF: return kx::vhd::kAccessDenied;
        case EEXIST: return kx::vhd::kFileExists;
        case ENOMEM: return kx::vhd::kOutOfMemory;
        case EROFS: return kx::vhd::kWriteProtect;
        default: return kx::vhd::kInvalidParameter;
    }
}

class PosixFile : public kx::vhd::PositionedFile {
public:
    explicit PosixFile(int fd) : fd_(fd) {}
    ~PosixFile() override { ::close(fd_); }

    Status ReadAt(uint64_t offset, void* data, size_t bytes) override {
        auto* p = static_cast<uint8_t*>(data);
        while (bytes) {
            const ssize_t n = ::pread(fd_, p, bytes, static_cast<off_t>(offset));
            if (n < 0) {
                if (errno == EINTR) continue;
                return FromErrno(errno);
            }
            if (n == 0) return kx::vhd::kHandleEof;
            p += n;
            offset += static_cast<uint64_t>(n);
            bytes -= static_cast<size_t>(n);
        }
        return kx::vhd::kOk;
    }

    Status WriteAt(uint64_t offset, const void* data, size_t bytes) override {
        const auto* p = static_cast<const uint8_t*>(data);
        while (bytes) {
            const ssize_t n = ::pwrite(fd_, p, bytes, static_cast<off_t>(offset));
            if (n < 0) {
                if (errno == EINTR) continue;
                return FromErrno(errno);
            }
            p += n;
            offset += static_cast<uint64_t>(n);
            bytes -= static_cast<size_t>(n);
        }
        return kx::vhd::kOk;
    }

    Status Size(uint64_t* bytes) override {
        struct stat st {};
        if (::fstat(fd_, &st) != 0) return FromErrno(errno);
        *bytes = static_cast<uint64_t>(st.st_size);
        return kx::vhd::kOk;
    }

    Status Flush() override { return ::fdatasync(fd_) == 0 ? kx::vhd::kOk : FromErrno(errno); }

private:
    int fd_;
};

Status OpenWith(const std::u16string& path, int flags, std::unique_ptr<kx::vhd::PositionedFile>* file) {
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

}  // namespace

std::string ToUtf8(const std::u16string& path) {
    std::string out;
    for (size_t i = 0; i < path.size(); ++i) {
        uint32_t c = path[i];
        if (c == u'\\') c = u'/';
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < path.size() && path[i + 1] >= 0xDC00 && path[i + 1] <= 0xDFFF)
            c = 0x10000 + ((c - 0xD800) << 10) + (path[++i] - 0xDC00);
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | c >> 6));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | c >> 12));
            out.push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | c >> 18));
            out.push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

std::u16string FromUtf8(const std::string& path) {
    std::u16string out;
    for (size_t i = 0; i < path.size();) {
        const auto b = static_cast<uint8_t>(path[i]);
        const size_t len = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
        uint32_t c = len == 1 ? b : len == 2 ? b & 0x1F : len == 3 ? b & 0x0F : b & 0x07;
        for (size_t k = 1; k < len && i + k < path.size(); ++k) c = c << 6 | (static_cast<uint8_t>(path[i + k]) & 0x3F);
        i += len;
        if (c >= 0x10000) {
            c -= 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(c));
        }
    }
    return out;
}

Status OpenPosixFile(const std::u16string& path, bool writable, std::unique_ptr<kx::vhd::PositionedFile>* file) {
    return OpenWith(path, writable ? O_RDWR : O_RDONLY, file);
}

Status PosixFileSystem::OpenParent(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) {
    return OpenWith(path, O_RDONLY, file);
}

Status PosixFileSystem::CreateNew(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) {
    return OpenWith(path, O_RDWR | O_CREAT | O_EXCL, file);
}

Status PosixFileSystem::Remove(const std::u16string& path) {
    return ::unlink(ToUtf8(path).c_str()) == 0 ? kx::vhd::kOk : FromErrno(errno);
}

std::u16string PosixFileSystem::Absolute(const std::u16string& path) {
    if (!path.empty() && (path[0] == u'/' || path[0] == u'\\')) return path;
    char cwd[PATH_MAX];
    if (!::getcwd(cwd, sizeof cwd)) return path;
    return FromUtf8(cwd) + u"/" + path;
}

}  // namespace kxnative
