// ISO images (ISO 9660 with Joliet names) built from files and folders of
// the host, for example to hand scripts or tools to a standby virtual
// machine through its virtual CD drive.
//
// The image is made by the system's file-system image service
// (MsftFileSystemImage, IFileSystemImage). Where that class is not
// registered, the library's own image writer takes its place behind the
// same interfaces; the debug log names the one in use ("Image writer: ...").
// The built-in writer records ISO 9660 level 2 names (A-Z 0-9 _, with
// ";1") and a Joliet tree with the original names up to 64 UTF-16 units,
// files of 4 GiB and more as multi-extent files, and every file's
// last-write time. It reads file data only while the image is written, so
// its memory use depends on the number of names, not on the data. It opens
// each file of an added folder once, when the folder is added, and keeps it
// open for the writing (up to 16,384 files per image; later ones are opened
// again when written): until the FileSystemImage is destroyed, those files
// can be read, written, renamed and deleted by others but not opened
// exclusively. A file whose size or last-write time changes before the
// image is written fails the image; a held one renamed or deleted
// meanwhile is written with the data it had.
//
// The calling thread must have initialised COM; nothing here does. One
// object serves one thread.
//
// Results are 0, 87 (ERROR_INVALID_PARAMETER) or the HRESULT of the image
// service or of COM, unchanged.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// The medium whose limits an image takes (the image service's values).
typedef enum _IMAPI_MEDIA_PHYSICAL_TYPE {
    IMAPI_MEDIA_TYPE_UNKNOWN = 0,
    IMAPI_MEDIA_TYPE_CDROM = 1,
    IMAPI_MEDIA_TYPE_CDR = 2,
    IMAPI_MEDIA_TYPE_CDRW = 3,
    IMAPI_MEDIA_TYPE_DVDROM = 4,
    IMAPI_MEDIA_TYPE_DVDRAM = 5,
    IMAPI_MEDIA_TYPE_DVDPLUSR = 6,
    IMAPI_MEDIA_TYPE_DVDPLUSRW = 7,
    IMAPI_MEDIA_TYPE_DVDPLUSR_DUALLAYER = 8,
    IMAPI_MEDIA_TYPE_DVDDASHR = 9,
    IMAPI_MEDIA_TYPE_DVDDASHRW = 10,
    IMAPI_MEDIA_TYPE_DVDDASHR_DUALLAYER = 11,
    IMAPI_MEDIA_TYPE_DISK = 12,
    IMAPI_MEDIA_TYPE_DVDPLUSRW_DUALLAYER = 13,
    IMAPI_MEDIA_TYPE_HDDVDROM = 14,
    IMAPI_MEDIA_TYPE_HDDVDR = 15,
    IMAPI_MEDIA_TYPE_HDDVDRAM = 16,
    IMAPI_MEDIA_TYPE_BDROM = 17,
    IMAPI_MEDIA_TYPE_BDR = 18,
    IMAPI_MEDIA_TYPE_BDRE = 19,
    IMAPI_MEDIA_TYPE_MAX = 19
} IMAPI_MEDIA_PHYSICAL_TYPE;

struct IFileSystemImage;

namespace IMAPIWrapper {

// One image under construction. The image object is made on first use
// (with ISO 9660 and Joliet as the file systems to create) and released by
// the destructor.
class KXHA_CLASS FileSystemImage {
public:
    FileSystemImage();
    ~FileSystemImage();
    FileSystemImage(const FileSystemImage&) = delete;
    FileSystemImage& operator=(const FileSystemImage&) = delete;

    // The size limits of `type` (ChooseImageDefaultsForMediaType).
    DWORD SetMediaType(_IMAPI_MEDIA_PHYSICAL_TYPE type);
    DWORD SetVolumeName(const std::wstring& name);
    // Adds one file at the image's root under its own name (the text after
    // the last backslash). 87 for an empty or missing path.
    DWORD AddFile(const std::wstring& path);
    // Adds each file in turn; stops at the first non-zero result and
    // returns it (0 for an empty list).
    DWORD AddFile(const std::vector<std::wstring>& paths);
    // Adds a folder tree at the root: with `includeBaseFolder` the folder
    // itself stands at the root, otherwise its contents do. 87 for an empty
    // or missing path.
    DWORD AddDirectory(const std::wstring& path, bool includeBaseFolder);
    DWORD AddDirectory(const std::vector<std::wstring>& paths, bool includeBaseFolder);
    // Writes the image to `path` (replacing a file there). 87 for an empty
    // path; otherwise 0 unless the image object could not be made or gave
    // no image stream: a failure to create or fill the output file leaves
    // the result at 0 (the debug log has it), so check the file. A copy that
    // failed part-way leaves no file behind.
    DWORD CreateImage(const std::wstring& path);

private:
    DWORD Initialize();
    IFileSystemImage* image_;
};

}  // namespace IMAPIWrapper

// Builds `isoPath` from `sourceFolder` in one call: the folder becomes a
// top-level folder of the image (a missing or empty source is skipped), and
// `volumeName`, when not empty, names the volume. 87 for an empty output
// path; otherwise as FileSystemImage::CreateImage.
KXHA_API DWORD CreateIsoImage(const std::wstring& sourceFolder, const std::wstring& volumeName,
                              const std::wstring& isoPath);
