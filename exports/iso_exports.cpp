// Exported ISO image builder: the wrapper class and the one-call export.
#include "KestrixHA/iso.h"
#include "iso/file_system_image.h"

namespace i = kx::iso;

namespace IMAPIWrapper {

FileSystemImage::FileSystemImage() : image_(nullptr) {}
FileSystemImage::~FileSystemImage() { i::ReleaseImage(image_); }
DWORD FileSystemImage::Initialize() { return i::Initialize(image_); }
DWORD FileSystemImage::SetMediaType(_IMAPI_MEDIA_PHYSICAL_TYPE type) { return i::SetMediaType(image_, type); }
DWORD FileSystemImage::SetVolumeName(const std::wstring& name) { return i::SetVolumeName(image_, name); }
DWORD FileSystemImage::AddFile(const std::wstring& path) { return i::AddFile(image_, path); }
DWORD FileSystemImage::AddFile(const std::vector<std::wstring>& paths) { return i::AddFiles(image_, paths); }
DWORD FileSystemImage::AddDirectory(const std::wstring& path, bool includeBaseFolder) {
    return i::AddDirectory(image_, path, includeBaseFolder);
}
DWORD FileSystemImage::AddDirectory(const std::vector<std::wstring>& paths, bool includeBaseFolder) {
    return i::AddDirectories(image_, paths, includeBaseFolder);
}
DWORD FileSystemImage::CreateImage(const std::wstring& path) { return i::CreateImage(image_, path); }

}  // namespace IMAPIWrapper

KXHA_API DWORD CreateIsoImage(const std::wstring& sourceFolder, const std::wstring& volumeName,
                              const std::wstring& isoPath) {
    return i::CreateIsoImage(sourceFolder, volumeName, isoPath);
}
