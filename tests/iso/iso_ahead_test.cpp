// Files read ahead of the image stream: every file comes back with its own
// bytes whatever order it is asked for in, a file that changed or went away
// is reported as itself and not as a neighbour the workers were opening at
// the time, and a copy that fails on either side stops and says why. The
// image of the tree is left in KX_ISO_OUT for check_images.py (osirrox
// extracts it and compares it byte by byte with the tree).
#include <gtest/gtest.h>
#include <windows.h>

#include <random>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_resource.h"
#include "iso/builtin_image.h"
#include "iso/file_ahead.h"
#include "kx_test.h"
#include "sink_stream.h"

namespace {

using namespace kx::imapi2;
using kx::iso::AheadFile;
using kx::iso::FilesAhead;

constexpr size_t kFiles = 200;

// Every 40th file is larger than what the workers read whole; some are empty.
std::string Content(size_t i) {
    const size_t size = i % 40 == 7 ? (300 << 10) + i : (i * 997) % 6000;
    std::string s(size, '\0');
    for (size_t k = 0; k < size; ++k) s[k] = static_cast<char>((k * 131 + i * 7 + (k >> 11)) & 0xFF);
    return s;
}

AheadFile Record(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA a{};
    EXPECT_TRUE(::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &a));
    return AheadFile{path, (static_cast<uint64_t>(a.nFileSizeHigh) << 32) | a.nFileSizeLow, a.ftLastWriteTime, nullptr};
}

std::wstring Name(size_t i) { return L"f" + std::to_wstring(1000 + i) + L".bin"; }

void WriteTree(const std::wstring& folder, std::vector<AheadFile>* files) {
    kxtest::MakeDirs(folder);
    for (size_t i = 0; i < kFiles; ++i) {
        kxtest::WriteText(folder + L"\\" + Name(i), Content(i));
        if (files) files->push_back(Record(folder + L"\\" + Name(i)));
    }
}

std::string Whole(FilesAhead::Opened& o) {
    if (!o.file) return std::string(o.data.begin(), o.data.end());
    std::string s;
    std::vector<char> buf(1 << 16);
    DWORD got = 0;
    while (::ReadFile(o.file.get(), buf.data(), static_cast<DWORD>(buf.size()), &got, nullptr) && got)
        s.append(buf.data(), got);
    return s;
}

TEST(IsoAhead, FilesComeBackWithTheirOwnBytesInAnyOrder) {
    kxtest::ScratchDir dir;
    std::vector<AheadFile> files;
    WriteTree(dir / L"t", &files);
    files.push_back(AheadFile{});  // a caller's stream: nothing to open
    std::vector<size_t> backwards, everyThird;
    for (size_t i = kFiles; i-- > 0;) backwards.push_back(i);
    for (size_t i = 0; i < kFiles; i += 3) everyThird.push_back(i);
    const struct {
        const char* what;
        std::vector<size_t> order;
    } cases[] = {
        {"backwards", backwards},
        {"every third", everyThird},
        {"jumps in and out of the window", {0, 150, 10, 199, 5, 70, 71, 72, 7, 7, 200, 47, 0}},
        {"the same file again", {3, 3, 4, 3}},
    };
    for (const auto& c : cases) {
        FilesAhead ahead(files);
        for (size_t i : c.order) {
            FilesAhead::Opened o = ahead.Take(i);
            ASSERT_EQ(o.hr, S_OK) << c.what << ", file " << i;
            EXPECT_FALSE(o.changed || o.ended) << c.what << ", file " << i;
            if (i == kFiles) {
                EXPECT_TRUE(!o.file && o.data.empty()) << c.what;
                continue;
            }
            EXPECT_EQ(static_cast<bool>(o.file), files[i].size > FilesAhead::kWholeFileBytes) << c.what << ", " << i;
            EXPECT_EQ(Whole(o), Content(i)) << c.what << ", file " << i;
        }
    }
}

TEST(IsoAhead, AChangedFileIsReportedAsItselfAndNoOther) {
    enum Kind { kGrown, kTouched, kDeleted, kLocked };
    const struct {
        Kind kind;
        size_t at;
    } cases[] = {{kGrown, 0},   {kGrown, 150},  {kTouched, 63}, {kTouched, 199},
                 {kDeleted, 1}, {kDeleted, 64}, {kLocked, 2},   {kLocked, 120}};
    for (const auto& c : cases) {
        kxtest::ScratchDir dir;
        std::vector<AheadFile> files;
        WriteTree(dir / L"t", &files);
        const std::wstring& path = files[c.at].path;
        kx::unique_hfile lock;
        switch (c.kind) {
            case kGrown: kxtest::WriteText(path, Content(c.at) + "more"); break;
            case kTouched: {
                kx::unique_hfile f(::CreateFileW(path.c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ, nullptr,
                                                 OPEN_EXISTING, 0, nullptr));
                FILETIME later = files[c.at].modified;
                later.dwHighDateTime += 1;
                ASSERT_TRUE(::SetFileTime(f.get(), nullptr, nullptr, &later));
                break;
            }
            case kDeleted: ASSERT_TRUE(::DeleteFileW(path.c_str())); break;
            case kLocked:
                lock.reset(::CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
                ASSERT_TRUE(lock);
                break;
        }
        FilesAhead ahead(files);
        for (size_t i = 0; i < kFiles; ++i) {
            FilesAhead::Opened o = ahead.Take(i);
            if (i != c.at) {
                EXPECT_TRUE(o.hr == S_OK && !o.changed && Whole(o) == Content(i)) << "case at " << c.at << ", " << i;
                continue;
            }
            switch (c.kind) {
                case kGrown: EXPECT_TRUE(o.changed && o.sizeNow == files[i].size + 4) << i; break;
                case kTouched: EXPECT_TRUE(o.changed && o.sizeNow == files[i].size) << i; break;
                case kDeleted: EXPECT_EQ(o.hr, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)) << i; break;
                case kLocked: EXPECT_EQ(o.hr, HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION)) << i; break;
            }
        }
    }
}

