#include "iso/file_system_image.h"

#include <shlwapi.h>

#include <cerrno>
#include <io.h>

#include "common/unique_resource.h"
#include "iso/builtin_image.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::iso {

namespace {

using imapi2::IFileSystemImageResult;
using imapi2::IFsiDirectoryItem;
namespace rows = kx::iso_rows;

// A path callers may add: not empty, and not reported missing.
bool Present(const std::wstring& path) { return !path.empty() && _waccess_s(path.c_str(), 0) != ENOENT; }

// An owned BSTR for one call.
class Bstr {
public:
    explicit Bstr(const std::wstring& s) : s_(::SysAllocStringLen(s.data(), static_cast<UINT>(s.size()))) {}
    ~Bstr() { ::SysFreeString(s_); }
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    BSTR get() const noexcept { return s_; }

private:
    BSTR s_;
};

HRESULT Root(IFileSystemImage* image, com_ptr<IFsiDirectoryItem>* root) {
    const HRESULT hr = image->get_Root(root->put());
    if (FAILED(hr)) LogErr(0, static_cast<DWORD>(hr), L"get_Root failed, hr = 0x%08x", static_cast<unsigned>(hr));
    return hr;
}

// CreateResultImage, get_ImageStream, and the copy into `path`. Only a
// missing image stream is a failure of the call; the rest is logged and
// leaves no partial file.
DWORD WriteImageFile(IFileSystemImage* image, const std::wstring& path) {
    com_ptr<IFileSystemImageResult> result;
    HRESULT hr = image->CreateResultImage(result.put());
    if (FAILED(hr)) {
        Log(0, L"CreateResultImage failed, hr = 0x%08x; no image is written", static_cast<unsigned>(hr));
        return 0;
    }
    com_ptr<IStream> stream;
    hr = result->get_ImageStream(stream.put());
    if (FAILED(hr)) {
        Log(0, L"get_ImageStream failed, hr = 0x%08x", static_cast<unsigned>(hr));
        return static_cast<DWORD>(hr);
    }
    STATSTG st{};
    if (FAILED(stream->Stat(&st, STATFLAG_NONAME))) st.cbSize.QuadPart = ~0ull;
    com_ptr<IStream> file;
    hr = ::SHCreateStreamOnFileEx(path.c_str(), STGM_CREATE | STGM_WRITE, FILE_ATTRIBUTE_NORMAL, TRUE, nullptr,
                                  file.put());
    if (FAILED(hr)) {
        Log(0, L"Cannot create the image file [%s], hr = 0x%08x", path.c_str(), static_cast<unsigned>(hr));
        return 0;
    }
    ULARGE_INTEGER written{};
    hr = stream->CopyTo(file.get(), st.cbSize, nullptr, &written);
    if (SUCCEEDED(hr)) hr = file->Commit(STGC_DEFAULT);
    file.reset();
    if (FAILED(hr)) {
        Log(0, L"Writing the image file [%s] failed after %I64u bytes, hr = 0x%08x; the partial file is removed",
            path.c_str(), static_cast<uint64_t>(written.QuadPart), static_cast<unsigned>(hr));
        ::DeleteFileW(path.c_str());
        return 0;
    }
    Log(2, L"Image file [%s] written, %I64u bytes", path.c_str(), static_cast<uint64_t>(written.QuadPart));
    return 0;
}

}  // namespace

HRESULT MakeImage(IFileSystemImage** image) {
    *image = nullptr;
    HRESULT hr = imapi2::g_imageCreator(image);
    if (hr == REGDB_E_CLASSNOTREG) {
        Log(2, L"Image writer: built-in (the system's MsftFileSystemImage is not registered)");
        hr = CreateBuiltinImage(image);
    } else if (SUCCEEDED(hr)) {
        Log(2, L"Image writer: the system's MsftFileSystemImage");
    }
    if (FAILED(hr)) {
        Log(0, L"CoCreateInstance(MsftFileSystemImage) failed, hr = 0x%08x", static_cast<unsigned>(hr));
        *image = nullptr;
        return hr;
    }
    const HRESULT fs = (*image)->put_FileSystemsToCreate(
        static_cast<imapi2::FsiFileSystems>(imapi2::FsiFileSystemISO9660 | imapi2::FsiFileSystemJoliet));
    if (FAILED(fs)) Log(0, L"put_FileSystemsToCreate(ISO 9660 + Joliet) failed, hr = 0x%08x", static_cast<unsigned>(fs));
    return S_OK;
}

DWORD Initialize(IFileSystemImage*& image) {
    if (image) return 0;
    return static_cast<DWORD>(MakeImage(&image));
}

void ReleaseImage(IFileSystemImage*& image) noexcept {
    com_ptr<IFileSystemImage> owned;
    *owned.put() = image;
    image = nullptr;
}

DWORD SetMediaType(IFileSystemImage*& image, IMAPI_MEDIA_PHYSICAL_TYPE type) {
    return RunExport<rows::kSetMediaType>(
        [&](auto&) -> DWORD {
            if (DWORD rc = Initialize(image)) return rc;
            return static_cast<DWORD>(image->ChooseImageDefaultsForMediaType(type));
        },
        static_cast<int>(type));
}

