// The VHD library's file layer over POSIX files, for native tests and tools.
// Paths are UTF-16 and converted to UTF-8; '\' is taken as a separator, as
// the library's callers expect.
#pragma once

#include <memory>
#include <string>

#include "platform/vhd/positioned_io.h"

namespace kxnative {

std::string ToUtf8(const std::u16string& path);
std::u16string FromUtf8(const std::string& path);

// Opens an existing file for the library, read-only or for reading and writing.
kx::vhd::Status OpenPosixFile(const std::u16string& path, bool writable,
                              std::unique_ptr<kx::vhd::PositionedFile>* file);

class PosixFileSystem : public kx::vhd::FileSystem {
public:
    kx::vhd::Status OpenParent(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) override;
    kx::vhd::Status CreateNew(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) override;
    kx::vhd::Status Remove(const std::u16string& path) override;
    std::u16string Absolute(const std::u16string& path) override;
};

}  // namespace kxnative