std::wstring Out() {
    std::wstring p = L"Z:" + std::wstring(KX_ISO_OUT, KX_ISO_OUT + sizeof(KX_ISO_OUT) - 1);
    for (auto& c : p)
        if (c == L'/') c = L'\\';
    return p;
}

// Keeps what is written; fails with `fail` once `limit` bytes are in.
class MemorySink final : public kxtest::SinkStream {
public:
    MemorySink(uint64_t limit = ~0ull, HRESULT fail = S_OK) : limit_(limit), fail_(fail) {}
    HRESULT STDMETHODCALLTYPE Write(const void* data, ULONG bytes, ULONG* written) override {
        if (bytes_.size() + bytes > limit_) return fail_;
        bytes_.append(static_cast<const char*>(data), bytes);
        if (written) *written = bytes;
        return S_OK;
    }
    const std::string& bytes() const { return bytes_; }

private:
    uint64_t limit_;
    HRESULT fail_;
    std::string bytes_;
};

kx::com_ptr<IFileSystemImageResult> ImageOf(const std::wstring& folder,
                                            size_t heldFiles = kx::iso::kDefaultHeldFiles) {
    kx::com_ptr<IFileSystemImage> image;
    EXPECT_EQ(kx::iso::CreateBuiltinImage(image.put(), heldFiles), S_OK);
    kx::com_ptr<IFsiDirectoryItem> root;
    EXPECT_EQ(image->get_Root(root.put()), S_OK);
    BSTR path = ::SysAllocString(folder.c_str());
    EXPECT_EQ(root->AddTree(path, VARIANT_TRUE), S_OK);
    ::SysFreeString(path);
    kx::com_ptr<IFileSystemImageResult> result;
    EXPECT_EQ(image->CreateResultImage(result.put()), S_OK);
    return result;
}

HRESULT CopyAll(IFileSystemImageResult* result, IStream* to, ULARGE_INTEGER* written) {
    kx::com_ptr<IStream> stream;
    EXPECT_EQ(result->get_ImageStream(stream.put()), S_OK);
    STATSTG st{};
    EXPECT_EQ(stream->Stat(&st, STATFLAG_NONAME), S_OK);
    return stream->CopyTo(to, st.cbSize, nullptr, written);
}

TEST(IsoAhead, ReadsAtAnyOffsetGiveTheBytesOfTheCopiedImage) {
    const std::wstring tree = Out() + L"\\ahead";
    WriteTree(tree, nullptr);
    kx::com_ptr<IFileSystemImageResult> result = ImageOf(tree);
    MemorySink whole;
    ULARGE_INTEGER written{};
    ASSERT_EQ(CopyAll(result.get(), &whole, &written), S_OK);
    ASSERT_EQ(written.QuadPart, whole.bytes().size());
    kxtest::WriteText(Out() + L"\\ahead.iso", whole.bytes());

    kx::com_ptr<IStream> stream;
    ASSERT_EQ(result->get_ImageStream(stream.put()), S_OK);
    std::mt19937 rng(20);
    std::string got;
    for (int n = 0; n < 300; ++n) {
        const size_t at = rng() % whole.bytes().size();
        const size_t len = 1 + rng() % (n % 2 ? 700000 : 9000);
        LARGE_INTEGER to;
        to.QuadPart = static_cast<LONGLONG>(at);
        ASSERT_EQ(stream->Seek(to, STREAM_SEEK_SET, nullptr), S_OK);
        got.assign(len, '\0');
        ULONG read = 0;
        ASSERT_TRUE(SUCCEEDED(stream->Read(got.data(), static_cast<ULONG>(len), &read)));
        ASSERT_EQ(read, std::min(len, whole.bytes().size() - at));
        ASSERT_EQ(got.substr(0, read), whole.bytes().substr(at, read)) << "at " << at << ", " << len << " bytes";
    }

    // Two copies at once: one reader borrows each held file, the other
    // opens it by name; both give the same image.
    MemorySink a, b;
    std::thread other([&] {
        EXPECT_EQ(CopyAll(result.get(), &b, nullptr), S_OK);
    });
    EXPECT_EQ(CopyAll(result.get(), &a, nullptr), S_OK);
    other.join();
    EXPECT_TRUE(a.bytes() == whole.bytes() && b.bytes() == whole.bytes());
}

