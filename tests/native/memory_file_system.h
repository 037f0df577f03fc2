// An in-memory file layer for the VHD library: hostile images built byte by
// byte, I/O failures injected on demand, and the fuzz target, all without
// touching a disk. Paths are normalised ('\' and '/', "." and "..") so that
// parent locators resolve as on a real file system.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/vhd/positioned_io.h"

namespace kxnative {

using Bytes = std::vector<uint8_t>;

class MemoryFileSystem : public kx::vhd::FileSystem {
public:
    // Status of an injected I/O failure, and of a write past maxFileBytes.
    static constexpr kx::vhd::Status kIoFault = 1117;
    static constexpr kx::vhd::Status kDiskFull = 112;

    void Put(const std::u16string& path, Bytes bytes);
    // The current contents of a file; empty when it does not exist.
    Bytes Get(const std::u16string& path) const;
    bool Exists(const std::u16string& path) const;
    // Opens an existing file, as a test opens a disk it made.
    kx::vhd::Status Open(const std::u16string& path, bool writable, std::unique_ptr<kx::vhd::PositionedFile>* file);

    kx::vhd::Status OpenParent(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) override;
    kx::vhd::Status CreateNew(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) override;
    kx::vhd::Status Remove(const std::u16string& path) override;
    std::u16string Absolute(const std::u16string& path) override;

    // Reads and writes that still succeed before every later one fails with
    // kIoFault; negative for never. Shared by all files of this file system.
    long readsLeft = -1;
    long writesLeft = -1;
    uint64_t maxFileBytes = 1ull << 30;

private:
    friend class MemoryFile;
    static std::u16string Normalise(const std::u16string& path);
    std::map<std::u16string, std::shared_ptr<Bytes>> files_;
};

}  // namespace kxnative
