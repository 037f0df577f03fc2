// The image service's interfaces as declared here, and the wrapper on the
// path a Windows host takes: the image object from CoCreateInstance, here a
// recording stand-in.
#include <gtest/gtest.h>
#include <windows.h>

#include <shlwapi.h>

#include <array>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "iso/file_system_image.h"
#include "kx_test.h"
#include "slot_probe.h"
#include "platform/imapi2/imapi2_fs.h"

namespace {

using namespace kx::imapi2;

// ---- slots ---------------------------------------------------------------------------------

using kxtest::Probe;
using kxtest::SlotTable;

// Method order of the published interface definitions (after IUnknown's
// three and IDispatch's four slots).
const char* const kImageOrder[] = {
    "get_Root", "get_SessionStartBlock", "put_SessionStartBlock", "get_FreeMediaBlocks", "put_FreeMediaBlocks",
    "SetMaxMediaBlocksFromDevice", "get_UsedBlocks", "get_VolumeName", "put_VolumeName", "get_ImportedVolumeName",
    "get_BootImageOptions", "put_BootImageOptions", "get_FileCount", "get_DirectoryCount", "get_WorkingDirectory",
    "put_WorkingDirectory", "get_ChangePoint", "get_StrictFileSystemCompliance", "put_StrictFileSystemCompliance",
    "get_UseRestrictedCharacterSet", "put_UseRestrictedCharacterSet", "get_FileSystemsToCreate",
    "put_FileSystemsToCreate", "get_FileSystemsSupported", "put_UDFRevision", "get_UDFRevision",
    "get_UDFRevisionsSupported", "ChooseImageDefaults", "ChooseImageDefaultsForMediaType",
    "put_ISO9660InterchangeLevel", "get_ISO9660InterchangeLevel", "get_ISO9660InterchangeLevelsSupported",
    "CreateResultImage", "Exists", "CalculateDiscIdentifier", "IdentifyFileSystemsOnDisc",
    "GetDefaultFileSystemForImport", "ImportFileSystem", "ImportSpecificFileSystem", "RollbackToChangePoint",
    "LockInChangePoint", "CreateDirectoryItem", "CreateFileItem", "get_VolumeNameUDF", "get_VolumeNameJoliet",
    "get_VolumeNameISO9660", "get_StageFiles", "put_StageFiles", "get_MultisessionInterfaces",
    "put_MultisessionInterfaces"};
const char* const kDirectoryOrder[] = {
    "get_Name", "get_FullPath", "get_CreationTime", "put_CreationTime", "get_LastAccessedTime",
    "put_LastAccessedTime", "get_LastModifiedTime", "put_LastModifiedTime", "get_IsHidden", "put_IsHidden",
    "FileSystemName", "FileSystemPath",  // IFsiItem
    "get__NewEnum", "get_Item", "get_Count", "get_EnumFsiItems", "AddDirectory", "AddFile", "AddTree", "Add",
    "Remove", "RemoveTree"};
const char* const kResultOrder[] = {"get_ImageStream", "get_ProgressItems", "get_TotalBlocks", "get_BlockSize",
                                    "get_DiscId"};

template <size_t N>
int Published(const char* const (&order)[N], const std::string& name) {
    for (size_t i = 0; i < N; ++i)
        if (name == order[i]) return static_cast<int>(7 + i);
    return -1;
}

TEST(IsoInterfaces, SlotsAndIdentifiersMatchThePublishedDefinitions) {
    static auto table = SlotTable(std::make_index_sequence<64>());
    Probe probe{table.data(), -1};
    auto* image = reinterpret_cast<IFileSystemImage*>(&probe);
    auto* dir = reinterpret_cast<IFsiDirectoryItem*>(&probe);
    auto* result = reinterpret_cast<IFileSystemImageResult*>(&probe);
    struct Case {
        const char* const* order;
        size_t count;
        const char* name;
        std::function<void()> call;
    };
    const std::vector<Case> cases = {
        {kImageOrder, std::size(kImageOrder), "get_Root", [&] { image->get_Root(nullptr); }},
        {kImageOrder, std::size(kImageOrder), "put_FreeMediaBlocks", [&] { image->put_FreeMediaBlocks(0); }},
        {kImageOrder, std::size(kImageOrder), "put_VolumeName", [&] { image->put_VolumeName(nullptr); }},
        {kImageOrder, std::size(kImageOrder), "get_FileCount", [&] { image->get_FileCount(nullptr); }},
        {kImageOrder, std::size(kImageOrder), "put_FileSystemsToCreate",
         [&] { image->put_FileSystemsToCreate(FsiFileSystemNone); }},
        {kImageOrder, std::size(kImageOrder), "ChooseImageDefaultsForMediaType",
         [&] { image->ChooseImageDefaultsForMediaType(IMAPI_MEDIA_TYPE_CDR); }},
        {kImageOrder, std::size(kImageOrder), "CreateResultImage", [&] { image->CreateResultImage(nullptr); }},
        {kImageOrder, std::size(kImageOrder), "CreateFileItem", [&] { image->CreateFileItem(nullptr, nullptr); }},
        {kImageOrder, std::size(kImageOrder), "put_MultisessionInterfaces",
         [&] { image->put_MultisessionInterfaces(nullptr); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "get_Name", [&] { dir->get_Name(nullptr); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "FileSystemPath",
         [&] { dir->FileSystemPath(FsiFileSystemNone, nullptr); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "get_Count", [&] { dir->get_Count(nullptr); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "AddDirectory", [&] { dir->AddDirectory(nullptr); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "AddFile", [&] { dir->AddFile(nullptr, nullptr); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "AddTree", [&] { dir->AddTree(nullptr, VARIANT_TRUE); }},
        {kDirectoryOrder, std::size(kDirectoryOrder), "RemoveTree", [&] { dir->RemoveTree(nullptr); }},
        {kResultOrder, std::size(kResultOrder), "get_ImageStream", [&] { result->get_ImageStream(nullptr); }},
        {kResultOrder, std::size(kResultOrder), "get_TotalBlocks", [&] { result->get_TotalBlocks(nullptr); }},
        {kResultOrder, std::size(kResultOrder), "get_DiscId", [&] { result->get_DiscId(nullptr); }},
    };
    for (const Case& c : cases) {
        probe.hit = -1;
        c.call();
        int expected = -1;
        for (size_t i = 0; i < c.count; ++i)
            if (std::string(c.name) == c.order[i]) expected = static_cast<int>(7 + i);
        EXPECT_EQ(probe.hit, expected) << c.name;
    }
    EXPECT_EQ(Published(kImageOrder, "put_MultisessionInterfaces"), 56);

    auto text = [](const GUID& g) {
        wchar_t s[40];
        ::StringFromGUID2(g, s, 40);
        return std::wstring(s);
    };
    EXPECT_EQ(text(kClsidMsftFileSystemImage), L"{2C941FC5-975B-59BE-A960-9A2A262853A5}");
    EXPECT_EQ(text(kIidFileSystemImage), L"{2C941FE1-975B-59BE-A960-9A2A262853A5}");
    EXPECT_EQ(text(kIidFsiDirectoryItem), L"{2C941FDC-975B-59BE-A960-9A2A262853A5}");
    EXPECT_EQ(text(kIidFsiItem), L"{2C941FD9-975B-59BE-A960-9A2A262853A5}");
    EXPECT_EQ(text(kIidFileSystemImageResult), L"{2C941FD8-975B-59BE-A960-9A2A262853A5}");
}

// ---- a recording image service ---------------------------------------------------------------

std::vector<std::wstring> g_calls;
HRESULT g_failCreateResult = S_OK;
HRESULT g_failStream = S_OK;
const char kFakeImage[] = "not really an image, but the bytes the service gave";

#define KX_IGNORED(name, ...) \
    HRESULT STDMETHODCALLTYPE name(__VA_ARGS__) override { return Record(L## #name); }

template <class I>
class Recorded : public I {
public:
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG n = --refs_;
        if (!n) {
            g_calls.push_back(name_ + L".Release(last)");
            delete this;
        }
        return n;
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** out) override {
        *out = nullptr;
        return E_NOINTERFACE;
    }
    KX_IGNORED(GetTypeInfoCount, UINT*)
    KX_IGNORED(GetTypeInfo, UINT, LCID, ITypeInfo**)
    KX_IGNORED(GetIDsOfNames, REFIID, LPOLESTR*, UINT, LCID, DISPID*)
    KX_IGNORED(Invoke, DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*)

protected:
    explicit Recorded(std::wstring name) : name_(std::move(name)) {}
    virtual ~Recorded() = default;
    HRESULT Record(const std::wstring& call) {
        g_calls.push_back(name_ + L"." + call);
        return E_NOTIMPL;
    }
    std::wstring name_;
    ULONG refs_ = 1;
};

class FakeResult final : public Recorded<IFileSystemImageResult> {
public:
    FakeResult() : Recorded(L"result") {}
    HRESULT STDMETHODCALLTYPE get_ImageStream(IStream** out) override {
        Record(L"get_ImageStream");
        if (FAILED(g_failStream)) return g_failStream;
        *out = ::SHCreateMemStream(reinterpret_cast<const BYTE*>(kFakeImage), sizeof kFakeImage);
        return S_OK;
    }
    KX_IGNORED(get_ProgressItems, IUnknown**)
    KX_IGNORED(get_TotalBlocks, LONG*)
    KX_IGNORED(get_BlockSize, LONG*)
    KX_IGNORED(get_DiscId, BSTR*)
};

class FakeRoot final : public Recorded<IFsiDirectoryItem> {
public:
    FakeRoot() : Recorded(L"root") {}
    HRESULT STDMETHODCALLTYPE AddFile(BSTR path, IStream* data) override {
        STATSTG st{};
        data->Stat(&st, STATFLAG_NONAME);
        Record(L"AddFile(" + std::wstring(path) + L", " + std::to_wstring(st.cbSize.QuadPart) + L" bytes)");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE AddTree(BSTR source, VARIANT_BOOL base) override {
        Record(L"AddTree(" + std::wstring(source) + L", " + std::to_wstring(base) + L")");
        return S_OK;
    }
    KX_IGNORED(get_Name, BSTR*)
    KX_IGNORED(get_FullPath, BSTR*)
    KX_IGNORED(get_CreationTime, DATE*)
    KX_IGNORED(put_CreationTime, DATE)
    KX_IGNORED(get_LastAccessedTime, DATE*)
    KX_IGNORED(put_LastAccessedTime, DATE)
    KX_IGNORED(get_LastModifiedTime, DATE*)
    KX_IGNORED(put_LastModifiedTime, DATE)
    KX_IGNORED(get_IsHidden, VARIANT_BOOL*)
    KX_IGNORED(put_IsHidden, VARIANT_BOOL)
    KX_IGNORED(FileSystemName, FsiFileSystems, BSTR*)
    KX_IGNORED(FileSystemPath, FsiFileSystems, BSTR*)
    KX_IGNORED(get__NewEnum, IUnknown**)
    KX_IGNORED(get_Item, BSTR, IFsiItem**)
    KX_IGNORED(get_Count, LONG*)
    KX_IGNORED(get_EnumFsiItems, IUnknown**)
    KX_IGNORED(AddDirectory, BSTR)
    KX_IGNORED(Add, IFsiItem*)
    KX_IGNORED(Remove, BSTR)
    KX_IGNORED(RemoveTree, BSTR)
};

class FakeImage final : public Recorded<IFileSystemImage> {
public:
    FakeImage() : Recorded(L"image") {}
    HRESULT STDMETHODCALLTYPE get_Root(IFsiDirectoryItem** out) override {
        Record(L"get_Root");
        *out = new FakeRoot();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_VolumeName(BSTR name) override {
        Record(L"put_VolumeName(" + std::wstring(name) + L")");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_FileSystemsToCreate(FsiFileSystems fs) override {
        Record(L"put_FileSystemsToCreate(" + std::to_wstring(fs) + L")");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ChooseImageDefaultsForMediaType(IMAPI_MEDIA_PHYSICAL_TYPE type) override {
        Record(L"ChooseImageDefaultsForMediaType(" + std::to_wstring(type) + L")");
        return type == IMAPI_MEDIA_TYPE_MAX ? static_cast<HRESULT>(0xC0AAB101) : S_OK;
    }
    HRESULT STDMETHODCALLTYPE CreateResultImage(IFileSystemImageResult** out) override {
        Record(L"CreateResultImage");
        if (FAILED(g_failCreateResult)) return g_failCreateResult;
        *out = new FakeResult();
        return S_OK;
    }
    KX_IGNORED(get_SessionStartBlock, LONG*)
    KX_IGNORED(put_SessionStartBlock, LONG)
    KX_IGNORED(get_FreeMediaBlocks, LONG*)
    KX_IGNORED(put_FreeMediaBlocks, LONG)
    KX_IGNORED(SetMaxMediaBlocksFromDevice, IUnknown*)
    KX_IGNORED(get_UsedBlocks, LONG*)
    KX_IGNORED(get_VolumeName, BSTR*)
    KX_IGNORED(get_ImportedVolumeName, BSTR*)
    KX_IGNORED(get_BootImageOptions, IUnknown**)
    KX_IGNORED(put_BootImageOptions, IUnknown*)
    KX_IGNORED(get_FileCount, LONG*)
    KX_IGNORED(get_DirectoryCount, LONG*)
    KX_IGNORED(get_WorkingDirectory, BSTR*)
    KX_IGNORED(put_WorkingDirectory, BSTR)
    KX_IGNORED(get_ChangePoint, LONG*)
    KX_IGNORED(get_StrictFileSystemCompliance, VARIANT_BOOL*)
    KX_IGNORED(put_StrictFileSystemCompliance, VARIANT_BOOL)
    KX_IGNORED(get_UseRestrictedCharacterSet, VARIANT_BOOL*)
    KX_IGNORED(put_UseRestrictedCharacterSet, VARIANT_BOOL)
    KX_IGNORED(get_FileSystemsToCreate, FsiFileSystems*)
    KX_IGNORED(get_FileSystemsSupported, FsiFileSystems*)
    KX_IGNORED(put_UDFRevision, LONG)
    KX_IGNORED(get_UDFRevision, LONG*)
    KX_IGNORED(get_UDFRevisionsSupported, void**)
    KX_IGNORED(ChooseImageDefaults, IUnknown*)
    KX_IGNORED(put_ISO9660InterchangeLevel, LONG)
    KX_IGNORED(get_ISO9660InterchangeLevel, LONG*)
    KX_IGNORED(get_ISO9660InterchangeLevelsSupported, void**)
    KX_IGNORED(Exists, BSTR, FsiItemType*)
    KX_IGNORED(CalculateDiscIdentifier, BSTR*)
    KX_IGNORED(IdentifyFileSystemsOnDisc, IUnknown*, FsiFileSystems*)
    KX_IGNORED(GetDefaultFileSystemForImport, FsiFileSystems, FsiFileSystems*)
    KX_IGNORED(ImportFileSystem, FsiFileSystems*)
    KX_IGNORED(ImportSpecificFileSystem, FsiFileSystems)
    KX_IGNORED(RollbackToChangePoint, LONG)
    KX_IGNORED(LockInChangePoint)
    KX_IGNORED(CreateDirectoryItem, BSTR, IFsiDirectoryItem**)
    KX_IGNORED(CreateFileItem, BSTR, IUnknown**)
    KX_IGNORED(get_VolumeNameUDF, BSTR*)
    KX_IGNORED(get_VolumeNameJoliet, BSTR*)
    KX_IGNORED(get_VolumeNameISO9660, BSTR*)
    KX_IGNORED(get_StageFiles, VARIANT_BOOL*)
    KX_IGNORED(put_StageFiles, VARIANT_BOOL)
    KX_IGNORED(get_MultisessionInterfaces, void**)
    KX_IGNORED(put_MultisessionInterfaces, void*)
};

HRESULT g_createResult = S_OK;
HRESULT CreateFake(IFileSystemImage** out) {
    g_calls.push_back(L"CoCreateInstance");
    if (FAILED(g_createResult)) return g_createResult;
    *out = new FakeImage();
    return S_OK;
}

class IsoWrapper : public ::testing::Test {
protected:
    void SetUp() override {
        ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        before_ = kx::imapi2::testing::SetImageCreator(&CreateFake);
        g_calls.clear();
        g_createResult = g_failCreateResult = g_failStream = S_OK;
    }
    void TearDown() override {
        kx::imapi2::testing::SetImageCreator(before_);
        ::CoUninitialize();
    }
    ImageCreator before_ = nullptr;
    kxtest::ScratchDir dir_;
};

using Calls = std::vector<std::wstring>;

TEST_F(IsoWrapper, MembersMakeTheExactCallsOfTheService) {
    kxtest::WriteText(dir_ / L"a.txt", "12345");
    kxtest::WriteText(dir_ / L"b.cmd", "echo");
    kxtest::MakeDirs(dir_ / L"data");
    const std::wstring out = dir_ / L"out.iso";
    IFileSystemImage* image = nullptr;
    EXPECT_EQ(kx::iso::SetVolumeName(image, L"TOOLS"), 0u);
    EXPECT_EQ(kx::iso::SetMediaType(image, IMAPI_MEDIA_TYPE_DVDPLUSR), 0u);
    EXPECT_EQ(kx::iso::SetMediaType(image, IMAPI_MEDIA_TYPE_MAX), 0xC0AAB101u);  // the service's answer, unchanged
    EXPECT_EQ(kx::iso::AddFiles(image, {dir_ / L"a.txt", dir_ / L"b.cmd"}), 0u);
    EXPECT_EQ(kx::iso::AddDirectory(image, dir_ / L"data", true), 0u);
    EXPECT_EQ(kx::iso::AddDirectory(image, dir_ / L"data", false), 0u);
    EXPECT_EQ(kx::iso::CreateImage(image, out), 0u);
    kx::iso::ReleaseImage(image);
    EXPECT_EQ(image, nullptr);
    const Calls expected = {
        L"CoCreateInstance",
        L"image.put_FileSystemsToCreate(3)",
        L"image.put_VolumeName(TOOLS)",
        L"image.ChooseImageDefaultsForMediaType(6)",
        L"image.ChooseImageDefaultsForMediaType(19)",
        L"image.get_Root",
        L"root.AddFile(a.txt, 5 bytes)",
        L"root.Release(last)",
        L"image.get_Root",
        L"root.AddFile(b.cmd, 4 bytes)",
        L"root.Release(last)",
        L"image.get_Root",
        L"root.AddTree(" + (dir_ / L"data") + L", -1)",
        L"root.Release(last)",
        L"image.get_Root",
        L"root.AddTree(" + (dir_ / L"data") + L", 0)",
        L"root.Release(last)",
        L"image.CreateResultImage",
        L"result.get_ImageStream",
        L"result.Release(last)",
        L"image.Release(last)",
    };
    EXPECT_EQ(g_calls, expected);
    const std::vector<uint8_t> bytes = kxtest::ReadBytes(out);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), std::string(kFakeImage, sizeof kFakeImage));
}

TEST_F(IsoWrapper, OnlyCreationAndTheImageStreamDecideTheResult) {
    const std::wstring out = dir_ / L"out.iso";
    struct Case {
        const char* what;
        HRESULT create, createResult, stream;
        const std::wstring path;
        DWORD rc;
        bool file;
    } cases[] = {
        {"all well", S_OK, S_OK, S_OK, out, 0, true},
        {"COM not initialised", CO_E_NOTINITIALIZED, S_OK, S_OK, out, 0x800401F0u, false},
        {"CreateResultImage fails", S_OK, E_FAIL, S_OK, out, 0, false},
        {"get_ImageStream fails", S_OK, S_OK, E_OUTOFMEMORY, out, 0x8007000Eu, false},
        {"output folder missing", S_OK, S_OK, S_OK, dir_ / L"no\\such\\out.iso", 0, false},
        {"empty output path", S_OK, S_OK, S_OK, L"", 87, false},
    };
    for (const Case& c : cases) {
        ::DeleteFileW(out.c_str());
        g_createResult = c.create;
        g_failCreateResult = c.createResult;
        g_failStream = c.stream;
        IFileSystemImage* image = nullptr;
        EXPECT_EQ(kx::iso::CreateImage(image, c.path), c.rc) << c.what;
        kx::iso::ReleaseImage(image);
        EXPECT_EQ(kxtest::Exists(c.path.empty() ? out : c.path), c.file) << c.what;
        EXPECT_EQ(kx::iso::CreateIsoImage(L"", L"", c.path), c.rc) << c.what;
        EXPECT_EQ(kxtest::Exists(c.path.empty() ? out : c.path), c.file) << c.what;
    }
    // A failed creation is answered as it is, before anything else is tried.
    g_calls.clear();
    g_createResult = REGDB_E_IIDNOTREG;
    IFileSystemImage* image = nullptr;
    kxtest::WriteText(dir_ / L"x", "x");
    EXPECT_EQ(kx::iso::AddFile(image, dir_ / L"x"), static_cast<DWORD>(REGDB_E_IIDNOTREG));
    EXPECT_EQ(g_calls, Calls{L"CoCreateInstance"});
}

TEST_F(IsoWrapper, CreateIsoImageAddsTheFolderWithItsBaseAndNamesTheVolume) {
    kxtest::MakeDirs(dir_ / L"src");
    const std::wstring out = dir_ / L"one.iso";
    EXPECT_EQ(kx::iso::CreateIsoImage(dir_ / L"src", L"VOL", out), 0u);
    EXPECT_EQ(g_calls, (Calls{L"CoCreateInstance", L"image.put_FileSystemsToCreate(3)", L"image.put_VolumeName(VOL)",
                              L"image.get_Root", L"root.AddTree(" + (dir_ / L"src") + L", -1)", L"root.Release(last)",
                              L"image.CreateResultImage", L"result.get_ImageStream", L"result.Release(last)",
                              L"image.Release(last)"}));
    // No volume name, a missing source: neither is passed on.
    g_calls.clear();
    EXPECT_EQ(kx::iso::CreateIsoImage(dir_ / L"missing", L"", out), 0u);
    EXPECT_EQ(g_calls, (Calls{L"CoCreateInstance", L"image.put_FileSystemsToCreate(3)", L"image.CreateResultImage",
                              L"result.get_ImageStream", L"result.Release(last)", L"image.Release(last)"}));
}

TEST_F(IsoWrapper, AClassThatIsNotRegisteredBringsTheBuiltInWriter) {
    g_createResult = REGDB_E_CLASSNOTREG;
    kxtest::LogCursor log;
    IFileSystemImage* image = nullptr;
    EXPECT_EQ(kx::iso::Initialize(image), 0u);
    ASSERT_NE(image, nullptr);
    kx::imapi2::FsiFileSystems fs{};
    EXPECT_EQ(image->get_FileSystemsToCreate(&fs), S_OK);
    EXPECT_EQ(fs, 3);
    kx::iso::ReleaseImage(image);
    EXPECT_TRUE(log.Contains(L"Image writer: built-in"));
    // Without the stand-in, under a system without the service, the same.
    kx::imapi2::testing::SetImageCreator(nullptr);
    kxtest::LogCursor log2;
    EXPECT_EQ(kx::iso::CreateIsoImage(L"", L"", dir_ / L"empty.iso"), 0u);
    EXPECT_TRUE(kxtest::Exists(dir_ / L"empty.iso"));
    EXPECT_TRUE(log2.Contains(L"Image writer: "));
}

TEST(IsoWrapperNoCom, AThreadWithoutComGetsTheCreationFailure) {
    DWORD rc = 0;
    std::thread t([&] { rc = kx::iso::CreateIsoImage(L"", L"", L"C:\\never.iso"); });
    t.join();
    EXPECT_EQ(rc, static_cast<DWORD>(CO_E_NOTINITIALIZED));
}

}  // namespace
