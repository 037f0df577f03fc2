// The built-in writer's image stream over a 5 GiB sparse file: the image is
// streamed into a sink that leaves zero runs as holes, so neither the source
// nor the image takes real disk space; check_images.py then reads the two
// sections of the file back from big.iso.
#include <gtest/gtest.h>
#include <windows.h>

#include <psapi.h>

#include <cstring>
#include <string>

#include "common/unique_resource.h"
#include "iso/builtin_image.h"
#include "iso/file_system_image.h"
#include "kx_test.h"
#include "sink_stream.h"

namespace {

using namespace kx::imapi2;

constexpr uint64_t kHuge = 5ull << 30;
constexpr uint64_t kSeam = 0xFFFFF800ull;  // where the second section starts

std::wstring Out() {
    std::wstring p = L"Z:" + std::wstring(KX_ISO_OUT, KX_ISO_OUT + sizeof(KX_ISO_OUT) - 1);
    for (auto& c : p)
        if (c == L'/') c = L'\\';
    kxtest::MakeDirs(p);
    return p;
}

void WriteAt(HANDLE f, uint64_t at, const std::string& bytes) {
    LARGE_INTEGER to;
    to.QuadPart = static_cast<LONGLONG>(at);
    ASSERT_TRUE(::SetFilePointerEx(f, to, nullptr, FILE_BEGIN));
    DWORD put = 0;
    ASSERT_TRUE(::WriteFile(f, bytes.data(), static_cast<DWORD>(bytes.size()), &put, nullptr));
}

// Writes what it is given to a file, leaving all-zero writes as holes.
class SparseSink final : public kxtest::SinkStream {
public:
    explicit SparseSink(HANDLE file) : file_(file) {}
    HRESULT STDMETHODCALLTYPE Write(const void* data, ULONG bytes, ULONG* written) override {
        const auto* p = static_cast<const char*>(data);
        const bool zero = bytes && p[0] == 0 && std::memcmp(p, p + 1, bytes - 1) == 0;
        if (!zero) {
            LARGE_INTEGER to;
            to.QuadPart = static_cast<LONGLONG>(pos_);
            DWORD put = 0;
            if (!::SetFilePointerEx(file_, to, nullptr, FILE_BEGIN) || !::WriteFile(file_, data, bytes, &put, nullptr))
                return HRESULT_FROM_WIN32(::GetLastError());
        } else {
            holes_ += bytes;
        }
        pos_ += bytes;
        if (written) *written = bytes;
        return S_OK;
    }
    HRESULT Finish() {
        LARGE_INTEGER to;
        to.QuadPart = static_cast<LONGLONG>(pos_);
        if (!::SetFilePointerEx(file_, to, nullptr, FILE_BEGIN) || !::SetEndOfFile(file_))
            return HRESULT_FROM_WIN32(::GetLastError());
        return S_OK;
    }
    uint64_t holes() const { return holes_; }

private:
    HANDLE file_;
    uint64_t pos_ = 0;
    uint64_t holes_ = 0;
};

TEST(IsoBuiltin, AFiveGiBSparseFileStreamsAsTwoSections) {
    const std::wstring src = Out() + L"\\big";
    kxtest::MakeDirs(src);
    {
        kx::unique_hfile f(::CreateFileW((src + L"\\huge.bin").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(f);
        WriteAt(f.get(), 0, "first bytes of the file");
        WriteAt(f.get(), kSeam - 8, "across the seam!");
        WriteAt(f.get(), kHuge - 16, "the last sixteen");
    }
    kxtest::WriteText(src + L"\\after.txt", "a small file behind the big one");

    ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    {
        kx::com_ptr<IFileSystemImage> image;
        ASSERT_EQ(kx::iso::CreateBuiltinImage(image.put()), S_OK);
        kx::com_ptr<IFsiDirectoryItem> root;
        ASSERT_EQ(image->get_Root(root.put()), S_OK);
        BSTR path = ::SysAllocString(src.c_str());
        EXPECT_EQ(root->AddTree(path, VARIANT_TRUE), S_OK);
        ::SysFreeString(path);
        LONG files = 0;
        EXPECT_EQ(image->get_FileCount(&files), S_OK);
        EXPECT_EQ(files, 2);
        // A medium too small for it refuses the file and keeps the rest.
        kx::com_ptr<IFileSystemImage> small;
        ASSERT_EQ(kx::iso::CreateBuiltinImage(small.put()), S_OK);
        EXPECT_EQ(small->ChooseImageDefaultsForMediaType(IMAPI_MEDIA_TYPE_DVDPLUSR), S_OK);
        kx::com_ptr<IFsiDirectoryItem> smallRoot;
        ASSERT_EQ(small->get_Root(smallRoot.put()), S_OK);
        BSTR same = ::SysAllocString(src.c_str());
        EXPECT_EQ(smallRoot->AddTree(same, VARIANT_TRUE), static_cast<HRESULT>(0xC0AAB120));
        ::SysFreeString(same);
        EXPECT_EQ(small->get_FileCount(&files), S_OK);
        EXPECT_EQ(files, 0);

        kx::com_ptr<IFileSystemImageResult> result;
        ASSERT_EQ(image->CreateResultImage(result.put()), S_OK);
        kx::com_ptr<IStream> stream;
        ASSERT_EQ(result->get_ImageStream(stream.put()), S_OK);
        STATSTG st{};
        ASSERT_EQ(stream->Stat(&st, STATFLAG_NONAME), S_OK);
        LONG blocks = 0;
        EXPECT_EQ(result->get_TotalBlocks(&blocks), S_OK);
        EXPECT_EQ(static_cast<uint64_t>(blocks) * 2048, st.cbSize.QuadPart);
        EXPECT_GT(st.cbSize.QuadPart, kHuge);

        kx::unique_hfile out(::CreateFileW((Out() + L"\\big.iso").c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
        ASSERT_TRUE(out);
        SparseSink sink(out.get());
        ULARGE_INTEGER read{}, written{};
        ASSERT_EQ(stream->CopyTo(&sink, st.cbSize, &read, &written), S_OK);
        EXPECT_EQ(read.QuadPart, st.cbSize.QuadPart);
        EXPECT_EQ(written.QuadPart, st.cbSize.QuadPart);
        EXPECT_EQ(sink.Finish(), S_OK);
        EXPECT_GT(sink.holes(), kHuge - (16u << 20));

        // A clone reads the same bytes from where the original stood.
        LARGE_INTEGER at;
        at.QuadPart = 16 * 2048;
        ASSERT_EQ(stream->Seek(at, STREAM_SEEK_SET, nullptr), S_OK);
        kx::com_ptr<IStream> clone;
        ASSERT_EQ(stream->Clone(clone.put()), S_OK);
        char a[8] = {}, b[8] = {};
        ULONG got = 0;
        EXPECT_EQ(stream->Read(a, 8, &got), S_OK);
        EXPECT_EQ(clone->Read(b, 8, &got), S_OK);
        EXPECT_EQ(std::string(a + 1, 5), "CD001");
        EXPECT_EQ(std::string(b + 1, 5), "CD001");
        // Reading at the end gives nothing and says so.
        at.QuadPart = 0;
        ASSERT_EQ(stream->Seek(at, STREAM_SEEK_END, nullptr), S_OK);
        EXPECT_EQ(stream->Read(a, 8, &got), S_FALSE);
        EXPECT_EQ(got, 0u);
    }
    ::CoUninitialize();

    // Memory use follows the names, not the 5 GiB of data.
    PROCESS_MEMORY_COUNTERS pmc{};
    pmc.cb = sizeof pmc;
    ASSERT_TRUE(::GetProcessMemoryInfo(::GetCurrentProcess(), &pmc, sizeof pmc));
    EXPECT_LT(pmc.PeakWorkingSetSize, 256u << 20);
}

}  // namespace
