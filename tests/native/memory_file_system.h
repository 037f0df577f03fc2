// An in-memory file layer for the VHD library: hostile images built byte by
// byte, I/O failures injected on demand, and the fuzz target, all without
// touching a disk. Paths are normalised ('\' and '/', "." and "..") so that
// parent locators resolve as on a real file system.
#pragma once

#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/vhd/positioned_io.h"

namespace kxnative {

using Bytes = std::vector<uint8_t>;

class MemoryFileSystem : public kx::vhd::FileSystem {
public:
    using Status = kx::vhd::Status;
    using File = std::unique_ptr<kx::vhd::PositionedFile>;
    // Status of an injected I/O failure, and of a write past maxFileBytes.
    static constexpr Status kIoFault = 1117;
    static constexpr Status kDiskFull = 112;

    // Reads and writes that still succeed before every later one fails with
    // kIoFault; negative for never. Shared by all files of this file system.
    long readsLeft = -1;
    long writesLeft = -1;
    uint64_t maxFileBytes = 1ull << 30;

    void Put(const std::u16string& path, Bytes bytes) { files_[Normalise(path)] = std::make_shared<Bytes>(std::move(bytes)); }
    // The current contents of a file; empty when it does not exist.
    Bytes Get(const std::u16string& path) const {
        const auto it = files_.find(Normalise(path));
        return it == files_.end() ? Bytes{} : *it->second;
    }
    bool Exists(const std::u16string& path) const { return files_.count(Normalise(path)) != 0; }
    // Opens an existing file, as a test opens a disk it made.
    Status Open(const std::u16string& path, bool writable, File* file) {
        file->reset();
        const auto it = files_.find(Normalise(path));
        if (it == files_.end()) return kx::vhd::kFileNotFound;
        file->reset(new MemoryFile(*this, it->second, writable));
        return kx::vhd::kOk;
    }

    Status OpenParent(const std::u16string& path, File* file) override { return Open(path, false, file); }
    Status CreateNew(const std::u16string& path, File* file) override {
        file->reset();
        auto& slot = files_[Normalise(path)];
        if (slot) return kx::vhd::kFileExists;
        slot = std::make_shared<Bytes>();
        file->reset(new MemoryFile(*this, slot, true));
        return kx::vhd::kOk;
    }
    Status Remove(const std::u16string& path) override {
        return files_.erase(Normalise(path)) ? kx::vhd::kOk : kx::vhd::kFileNotFound;
    }
    std::u16string Absolute(const std::u16string& path) override {
        return Normalise(!path.empty() && (path[0] == u'/' || path[0] == u'\\') ? path : u"/work/" + path);
    }

private:
    class MemoryFile : public kx::vhd::PositionedFile {
    public:
        MemoryFile(MemoryFileSystem& fs, std::shared_ptr<Bytes> bytes, bool writable)
            : fs_(fs), bytes_(std::move(bytes)), writable_(writable) {}
        Status ReadAt(uint64_t offset, void* data, size_t count) override {
            if (fs_.readsLeft == 0) return kIoFault;
            if (fs_.readsLeft > 0) --fs_.readsLeft;
            if (offset > bytes_->size() || bytes_->size() - offset < count) return kx::vhd::kHandleEof;
            if (count) std::memcpy(data, bytes_->data() + offset, count);
            return kx::vhd::kOk;
        }
        Status WriteAt(uint64_t offset, const void* data, size_t count) override {
            if (!writable_) return kx::vhd::kAccessDenied;
            if (fs_.writesLeft == 0) return kIoFault;
            if (fs_.writesLeft > 0) --fs_.writesLeft;
            if (offset > fs_.maxFileBytes || fs_.maxFileBytes - offset < count) return kDiskFull;
            if (bytes_->size() < offset + count) bytes_->resize(offset + count);
            if (count) std::memcpy(bytes_->data() + offset, data, count);
            return kx::vhd::kOk;
        }
        Status Size(uint64_t* bytes) override {
            *bytes = bytes_->size();
            return kx::vhd::kOk;
        }
        Status Flush() override { return kx::vhd::kOk; }

    private:
        MemoryFileSystem& fs_;
        std::shared_ptr<Bytes> bytes_;
        bool writable_;
    };

    // By hand: paths from hostile images need not be valid UTF-16.
    static std::u16string Normalise(const std::u16string& path) {
        std::vector<std::u16string> parts;
        std::u16string part;
        auto flush = [&] {
            if (part == u"..") {
                if (!parts.empty()) parts.pop_back();
            } else if (!part.empty() && part != u".") {
                parts.push_back(part);
            }
            part.clear();
        };
        for (char16_t c : path) {
            if (c == u'/' || c == u'\\') flush();
            else part.push_back(c);
        }
        flush();
        std::u16string out;
        for (const auto& p : parts) out += u"/" + p;
        return out.empty() ? u"/" : out;
    }

    std::map<std::u16string, std::shared_ptr<Bytes>> files_;
};

}  // namespace kxnative
