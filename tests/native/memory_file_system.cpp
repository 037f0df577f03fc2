#include "memory_file_system.h"

#include <cstring>

namespace kxnative {

using kx::vhd::Status;

class MemoryFile : public kx::vhd::PositionedFile {
public:
    MemoryFile(MemoryFileSystem& fs, std::shared_ptr<Bytes> bytes, bool writable)
        : fs_(fs), bytes_(std::move(bytes)), writable_(writable) {}

    Status ReadAt(uint64_t offset, void* data, size_t count) override {
        if (fs_.readsLeft == 0) return MemoryFileSystem::kIoFault;
        if (fs_.readsLeft > 0) --fs_.readsLeft;
        if (offset > bytes_->size() || bytes_->size() - offset < count) return kx::vhd::kHandleEof;
        if (count) std::memcpy(data, bytes_->data() + offset, count);
        return kx::vhd::kOk;
    }

    Status WriteAt(uint64_t offset, const void* data, size_t count) override {
        if (!writable_) return kx::vhd::kAccessDenied;
        if (fs_.writesLeft == 0) return MemoryFileSystem::kIoFault;
        if (fs_.writesLeft > 0) --fs_.writesLeft;
        if (offset > fs_.maxFileBytes || fs_.maxFileBytes - offset < count) return MemoryFileSystem::kDiskFull;
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

std::u16string MemoryFileSystem::Normalise(const std::u16string& path) {
    // By hand: paths from hostile images need not be valid UTF-16.
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

void MemoryFileSystem::Put(const std::u16string& path, Bytes bytes) {
    files_[Normalise(path)] = std::make_shared<Bytes>(std::move(bytes));
}

Bytes MemoryFileSystem::Get(const std::u16string& path) const {
    const auto it = files_.find(Normalise(path));
    return it == files_.end() ? Bytes{} : *it->second;
}

bool MemoryFileSystem::Exists(const std::u16string& path) const { return files_.count(Normalise(path)) != 0; }

Status MemoryFileSystem::Open(const std::u16string& path, bool writable,
                              std::unique_ptr<kx::vhd::PositionedFile>* file) {
    file->reset();
    const auto it = files_.find(Normalise(path));
    if (it == files_.end()) return kx::vhd::kFileNotFound;
    file->reset(new MemoryFile(*this, it->second, writable));
    return kx::vhd::kOk;
}

Status MemoryFileSystem::OpenParent(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) {
    return Open(path, false, file);
}

Status MemoryFileSystem::CreateNew(const std::u16string& path, std::unique_ptr<kx::vhd::PositionedFile>* file) {
    file->reset();
    auto& slot = files_[Normalise(path)];
    if (slot) return kx::vhd::kFileExists;
    slot = std::make_shared<Bytes>();
    file->reset(new MemoryFile(*this, slot, true));
    return kx::vhd::kOk;
}

Status MemoryFileSystem::Remove(const std::u16string& path) {
    return files_.erase(Normalise(path)) ? kx::vhd::kOk : kx::vhd::kFileNotFound;
}

std::u16string MemoryFileSystem::Absolute(const std::u16string& path) {
    return Normalise(!path.empty() && (path[0] == u'/' || path[0] == u'\\') ? path : u"/work/" + path);
}

}  // namespace kxnative
