// The file layer under the VHD library: files read and written at explicit
// offsets, and a file system that opens them by path. The library itself
// never touches the operating system; each platform supplies these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "platform/vhd/vhd_status.h"

namespace kx::vhd {

class PositionedFile {
public:
    virtual ~PositionedFile() = default;
    // Reads exactly `bytes` bytes at `offset`; a read past the end of the
    // file is kHandleEof.
    virtual Status ReadAt(uint64_t offset, void* data, size_t bytes) = 0;
    // Writes exactly `bytes` bytes at `offset`, extending the file as needed.
    virtual Status WriteAt(uint64_t offset, const void* data, size_t bytes) = 0;
    virtual Status Size(uint64_t* bytes) = 0;
    virtual Status Flush() = 0;
};

// Paths are UTF-16 strings; the separators '\' and '/' are both accepted.
class FileSystem {
public:
    virtual ~FileSystem() = default;
    // Opens an existing file read-only, as the parent of a differencing disk
    // is opened. kFileNotFound when it does not exist.
    virtual Status OpenParent(const std::u16string& path, std::unique_ptr<PositionedFile>* file) = 0;
    // Creates a new file for reading and writing; kFileExists when it exists.
    virtual Status CreateNew(const std::u16string& path, std::unique_ptr<PositionedFile>* file) = 0;
    // Removes a file (a creation that failed half-way).
    virtual Status Remove(const std::u16string& path) = 0;
    // The absolute form of a path.
    virtual std::u16string Absolute(const std::u16string& path) = 0;
};

}  // namespace kx::vhd
