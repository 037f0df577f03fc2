// The layout of an ISO 9660 image with a Joliet supplementary volume, built
// from a tree of names, sizes and dates, and read back at any offset.
//
// Portable (no windows.h): the file data comes from the caller through
// FileDataSource, so that the same code serves the library's image stream
// and the native tests.
//
// The image, in 2048-byte blocks:
//   0-15      system area (zeros)
//   16        primary volume descriptor (ISO 9660 names)
//   17        Joliet supplementary volume descriptor (when Joliet is on)
//   next      volume descriptor set terminator
//   then      path tables: ISO little-endian, ISO big-endian, and the same
//             two for Joliet
//   then      the ISO directories, then the Joliet directories, each in the
//             order of the path table (level by level)
//   then      the file data, one contiguous run of blocks per file, in the
//             order of a depth-first walk of the sorted tree; both trees
//             point to the same data
// Everything before the file data (the "metadata") is rendered once when the
// layout is built; its size grows with the number of names, never with the
// size of the data. File data is fetched only while the image is read.
//
// Names: ISO 9660 interchange level 2 (d-characters A-Z 0-9 _, file name
// and extension together at most 30 characters plus ";1", folder names at
// most 31); Joliet keeps the original UTF-16 names up to 64 code units
// (files get ";1"), replacing only the characters Joliet forbids
// (controls, * / : ; ? \) and those beyond UCS-2 with '_'. A name cut or changed to fit that clashes with a
// sibling gets a decimal counter in place of its last characters.
//
// Files of 4 GiB and more are recorded as multi-extent files: several
// directory records of the same name, each for at most 0xFFFFF800 bytes,
// all but the last flagged as "not final".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

namespace kx::iso {

inline constexpr uint32_t kBlockSize = 2048;
// The largest section of a multi-extent file (a whole number of blocks
// below 4 GiB).
inline constexpr uint64_t kMaxExtentBytes = 0xFFFFF800ull;

// A time in UTC.
struct Timestamp {
    int year = 1980;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

struct TreeNode {
    std::u16string name;
    bool directory = false;
    bool hidden = false;
    uint64_t size = 0;        // files
    Timestamp modified;
    uint64_t source = 0;      // files: the caller's key for the data
    std::vector<TreeNode> children;  // directories, in any order
};

struct VolumeOptions {
    std::u16string volumeName;  // empty: "CDROM"
    bool joliet = true;
    Timestamp created;
};

enum class LayoutError {
    kNone,
    kTooManyDirectories,  // more than 65535 folders (path table parent numbers are 16-bit)
    kTooLarge,            // more blocks than 32-bit block numbers reach
};

// The data of the files in the tree.
class FileDataSource {
public:
    virtual ~FileDataSource() = default;
    // Fills `bytes` bytes of the file `source` (whose size in the tree is
    // `size`) from `offset` on. Returns 0, or an error code that the reader
    // of the image gets back unchanged.
    virtual uint32_t ReadFile(uint64_t source, uint64_t size, uint64_t offset, void* data, size_t bytes) = 0;
};

class ImageLayout {
public:
    // Lays out `root` (a directory; its own name is not used).
    static LayoutError Build(const TreeNode& root, const VolumeOptions& options, ImageLayout* out);

    uint64_t Size() const noexcept { return size_; }
    uint32_t Blocks() const noexcept { return static_cast<uint32_t>(size_ / kBlockSize); }
    uint64_t MetadataSize() const noexcept { return meta_.size(); }
    size_t FileCount() const noexcept { return fileCount_; }
    size_t DirectoryCount() const noexcept { return directories_; }

    // Copies `bytes` bytes of the image from `offset` on (the caller keeps
    // within Size()). Returns 0 or the data source's error.
    uint32_t Read(uint64_t offset, void* data, size_t bytes, FileDataSource& source) const;

    // Where the data of each non-empty file lies in the image, in image order.
    struct FileExtent {
        uint64_t start;  // byte offset in the image
        uint64_t size;
        uint64_t source;
    };
    const std::vector<FileExtent>& Files() const noexcept { return files_; }

private:
    std::vector<uint8_t> meta_;
    std::vector<FileExtent> files_;  // ascending start
    uint64_t size_ = 0;
    size_t fileCount_ = 0;
    size_t directories_ = 0;
};

// The names, exposed for the tests. `taken` holds the keys already used in
// the folder; the chosen key is added to it.
namespace names {
// "NAME.EXT;1" for a file, "NAME" for a folder.
std::string IsoName(const std::u16string& name, bool directory, std::unordered_set<std::string>& taken);
// The Joliet identifier without the ";1" of files.
std::u16string JolietName(const std::u16string& name, bool directory, std::unordered_set<std::u16string>& taken);
// Orders identifiers as ISO 9660 directories are ordered (name, then
// extension, each padded with spaces).
bool IdentifierLess(const std::u16string& a, const std::u16string& b);
}  // namespace names

}  // namespace kx::iso
