// The work behind the exported IMAPIWrapper::FileSystemImage and
// CreateIsoImage (include/KestrixHA/iso.h has the contract). Each call
// takes the wrapper's image pointer, makes the image object when it is
// null, and writes the export's start and end lines.
//
// The image object: the system's MsftFileSystemImage when it is registered,
// otherwise the built-in writer (iso/builtin_image.h); any other failure to
// create it (COM not initialised on the thread, ...) is the result. The
// choice is logged at level 2 as "Image writer: ...".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "platform/imapi2/imapi2_fs.h"

namespace kx::iso {

// Makes the image object with ISO 9660 + Joliet as its file systems.
HRESULT MakeImage(IFileSystemImage** image);

DWORD Initialize(IFileSystemImage*& image);
void ReleaseImage(IFileSystemImage*& image) noexcept;

DWORD SetMediaType(IFileSystemImage*& image, IMAPI_MEDIA_PHYSICAL_TYPE type);
DWORD SetVolumeName(IFileSystemImage*& image, const std::wstring& name);
DWORD AddFile(IFileSystemImage*& image, const std::wstring& path);
DWORD AddFiles(IFileSystemImage*& image, const std::vector<std::wstring>& paths);
DWORD AddDirectory(IFileSystemImage*& image, const std::wstring& path, bool includeBaseFolder);
DWORD AddDirectories(IFileSystemImage*& image, const std::vector<std::wstring>& paths, bool includeBaseFolder);
DWORD CreateImage(IFileSystemImage*& image, const std::wstring& path);

DWORD CreateIsoImage(const std::wstring& sourceFolder, const std::wstring& volumeName, const std::wstring& isoPath);

}  // namespace kx::iso
