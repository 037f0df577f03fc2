// The IMAPI2 file-system image interfaces the library uses, declared here
// with every method in its slot: the interface identifiers, the class of
// the system's image object, the enumerations and error codes. Only the
// slots the library calls need exact parameter types; the others keep
// their place with parameters of the same size (interface pointers as
// IUnknown*, safe arrays as void*).
#pragma once

#include <windows.h>
#include <oaidl.h>
#include <objidl.h>

#include "KestrixHA/iso.h"

namespace kx::imapi2 {

// {2C941FC5-975B-59BE-A960-9A2A262853A5}
inline constexpr CLSID kClsidMsftFileSystemImage = {
    0x2C941FC5, 0x975B, 0x59BE, {0xA9, 0x60, 0x9A, 0x2A, 0x26, 0x28, 0x53, 0xA5}};
// {2C941FE1-975B-59BE-A960-9A2A262853A5}
inline constexpr IID kIidFileSystemImage = {
    0x2C941FE1, 0x975B, 0x59BE, {0xA9, 0x60, 0x9A, 0x2A, 0x26, 0x28, 0x53, 0xA5}};
// {2C941FD9-975B-59BE-A960-9A2A262853A5}
inline constexpr IID kIidFsiItem = {0x2C941FD9, 0x975B, 0x59BE, {0xA9, 0x60, 0x9A, 0x2A, 0x26, 0x28, 0x53, 0xA5}};
// {2C941FDC-975B-59BE-A960-9A2A262853A5}
inline constexpr IID kIidFsiDirectoryItem = {
    0x2C941FDC, 0x975B, 0x59BE, {0xA9, 0x60, 0x9A, 0x2A, 0x26, 0x28, 0x53, 0xA5}};
// {2C941FD8-975B-59BE-A960-9A2A262853A5}
inline constexpr IID kIidFileSystemImageResult = {
    0x2C941FD8, 0x975B, 0x59BE, {0xA9, 0x60, 0x9A, 0x2A, 0x26, 0x28, 0x53, 0xA5}};

enum FsiFileSystems : int {
    FsiFileSystemNone = 0,
    FsiFileSystemISO9660 = 1,
    FsiFileSystemJoliet = 2,
    FsiFileSystemUDF = 4,
    FsiFileSystemUnknown = 0x40000000,
};

enum FsiItemType : int { FsiItemNotFound = 0, FsiItemDirectory = 1, FsiItemFile = 2 };

// Errors of the image service (facility 0xAA).
inline constexpr HRESULT kInvalidPath = static_cast<HRESULT>(0xC0AAB110);
inline constexpr HRESULT kDuplicateName = static_cast<HRESULT>(0xC0AAB112);
inline constexpr HRESULT kItemNotFound = static_cast<HRESULT>(0xC0AAB118);
inline constexpr HRESULT kDirNotFound = static_cast<HRESULT>(0xC0AAB11A);
inline constexpr HRESULT kImageSizeLimit = static_cast<HRESULT>(0xC0AAB120);
inline constexpr HRESULT kImageTooBig = static_cast<HRESULT>(0xC0AAB121);
inline constexpr HRESULT kDataStreamInconsistency = static_cast<HRESULT>(0xC0AAB128);
inline constexpr HRESULT kDataStreamReadFailure = static_cast<HRESULT>(0xC0AAB129);
inline constexpr HRESULT kDirectoryReadFailure = static_cast<HRESULT>(0xC0AAB12B);
inline constexpr HRESULT kTooManyDirs = static_cast<HRESULT>(0xC0AAB130);

struct IFsiDirectoryItem;
struct IFileSystemImageResult;

struct IFsiItem : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE get_Name(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_FullPath(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_CreationTime(DATE* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_CreationTime(DATE value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_LastAccessedTime(DATE* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_LastAccessedTime(DATE value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_LastModifiedTime(DATE* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_LastModifiedTime(DATE value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_IsHidden(VARIANT_BOOL* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_IsHidden(VARIANT_BOOL value) = 0;
    virtual HRESULT STDMETHODCALLTYPE FileSystemName(FsiFileSystems fileSystem, BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE FileSystemPath(FsiFileSystems fileSystem, BSTR* value) = 0;
};

struct IFsiDirectoryItem : public IFsiItem {
    virtual HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown** value) = 0;      // IEnumVARIANT
    virtual HRESULT STDMETHODCALLTYPE get_Item(BSTR path, IFsiItem** item) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_Count(LONG* count) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_EnumFsiItems(IUnknown** value) = 0;  // IEnumFsiItems
    virtual HRESULT STDMETHODCALLTYPE AddDirectory(BSTR path) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddFile(BSTR path, IStream* fileData) = 0;
    virtual HRESULT STDMETHODCALLTYPE AddTree(BSTR sourceDirectory, VARIANT_BOOL includeBaseDirectory) = 0;
    virtual HRESULT STDMETHODCALLTYPE Add(IFsiItem* item) = 0;
    virtual HRESULT STDMETHODCALLTYPE Remove(BSTR path) = 0;
    virtual HRESULT STDMETHODCALLTYPE RemoveTree(BSTR path) = 0;
};

struct IFileSystemImageResult : public IDispatch {
    virtual HRESULT STDMETHODCALLTYPE get_ImageStream(IStream** value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ProgressItems(IUnknown** value) = 0;  // IProgressItems
    virtual HRESULT STDMETHODCALLTYPE get_TotalBlocks(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_BlockSize(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_DiscId(BSTR* value) = 0;
};

}  // namespace kx::imapi2

// The image object's interface (declared outside the namespace: the
// exported wrapper class holds a pointer to it).
struct IFileSystemImage : public IDispatch {
    using FsiFileSystems = kx::imapi2::FsiFileSystems;
    using IFsiDirectoryItem = kx::imapi2::IFsiDirectoryItem;
    using IFileSystemImageResult = kx::imapi2::IFileSystemImageResult;
    virtual HRESULT STDMETHODCALLTYPE get_Root(IFsiDirectoryItem** value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_SessionStartBlock(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_SessionStartBlock(LONG value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_FreeMediaBlocks(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_FreeMediaBlocks(LONG value) = 0;
    virtual HRESULT STDMETHODCALLTYPE SetMaxMediaBlocksFromDevice(IUnknown* recorder) = 0;  // IDiscRecorder2
    virtual HRESULT STDMETHODCALLTYPE get_UsedBlocks(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_VolumeName(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_VolumeName(BSTR value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ImportedVolumeName(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_BootImageOptions(IUnknown** value) = 0;  // IBootOptions
    virtual HRESULT STDMETHODCALLTYPE put_BootImageOptions(IUnknown* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_FileCount(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_DirectoryCount(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_WorkingDirectory(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_WorkingDirectory(BSTR value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ChangePoint(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_StrictFileSystemCompliance(VARIANT_BOOL* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_StrictFileSystemCompliance(VARIANT_BOOL value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_UseRestrictedCharacterSet(VARIANT_BOOL* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_UseRestrictedCharacterSet(VARIANT_BOOL value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_FileSystemsToCreate(FsiFileSystems* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_FileSystemsToCreate(FsiFileSystems value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_FileSystemsSupported(FsiFileSystems* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_UDFRevision(LONG value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_UDFRevision(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_UDFRevisionsSupported(void** value) = 0;  // SAFEARRAY*
    virtual HRESULT STDMETHODCALLTYPE ChooseImageDefaults(IUnknown* recorder) = 0;    // IDiscRecorder2
    virtual HRESULT STDMETHODCALLTYPE ChooseImageDefaultsForMediaType(IMAPI_MEDIA_PHYSICAL_TYPE value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_ISO9660InterchangeLevel(LONG value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ISO9660InterchangeLevel(LONG* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_ISO9660InterchangeLevelsSupported(void** value) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateResultImage(IFileSystemImageResult** result) = 0;
    virtual HRESULT STDMETHODCALLTYPE Exists(BSTR fullPath, kx::imapi2::FsiItemType* itemType) = 0;
    virtual HRESULT STDMETHODCALLTYPE CalculateDiscIdentifier(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE IdentifyFileSystemsOnDisc(IUnknown* recorder, FsiFileSystems* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE GetDefaultFileSystemForImport(FsiFileSystems fileSystems,
                                                                    FsiFileSystems* importDefault) = 0;
    virtual HRESULT STDMETHODCALLTYPE ImportFileSystem(FsiFileSystems* imported) = 0;
    virtual HRESULT STDMETHODCALLTYPE ImportSpecificFileSystem(FsiFileSystems fileSystemToUse) = 0;
    virtual HRESULT STDMETHODCALLTYPE RollbackToChangePoint(LONG changePoint) = 0;
    virtual HRESULT STDMETHODCALLTYPE LockInChangePoint() = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateDirectoryItem(BSTR name, IFsiDirectoryItem** item) = 0;
    virtual HRESULT STDMETHODCALLTYPE CreateFileItem(BSTR name, IUnknown** item) = 0;  // IFsiFileItem
    virtual HRESULT STDMETHODCALLTYPE get_VolumeNameUDF(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_VolumeNameJoliet(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_VolumeNameISO9660(BSTR* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_StageFiles(VARIANT_BOOL* value) = 0;
    virtual HRESULT STDMETHODCALLTYPE put_StageFiles(VARIANT_BOOL value) = 0;
    virtual HRESULT STDMETHODCALLTYPE get_MultisessionInterfaces(void** value) = 0;  // SAFEARRAY*
    virtual HRESULT STDMETHODCALLTYPE put_MultisessionInterfaces(void* value) = 0;
};

namespace kx::imapi2 {

// Creates the system's image object (CoCreateInstance of
// MsftFileSystemImage for IFileSystemImage, CLSCTX_ALL). The result of
// CoCreateInstance comes back unchanged. Tests put a stand-in in its place.
using ImageCreator = HRESULT (*)(IFileSystemImage** image);

inline HRESULT CreateSystemImage(IFileSystemImage** image) {
    return ::CoCreateInstance(kClsidMsftFileSystemImage, nullptr, CLSCTX_ALL, kIidFileSystemImage,
                              reinterpret_cast<void**>(image));
}

inline ImageCreator g_imageCreator = &CreateSystemImage;

namespace testing {
// Replaces the creator (null restores the system's); returns the one before.
inline ImageCreator SetImageCreator(ImageCreator creator) noexcept {
    ImageCreator before = g_imageCreator;
    g_imageCreator = creator ? creator : &CreateSystemImage;
    return before;
}
}  // namespace testing

}  // namespace kx::imapi2