DWORD SetVolumeName(IFileSystemImage*& image, const std::wstring& name) {
    return RunExport<rows::kSetVolumeName>(
        [&](auto&) -> DWORD {
            if (DWORD rc = Initialize(image)) return rc;
            Bstr text(name);
            return static_cast<DWORD>(image->put_VolumeName(text.get()));
        },
        name.c_str());
}

DWORD AddFile(IFileSystemImage*& image, const std::wstring& path) {
    return RunExport<rows::kAddFile>(
        [&](auto& frame) -> DWORD {
            // The name in the image: the text behind the last separator.
            const size_t cut = path.find_last_of(L"\\/");
            const std::wstring name = cut == std::wstring::npos ? path : path.substr(cut + 1);
            if (!Present(path) || name.empty()) return frame.InvalidParameter();
            if (DWORD rc = Initialize(image)) return rc;
            com_ptr<IFsiDirectoryItem> root;
            if (HRESULT hr = Root(image, &root); FAILED(hr)) return static_cast<DWORD>(hr);
            com_ptr<IStream> stream;
            HRESULT hr = ::SHCreateStreamOnFileEx(path.c_str(), STGM_READ | STGM_SHARE_DENY_NONE, FILE_ATTRIBUTE_NORMAL,
                                                  FALSE, nullptr, stream.put());
            if (FAILED(hr)) {
                Log(0, L"Cannot open [%s] for reading, hr = 0x%08x", path.c_str(), static_cast<unsigned>(hr));
                return static_cast<DWORD>(hr);
            }
            Bstr text(name);
            hr = root->AddFile(text.get(), stream.get());
            if (FAILED(hr)) Log(0, L"AddFile(%s) failed, hr = 0x%08x", name.c_str(), static_cast<unsigned>(hr));
            return static_cast<DWORD>(hr);
        },
        path.c_str());
}

DWORD AddFiles(IFileSystemImage*& image, const std::vector<std::wstring>& paths) {
    return RunExport<rows::kAddFiles>(
        [&](auto&) -> DWORD {
            for (const std::wstring& p : paths)
                if (DWORD rc = AddFile(image, p)) return rc;
            return 0;
        },
        static_cast<int>(paths.size()));
}

DWORD AddDirectory(IFileSystemImage*& image, const std::wstring& path, bool includeBaseFolder) {
    return RunExport<rows::kAddDirectory>(
        [&](auto& frame) -> DWORD {
            if (!Present(path)) return frame.InvalidParameter();
            if (DWORD rc = Initialize(image)) return rc;
            com_ptr<IFsiDirectoryItem> root;
            if (HRESULT hr = Root(image, &root); FAILED(hr)) return static_cast<DWORD>(hr);
            Bstr text(path);
            const HRESULT hr = root->AddTree(text.get(), includeBaseFolder ? VARIANT_TRUE : VARIANT_FALSE);
            if (FAILED(hr)) Log(0, L"AddTree(%s) failed, hr = 0x%08x", path.c_str(), static_cast<unsigned>(hr));
            return static_cast<DWORD>(hr);
        },
        path.c_str(), includeBaseFolder ? 1 : 0);
}

DWORD AddDirectories(IFileSystemImage*& image, const std::vector<std::wstring>& paths, bool includeBaseFolder) {
    return RunExport<rows::kAddDirectories>(
        [&](auto&) -> DWORD {
            for (const std::wstring& p : paths)
                if (DWORD rc = AddDirectory(image, p, includeBaseFolder)) return rc;
            return 0;
        },
        static_cast<int>(paths.size()), includeBaseFolder ? 1 : 0);
}

DWORD CreateImage(IFileSystemImage*& image, const std::wstring& path) {
    return RunExport<rows::kCreateImage>(
        [&](auto& frame) -> DWORD {
            if (path.empty()) return frame.InvalidParameter();
            if (DWORD rc = Initialize(image)) return rc;
            return WriteImageFile(image, path);
        },
        path.c_str());
}

DWORD CreateIsoImage(const std::wstring& sourceFolder, const std::wstring& volumeName, const std::wstring& isoPath) {
    return RunExport<kCreateIsoImage>(
        [&](auto& frame) -> DWORD {
            com_ptr<IFileSystemImage> image;
            if (HRESULT hr = MakeImage(image.put()); FAILED(hr)) return static_cast<DWORD>(hr);
            if (!volumeName.empty()) {
                Bstr text(volumeName);
                image->put_VolumeName(text.get());
            }
            if (Present(sourceFolder)) {
                com_ptr<IFsiDirectoryItem> root;
                if (SUCCEEDED(Root(image.get(), &root))) {
                    Bstr text(sourceFolder);
                    const HRESULT hr = root->AddTree(text.get(), VARIANT_TRUE);
                    if (FAILED(hr))
                        Log(0, L"AddTree(%s) failed, hr = 0x%08x; the image is made without it", sourceFolder.c_str(),
                            static_cast<unsigned>(hr));
                }
            } else {
                Log(2, L"Source folder [%s] is missing; the image is made without it", sourceFolder.c_str());
            }
            if (isoPath.empty()) return frame.InvalidParameter();
            return WriteImageFile(image.get(), isoPath);
        },
        sourceFolder.c_str(), volumeName.c_str(), isoPath.c_str());
}

}  // namespace kx::iso