// The last name of a folder's listing: the file a tree reading fails at
// after every other file has been opened.
std::wstring LastListed(const std::wstring& folder) {
    WIN32_FIND_DATAW fd;
    kx::unique_hfind find(::FindFirstFileW((folder + L"\\*").c_str(), &fd));
    std::wstring last;
    if (find) {
        do last = fd.cFileName;
        while (::FindNextFileW(find.get(), &fd));
    }
    return last;
}

TEST(IsoAhead, HeldFilesAreWrittenAfterTheirNamesAreGoneAndAFailedTreeGivesItsBack) {
    kxtest::ScratchDir dir;
    for (const size_t held : {kFiles, kFiles - 1}) {
        const std::wstring failing = dir / (L"failing" + std::to_wstring(held));
        const std::wstring kept = dir / (L"kept" + std::to_wstring(held));
        WriteTree(failing, nullptr);
        WriteTree(kept, nullptr);
        kx::com_ptr<IFileSystemImage> image;
        ASSERT_EQ(kx::iso::CreateBuiltinImage(image.put(), held), S_OK);
        kx::com_ptr<IFsiDirectoryItem> root;
        ASSERT_EQ(image->get_Root(root.put()), S_OK);
        {
            // Every file but the last listed is opened (and held) before the
            // tree fails; the failed tree must give them back.
            kx::unique_hfile lock(::CreateFileW((failing + L"\\" + LastListed(failing)).c_str(), GENERIC_READ, 0,
                                                nullptr, OPEN_EXISTING, 0, nullptr));
            ASSERT_TRUE(lock);
            BSTR path = ::SysAllocString(failing.c_str());
            EXPECT_EQ(root->AddTree(path, VARIANT_TRUE), HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION));
            ::SysFreeString(path);
        }
        BSTR path = ::SysAllocString(kept.c_str());
        ASSERT_EQ(root->AddTree(path, VARIANT_TRUE), S_OK);
        ::SysFreeString(path);
        kx::com_ptr<IFileSystemImageResult> result;
        ASSERT_EQ(image->CreateResultImage(result.put()), S_OK);
        image.reset();
        root.reset();
        // Renamed rather than deleted: a deleted file that is still open may
        // keep its name until it is closed.
        for (size_t i = 0; i < kFiles; ++i) {
            const std::wstring from = kept + L"\\" + Name(i);
            ASSERT_TRUE(::MoveFileW(from.c_str(), (from + L".moved").c_str())) << i;
        }
        MemorySink sink;
        const HRESULT hr = CopyAll(result.get(), &sink, nullptr);
        if (held == kFiles) {
            // All held: every file is in the image with the bytes it had.
            ASSERT_EQ(hr, S_OK);
            for (size_t i = 0; i < kFiles; ++i) {
                if (Content(i).empty()) continue;
                EXPECT_NE(sink.bytes().find(Content(i)), std::string::npos) << i;
            }
            // The first copy gave every held file back.
            MemorySink again;
            EXPECT_EQ(CopyAll(result.get(), &again, nullptr), S_OK);
            EXPECT_TRUE(again.bytes() == sink.bytes());
        } else {
            // One file past the budget is looked for by name, and is gone.
            EXPECT_EQ(hr, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
        }
    }
}

TEST(IsoAhead, ACopyStopsAtTheFirstFailureOnEitherSide) {
    kxtest::ScratchDir dir;
    WriteTree(dir / L"t", nullptr);
    const HRESULT kFull = STG_E_MEDIUMFULL;
    const struct {
        const char* what;
        uint64_t sinkLimit;
        const wchar_t* remove;
        HRESULT want;
    } cases[] = {
        {"the sink refuses the first chunk", 0, nullptr, kFull},
        {"the sink is full after one chunk", (1 << 20) + 4096, nullptr, kFull},
        {"a file not held goes away", ~0ull, L"f1150.bin", HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)},
        {"the last file, not held, goes away", ~0ull, L"f1199.bin", HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)},
    };
    for (const auto& c : cases) {
        const std::wstring folder = dir / (L"t" + std::to_wstring(&c - cases));
        WriteTree(folder, nullptr);
        kx::com_ptr<IFileSystemImageResult> result = ImageOf(folder, 0);
        if (c.remove) {
            ASSERT_TRUE(::DeleteFileW((folder + L"\\" + c.remove).c_str()));
        }
        MemorySink sink(c.sinkLimit, kFull);
        ULARGE_INTEGER written{};
        EXPECT_EQ(CopyAll(result.get(), &sink, &written), c.want) << c.what;
        EXPECT_EQ(written.QuadPart, sink.bytes().size()) << c.what;
        if (c.sinkLimit != ~0ull) {
            EXPECT_LE(sink.bytes().size(), c.sinkLimit) << c.what;
        }
    }
}

}  // namespace
