#include "iso/builtin_image.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "iso/file_ahead.h"
#include "iso/iso9660_layout.h"
#include "log/debug_log.h"

namespace kx::iso {

namespace {

using namespace kx::imapi2;

constexpr size_t kCopyChunk = 1 << 20;

// ---- the tree being collected ----------------------------------------------------

struct Item {
    std::wstring name;
    bool directory = false;
    bool hidden = false;
    uint64_t size = 0;
    FILETIME modified{};
    std::wstring path;         // a file of a folder tree
    std::shared_ptr<HeldFile> held;  // its handle from the addition, if kept
    com_ptr<IStream> stream;   // a file added as a stream
    std::vector<std::unique_ptr<Item>> children;
};

bool SameName(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                  TRUE) == CSTR_EQUAL;
}

Item* Find(Item& dir, const std::wstring& name) {
    for (auto& c : dir.children)
        if (SameName(c->name, name)) return c.get();
    return nullptr;
}

uint64_t Blocks(const Item& item) {
    if (!item.directory) return (item.size + kBlockSize - 1) / kBlockSize;
    uint64_t n = 1;
    for (const auto& c : item.children) n += Blocks(*c);
    return n;
}

FILETIME Now() {
    FILETIME t;
    ::GetSystemTimeAsFileTime(&t);
    return t;
}

Timestamp ToTimestamp(const FILETIME& t) {
    SYSTEMTIME s{};
    if (!::FileTimeToSystemTime(&t, &s)) return Timestamp{};
    return Timestamp{s.wYear, s.wMonth, s.wDay, s.wHour, s.wMinute, s.wSecond};
}

HRESULT CopyText(const std::wstring& s, BSTR* out) {
    if (!out) return E_POINTER;
    *out = ::SysAllocStringLen(s.data(), static_cast<UINT>(s.size()));
    return *out ? S_OK : E_OUTOFMEMORY;
}

// Reads a folder tree into `out` (a folder item named after the folder):
// names, sizes and times from the folder listings, and every file opened
// to be sure it can be read. While `holdLeft` allows, that handle is kept
// for writing the file's data.
HRESULT ReadTree(const std::wstring& folder, Item& out, size_t& holdLeft) {
    struct Pending {
        std::wstring path;
        Item* item;
    };
    std::vector<Pending> todo{{folder, &out}};
    while (!todo.empty()) {
        Pending p = std::move(todo.back());
        todo.pop_back();
        WIN32_FIND_DATAW fd;
        unique_hfind find(::FindFirstFileExW((p.path + L"\\*").c_str(), FindExInfoBasic, &fd, FindExSearchNameMatch,
                                             nullptr, FIND_FIRST_EX_LARGE_FETCH));
        if (!find) {
            const HRESULT hr = LastErrorHresult();
            LogErr(0, hr, L"Image writer: cannot list folder [%s]", p.path.c_str());
            return hr;
        }
        do {
            const std::wstring name = fd.cFileName;
            if (name == L"." || name == L"..") continue;
            auto item = std::make_unique<Item>();
            item->name = name;
            item->hidden = (fd.dwFileAttributes & FILE_ATTRIBUTE_HIDDEN) != 0;
            item->modified = fd.ftLastWriteTime;
            const std::wstring path = p.path + L"\\" + name;
            if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                if (fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) {
                    Log(2, L"Image writer: folder link [%s] is not followed", path.c_str());
                    continue;
                }
                item->directory = true;
                todo.push_back({path, item.get()});
            } else {
                // Opened here, so that an unreadable file fails the addition.
                // (Opening on several threads was measured to gain nothing under
                // Wine, where each open and close is a round trip to its server.)
                unique_hfile probe = OpenForReading(path);
                if (!probe) {
                    const HRESULT hr = LastErrorHresult();
                    LogErr(0, hr, L"Image writer: cannot read [%s]", path.c_str());
                    return hr;
                }
                item->size = (static_cast<uint64_t>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow;
                item->path = path;
                if (holdLeft) {
                    item->held = std::make_shared<HeldFile>(std::move(probe));
                    --holdLeft;
                }
            }
            p.item->children.push_back(std::move(item));
        } while (::FindNextFileW(find.get(), &fd));
        if (::GetLastError() != ERROR_NO_MORE_FILES) {
            const HRESULT hr = LastErrorHresult();
            LogErr(0, hr, L"Image writer: cannot list folder [%s]", p.path.c_str());
            return hr;
        }
    }
    return S_OK;
}

// ---- the snapshot behind a result ----------------------------------------------------

struct Source {
    std::wstring path;
    std::shared_ptr<HeldFile> held;
    com_ptr<IStream> stream;
    FILETIME modified{};
    uint64_t size = 0;
    size_t order = 0;  // index in Snapshot::files
};

struct Snapshot {
    ImageLayout layout;
    std::vector<Source> sources;
    std::vector<AheadFile> files;  // the non-empty files in image order
    bool streams = false;          // some files come from callers' streams
};

// Orders the files as the image holds them, for reading ahead.
void Order(Snapshot& snap) {
    for (const auto& extent : snap.layout.Files()) {
        Source& s = snap.sources[extent.source];
        s.order = snap.files.size();
        snap.streams = snap.streams || s.stream;
        snap.files.push_back(AheadFile{s.stream ? std::wstring() : s.path, s.size, s.modified, s.held});
    }
}

void Collect(const Item& item, TreeNode& node, std::vector<Source>& sources) {
    node.name.assign(item.name.begin(), item.name.end());
    node.directory = item.directory;
    node.hidden = item.hidden;
    node.size = item.size;
    node.modified = ToTimestamp(item.modified);
    if (!item.directory) {
        node.source = sources.size();
        Source s;
        s.path = item.path;
        s.held = item.held;
        if (item.stream) {
            item.stream->AddRef();
            *s.stream.put() = item.stream.get();
        }
        s.modified = item.modified;
        s.size = item.size;
        sources.push_back(std::move(s));
        return;
    }
    node.children.resize(item.children.size());
    for (size_t i = 0; i < item.children.size(); ++i) Collect(*item.children[i], node.children[i], sources);
}

// Reads the sources of one image stream. Files on disk come through a
// FilesAhead, opened (and small ones read) ahead of the reader.
class SourceReader final : public FileDataSource {
public:
    explicit SourceReader(std::shared_ptr<const Snapshot> snap) : snap_(std::move(snap)) {}

    uint32_t ReadFile(uint64_t key, uint64_t size, uint64_t offset, void* data, size_t bytes) override {
        const Source& s = snap_->sources[key];
        if (s.stream) return FromStream(s, offset, data, bytes);
        if (key != openKey_) {
            openKey_ = ~0ull;
            current_ = FilesAhead::Opened{};  // gives a held file back before the next is taken
            if (!ahead_) ahead_ = std::make_unique<FilesAhead>(snap_->files);
            current_ = ahead_->Take(s.order);
            if (FAILED(current_.hr)) {
                LogErr(0, current_.hr, L"Image writer: cannot read [%s]", s.path.c_str());
                return static_cast<uint32_t>(current_.hr);
            }
            if (current_.changed) {
                Log(0, L"Image writer: [%s] changed while the image was made (%I64u bytes when added, %I64u now)",
                    s.path.c_str(), s.size, current_.sizeNow);
                return static_cast<uint32_t>(kDataStreamInconsistency);
            }
            if (current_.ended) return Ended(s, current_.sizeNow, size);
            openKey_ = key;
            filePos_ = 0;
        }
        auto* out = static_cast<uint8_t*>(data);
        if (!current_.file) {
            std::memcpy(out, current_.data.data() + offset, bytes);
            return 0;
        }
        if (offset != filePos_) {
            LARGE_INTEGER to;
            to.QuadPart = static_cast<LONGLONG>(offset);
            if (!::SetFilePointerEx(current_.file.get(), to, nullptr, FILE_BEGIN))
                return static_cast<uint32_t>(LastErrorHresult());
        }
        filePos_ = offset + bytes;
        while (bytes) {
            const DWORD want = static_cast<DWORD>(std::min<size_t>(bytes, 1u << 30));
            DWORD got = 0;
            if (!::ReadFile(current_.file.get(), out, want, &got, nullptr)) {
                const HRESULT hr = LastErrorHresult();
                LogErr(0, hr, L"Image writer: cannot read [%s]", s.path.c_str());
                return static_cast<uint32_t>(hr);
            }
            if (got == 0) {
                openKey_ = ~0ull;
                return Ended(s, offset, size);
            }
            out += got;
            offset += got;
            bytes -= got;
        }
        return 0;
    }

private:
    static uint32_t Ended(const Source& s, uint64_t at, uint64_t size) {
        Log(0, L"Image writer: [%s] ended at %I64u of %I64u bytes while the image was made", s.path.c_str(), at, size);
        return static_cast<uint32_t>(kDataStreamInconsistency);
    }

    static uint32_t FromStream(const Source& s, uint64_t offset, void* data, size_t bytes) {
        LARGE_INTEGER to;
        to.QuadPart = static_cast<LONGLONG>(offset);
        if (HRESULT hr = s.stream->Seek(to, STREAM_SEEK_SET, nullptr); FAILED(hr)) return static_cast<uint32_t>(hr);
        auto* out = static_cast<uint8_t*>(data);
        while (bytes) {
            ULONG got = 0;
            const HRESULT hr = s.stream->Read(out, static_cast<ULONG>(std::min<size_t>(bytes, 1u << 30)), &got);
            if (FAILED(hr)) return static_cast<uint32_t>(hr);
            if (got == 0) {
                Log(0, L"Image writer: a file stream ended before the size it had when it was added");
                return static_cast<uint32_t>(kDataStreamInconsistency);
            }
            out += got;
            bytes -= got;
        }
        return 0;
    }

    std::shared_ptr<const Snapshot> snap_;
    std::unique_ptr<FilesAhead> ahead_;
    FilesAhead::Opened current_;
    uint64_t openKey_ = ~0ull;
    uint64_t filePos_ = 0;
};

// ---- COM plumbing -------------------------------------------------------------------------

template <class I>
class Dispatch : public I {
public:
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG n = --refs_;
        if (!n) delete this;
        return n;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
        if (!count) return E_POINTER;
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
        return E_NOTIMPL;
    }

protected:
    virtual ~Dispatch() = default;
    // Answers for IUnknown, IDispatch and the interfaces in `iids`.
    HRESULT Answer(REFIID riid, void** out, std::initializer_list<const IID*> iids) {
        if (!out) return E_POINTER;
        *out = nullptr;
        bool ok = IsEqualIID(riid, IID_IUnknown) || IsEqualIID(riid, IID_IDispatch);
        for (const IID* iid : iids) ok = ok || IsEqualIID(riid, *iid);
        if (!ok) return E_NOINTERFACE;
        *out = static_cast<I*>(this);
        AddRef();
        return S_OK;
    }

private:
    std::atomic<ULONG> refs_{1};
};

// ---- the image stream ---------------------------------------------------------------------

class ImageStream final : public IStream {
public:
    ImageStream(std::shared_ptr<const Snapshot> snap, uint64_t pos) : snap_(snap), reader_(snap), pos_(pos) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        if (!out) return E_POINTER;
        *out = nullptr;
        if (!IsEqualIID(riid, IID_IUnknown) && !IsEqualIID(riid, IID_ISequentialStream) &&
            !IsEqualIID(riid, IID_IStream))
            return E_NOINTERFACE;
        *out = static_cast<IStream*>(this);
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG n = --refs_;
        if (!n) delete this;
        return n;
    }

    HRESULT STDMETHODCALLTYPE Read(void* data, ULONG bytes, ULONG* read) override {
        if (read) *read = 0;
        if (!data) return STG_E_INVALIDPOINTER;
        const uint64_t size = snap_->layout.Size();
        const ULONG n = pos_ >= size ? 0 : static_cast<ULONG>(std::min<uint64_t>(bytes, size - pos_));
        if (uint32_t rc = snap_->layout.Read(pos_, data, n, reader_)) return static_cast<HRESULT>(rc);
        pos_ += n;
        if (read) *read = n;
        return n == bytes ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Write(const void*, ULONG, ULONG*) override { return STG_E_ACCESSDENIED; }
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* now) override {
        int64_t base = 0;
        if (origin == STREAM_SEEK_CUR)
            base = static_cast<int64_t>(pos_);
        else if (origin == STREAM_SEEK_END)
            base = static_cast<int64_t>(snap_->layout.Size());
        else if (origin != STREAM_SEEK_SET)
            return STG_E_INVALIDFUNCTION;
        const int64_t to = base + move.QuadPart;
        if (to < 0) return STG_E_INVALIDFUNCTION;
        pos_ = static_cast<uint64_t>(to);
        if (now) now->QuadPart = pos_;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetSize(ULARGE_INTEGER) override { return STG_E_INVALIDFUNCTION; }
    // The image is read on a helper thread a few chunks ahead of the writes,
    // which stay on the calling thread. When some data comes from callers'
    // streams (which may belong to the calling thread's apartment) all of
    // it is read on the calling thread.
    HRESULT STDMETHODCALLTYPE CopyTo(IStream* to, ULARGE_INTEGER bytes, ULARGE_INTEGER* read,
                                     ULARGE_INTEGER* written) override {
        if (read) read->QuadPart = 0;
        if (written) written->QuadPart = 0;
        if (!to) return STG_E_INVALIDPOINTER;
        Pipe pipe(this, bytes.QuadPart, read);
        if (snap_->streams || !pipe.Start()) return CopyAlone(to, bytes.QuadPart, read, written);
        HRESULT wr = S_OK;
        while (const Pipe::Chunk* c = pipe.Next()) {
            ULONG put = 0;
            wr = to->Write(c->data.get(), c->size, &put);
            if (written) written->QuadPart += put;
            if (SUCCEEDED(wr) && put != c->size) wr = STG_E_MEDIUMFULL;
            if (FAILED(wr)) break;
            pipe.Done();
        }
        const HRESULT rd = pipe.Finish();
        return FAILED(wr) ? wr : rd;
    }
    HRESULT STDMETHODCALLTYPE Commit(DWORD) override { return S_OK; }
    HRESULT STDMETHODCALLTYPE Revert() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
        return STG_E_INVALIDFUNCTION;
    }
    HRESULT STDMETHODCALLTYPE UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
        return STG_E_INVALIDFUNCTION;
    }
    HRESULT STDMETHODCALLTYPE Stat(STATSTG* stat, DWORD) override {
        if (!stat) return STG_E_INVALIDPOINTER;
        *stat = STATSTG{};
        stat->type = STGTY_STREAM;
        stat->cbSize.QuadPart = snap_->layout.Size();
        stat->grfMode = STGM_READ;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IStream** out) override {
        if (!out) return STG_E_INVALIDPOINTER;
        *out = new ImageStream(snap_, pos_);
        return S_OK;
    }

private:
    ~ImageStream() = default;

    HRESULT CopyAlone(IStream* to, uint64_t left, ULARGE_INTEGER* read, ULARGE_INTEGER* written) {
        std::unique_ptr<uint8_t[]> buf(new uint8_t[kCopyChunk]);
        while (left) {
            ULONG got = 0;
            const HRESULT hr = Read(buf.get(), static_cast<ULONG>(std::min<uint64_t>(left, kCopyChunk)), &got);
            if (FAILED(hr)) return hr;
            if (!got) break;
            if (read) read->QuadPart += got;
            ULONG put = 0;
            const HRESULT wr = to->Write(buf.get(), got, &put);
            if (written) written->QuadPart += put;
            if (FAILED(wr)) return wr;
            if (put != got) return STG_E_MEDIUMFULL;
            left -= got;
        }
        return S_OK;
    }

    // Chunks of the image read by a helper thread, kDepth at most ahead.
    class Pipe {
    public:
        struct Chunk {
            std::unique_ptr<uint8_t[]> data{new uint8_t[kCopyChunk]};
            ULONG size = 0;
        };
        Pipe(ImageStream* stream, uint64_t bytes, ULARGE_INTEGER* read) : stream_(stream), left_(bytes), read_(read) {}
        ~Pipe() { Finish(); }
        bool Start() {
            try {
                thread_ = std::thread([this] { Produce(); });
                return true;
            } catch (...) {
                return false;
            }
        }
        // The next chunk, or null at the end or after a failed read.
        const Chunk* Next() {
            Monitor::Hold hold(mu_);
            mu_.Wait(filled_cv_, [&] { return filled_ > drained_ || end_; });
            return filled_ > drained_ ? &ring_[drained_ % kDepth] : nullptr;
        }
        // The chunk from Next() is written and may be reused.
        void Done() {
            Monitor::Hold hold(mu_);
            ++drained_;
            Monitor::WakeAll(drained_cv_);
        }
        // Stops the reading; the result of the reads.
        HRESULT Finish() {
            {
                Monitor::Hold hold(mu_);
                stop_ = true;
            }
            Monitor::WakeAll(drained_cv_);
            if (thread_.joinable()) thread_.join();
            return hr_;
        }

    private:
        static constexpr size_t kDepth = 8;
        void Produce() {
            for (size_t n = 0;; ++n) {
                {
                    Monitor::Hold hold(mu_);
                    mu_.Wait(drained_cv_, [&] { return stop_ || filled_ - drained_ < kDepth; });
                    if (stop_) return;
                }
                Chunk& c = ring_[n % kDepth];
                ULONG got = 0;
                const HRESULT hr =
                    left_ ? stream_->Read(c.data.get(), static_cast<ULONG>(std::min<uint64_t>(left_, kCopyChunk)), &got)
                          : S_OK;
                Monitor::Hold hold(mu_);
                if (FAILED(hr) || !got) {
                    if (FAILED(hr)) hr_ = hr;
                    end_ = true;
                    Monitor::WakeAll(filled_cv_);
                    return;
                }
                c.size = got;
                left_ -= got;
                if (read_) read_->QuadPart += got;
                ++filled_;
                Monitor::WakeAll(filled_cv_);
            }
        }

        ImageStream* stream_;
        uint64_t left_;
        ULARGE_INTEGER* read_;
        Chunk ring_[kDepth];
        Monitor mu_;
        CONDITION_VARIABLE filled_cv_ = CONDITION_VARIABLE_INIT;
        CONDITION_VARIABLE drained_cv_ = CONDITION_VARIABLE_INIT;
        size_t filled_ = 0, drained_ = 0;
        bool end_ = false, stop_ = false;
        HRESULT hr_ = S_OK;
        std::thread thread_;
    };
    std::shared_ptr<const Snapshot> snap_;
    SourceReader reader_;
    uint64_t pos_;
    std::atomic<ULONG> refs_{1};
};

// ---- the result -------------------------------------------------------------------------------

class ImageResult final : public Dispatch<IFileSystemImageResult> {
public:
    explicit ImageResult(std::shared_ptr<const Snapshot> snap) : snap_(std::move(snap)) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        return Answer(riid, out, {&kIidFileSystemImageResult});
    }
    HRESULT STDMETHODCALLTYPE get_ImageStream(IStream** value) override {
        if (!value) return E_POINTER;
        *value = new ImageStream(snap_, 0);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ProgressItems(IUnknown**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_TotalBlocks(LONG* value) override {
        if (!value) return E_POINTER;
        *value = static_cast<LONG>(snap_->layout.Blocks());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_BlockSize(LONG* value) override {
        if (!value) return E_POINTER;
        *value = kBlockSize;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_DiscId(BSTR*) override { return E_NOTIMPL; }

private:
    std::shared_ptr<const Snapshot> snap_;
};

// ---- the image and its folders ---------------------------------------------------------------------

class Image;

class FolderItem final : public Dispatch<IFsiDirectoryItem> {
public:
    FolderItem(Image* image, Item* item, std::wstring fullPath);
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        return Answer(riid, out, {&kIidFsiItem, &kIidFsiDirectoryItem});
    }
    HRESULT STDMETHODCALLTYPE get_Name(BSTR* value) override { return CopyText(item_->name, value); }
    HRESULT STDMETHODCALLTYPE get_FullPath(BSTR* value) override { return CopyText(fullPath_, value); }
    HRESULT STDMETHODCALLTYPE get_CreationTime(DATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_CreationTime(DATE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_LastAccessedTime(DATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_LastAccessedTime(DATE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_LastModifiedTime(DATE*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_LastModifiedTime(DATE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_IsHidden(VARIANT_BOOL* value) override {
        if (!value) return E_POINTER;
        *value = item_->hidden ? VARIANT_TRUE : VARIANT_FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_IsHidden(VARIANT_BOOL value) override {
        item_->hidden = value != VARIANT_FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE FileSystemName(FsiFileSystems, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE FileSystemPath(FsiFileSystems, BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Item(BSTR, IFsiItem**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_Count(LONG* count) override {
        if (!count) return E_POINTER;
        *count = static_cast<LONG>(item_->children.size());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_EnumFsiItems(IUnknown**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE AddDirectory(BSTR path) override;
    HRESULT STDMETHODCALLTYPE AddFile(BSTR path, IStream* data) override;
    HRESULT STDMETHODCALLTYPE AddTree(BSTR source, VARIANT_BOOL includeBase) override;
    HRESULT STDMETHODCALLTYPE Add(IFsiItem*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Remove(BSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RemoveTree(BSTR) override { return E_NOTIMPL; }

private:
    ~FolderItem() override;
    // The folder that holds the last component of `path` (relative to this
    // folder, backslashes between components), and that component.
    HRESULT Parent(const wchar_t* path, Item** parent, std::wstring* name);
    HRESULT Attach(Item* parent, std::unique_ptr<Item> child);
    HRESULT AttachContents(Item& tree);

    Image* image_;  // holds a reference
    Item* item_;
    std::wstring fullPath_;
};

class Image final : public Dispatch<IFileSystemImage> {
public:
    explicit Image(size_t heldFiles) : holdLeft_(heldFiles) {
        root_.directory = true;
        root_.modified = Now();
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        return Answer(riid, out, {&kIidFileSystemImage});
    }
    HRESULT STDMETHODCALLTYPE get_Root(IFsiDirectoryItem** value) override {
        if (!value) return E_POINTER;
        *value = new FolderItem(this, &root_, L"\\");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_SessionStartBlock(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_SessionStartBlock(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_FreeMediaBlocks(LONG* value) override {
        if (!value) return E_POINTER;
        *value = static_cast<LONG>(limitBlocks_);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_FreeMediaBlocks(LONG value) override {
        if (value < 0) return E_INVALIDARG;
        limitBlocks_ = static_cast<uint64_t>(value);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetMaxMediaBlocksFromDevice(IUnknown*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_UsedBlocks(LONG* value) override {
        if (!value) return E_POINTER;
        *value = static_cast<LONG>(std::min<uint64_t>(Blocks(root_), 0x7FFFFFFF));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_VolumeName(BSTR* value) override { return CopyText(volume_, value); }
    HRESULT STDMETHODCALLTYPE put_VolumeName(BSTR value) override {
        volume_ = value ? std::wstring(value, ::SysStringLen(value)) : std::wstring();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ImportedVolumeName(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_BootImageOptions(IUnknown**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_BootImageOptions(IUnknown*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_FileCount(LONG* value) override { return Count(false, value); }
    HRESULT STDMETHODCALLTYPE get_DirectoryCount(LONG* value) override { return Count(true, value); }
    HRESULT STDMETHODCALLTYPE get_WorkingDirectory(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_WorkingDirectory(BSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ChangePoint(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_StrictFileSystemCompliance(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_StrictFileSystemCompliance(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_UseRestrictedCharacterSet(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_UseRestrictedCharacterSet(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_FileSystemsToCreate(FsiFileSystems* value) override {
        if (!value) return E_POINTER;
        *value = fileSystems_;
        return S_OK;
    }
    // ISO 9660 is always written; Joliet on request. UDF is not offered.
    HRESULT STDMETHODCALLTYPE put_FileSystemsToCreate(FsiFileSystems value) override {
        if (value == FsiFileSystemNone || (value & ~(FsiFileSystemISO9660 | FsiFileSystemJoliet))) return E_INVALIDARG;
        fileSystems_ = static_cast<FsiFileSystems>(value | FsiFileSystemISO9660);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_FileSystemsSupported(FsiFileSystems* value) override {
        if (!value) return E_POINTER;
        *value = static_cast<FsiFileSystems>(FsiFileSystemISO9660 | FsiFileSystemJoliet);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_UDFRevision(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_UDFRevision(LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_UDFRevisionsSupported(void**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ChooseImageDefaults(IUnknown*) override { return E_NOTIMPL; }
    // The capacity of the medium, in blocks; a disk or an unknown medium has no limit.
    HRESULT STDMETHODCALLTYPE ChooseImageDefaultsForMediaType(IMAPI_MEDIA_PHYSICAL_TYPE type) override {
        switch (type) {
            case IMAPI_MEDIA_TYPE_CDROM: case IMAPI_MEDIA_TYPE_CDR: case IMAPI_MEDIA_TYPE_CDRW:
                limitBlocks_ = 359847; break;
            case IMAPI_MEDIA_TYPE_DVDROM: case IMAPI_MEDIA_TYPE_DVDRAM: case IMAPI_MEDIA_TYPE_DVDPLUSR:
            case IMAPI_MEDIA_TYPE_DVDPLUSRW: case IMAPI_MEDIA_TYPE_DVDDASHR: case IMAPI_MEDIA_TYPE_DVDDASHRW:
                limitBlocks_ = 2295104; break;
            case IMAPI_MEDIA_TYPE_DVDPLUSR_DUALLAYER: case IMAPI_MEDIA_TYPE_DVDDASHR_DUALLAYER:
            case IMAPI_MEDIA_TYPE_DVDPLUSRW_DUALLAYER:
                limitBlocks_ = 4173824; break;
            case IMAPI_MEDIA_TYPE_HDDVDROM: case IMAPI_MEDIA_TYPE_HDDVDR: case IMAPI_MEDIA_TYPE_HDDVDRAM:
                limitBlocks_ = 7395840; break;
            case IMAPI_MEDIA_TYPE_BDROM: case IMAPI_MEDIA_TYPE_BDR: case IMAPI_MEDIA_TYPE_BDRE:
                limitBlocks_ = 12219392; break;
            case IMAPI_MEDIA_TYPE_UNKNOWN: case IMAPI_MEDIA_TYPE_DISK:
                limitBlocks_ = 0; break;
            default:
                return E_INVALIDARG;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE put_ISO9660InterchangeLevel(LONG level) override { return level == 2 ? S_OK : E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_ISO9660InterchangeLevel(LONG* value) override {
        if (!value) return E_POINTER;
        *value = 2;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_ISO9660InterchangeLevelsSupported(void**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateResultImage(IFileSystemImageResult** result) override {
        if (!result) return E_POINTER;
        *result = nullptr;
        auto snap = std::make_shared<Snapshot>();
        TreeNode root;
        Collect(root_, root, snap->sources);
        VolumeOptions options;
        options.volumeName.assign(volume_.begin(), volume_.end());
        options.joliet = (fileSystems_ & FsiFileSystemJoliet) != 0;
        options.created = ToTimestamp(Now());
        switch (ImageLayout::Build(root, options, &snap->layout)) {
            case LayoutError::kNone: break;
            case LayoutError::kTooManyDirectories:
                Log(0, L"Image writer: more than 65535 folders");
                return kTooManyDirs;
            case LayoutError::kTooLarge:
                Log(0, L"Image writer: the image would pass 8 TiB");
                return kImageTooBig;
        }
        Order(*snap);
        if (limitBlocks_ && snap->layout.Blocks() > limitBlocks_) {
            Log(0, L"Image writer: %u blocks do not fit the medium's %I64u", snap->layout.Blocks(), limitBlocks_);
            return kImageTooBig;
        }
        Log(2, L"Image writer: image of %I64u bytes, %u files, %u folders, %I64u bytes of names and folders",
            snap->layout.Size(), static_cast<unsigned>(snap->layout.FileCount()),
            static_cast<unsigned>(snap->layout.DirectoryCount()), snap->layout.MetadataSize());
        *result = new ImageResult(std::move(snap));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Exists(BSTR, FsiItemType*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CalculateDiscIdentifier(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE IdentifyFileSystemsOnDisc(IUnknown*, FsiFileSystems*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetDefaultFileSystemForImport(FsiFileSystems, FsiFileSystems*) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE ImportFileSystem(FsiFileSystems*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ImportSpecificFileSystem(FsiFileSystems) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RollbackToChangePoint(LONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE LockInChangePoint() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateDirectoryItem(BSTR, IFsiDirectoryItem**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CreateFileItem(BSTR, IUnknown**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_VolumeNameUDF(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_VolumeNameJoliet(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_VolumeNameISO9660(BSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_StageFiles(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_StageFiles(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE get_MultisessionInterfaces(void**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_MultisessionInterfaces(void*) override { return E_NOTIMPL; }

    // How many more files of added trees may be kept open.
    size_t& HoldBudget() { return holdLeft_; }

    // 0xC0AAB120 when `blocks` more would pass the size limit.
    HRESULT Fits(uint64_t blocks) {
        if (limitBlocks_ && Blocks(root_) + blocks > limitBlocks_) return kImageSizeLimit;
        return S_OK;
    }

private:
    HRESULT Count(bool folders, LONG* value) {
        if (!value) return E_POINTER;
        LONG n = 0;
        std::vector<const Item*> todo{&root_};
        while (!todo.empty()) {
            const Item* i = todo.back();
            todo.pop_back();
            for (const auto& c : i->children) {
                n += c->directory == folders;
                if (c->directory) todo.push_back(c.get());
            }
        }
        *value = n;
        return S_OK;
    }

    Item root_;
    std::wstring volume_;
    FsiFileSystems fileSystems_ = static_cast<FsiFileSystems>(FsiFileSystemISO9660 | FsiFileSystemJoliet);
    uint64_t limitBlocks_ = 0;
    size_t holdLeft_;
};

FolderItem::FolderItem(Image* image, Item* item, std::wstring fullPath)
    : image_(image), item_(item), fullPath_(std::move(fullPath)) {
    image_->AddRef();
}

FolderItem::~FolderItem() { image_->Release(); }

HRESULT FolderItem::Parent(const wchar_t* path, Item** parent, std::wstring* name) {
    if (!path || !*path) return E_INVALIDARG;
    std::wstring rest = path;
    std::replace(rest.begin(), rest.end(), L'/', L'\\');
    while (!rest.empty() && rest.front() == L'\\') rest.erase(0, 1);
    while (!rest.empty() && rest.back() == L'\\') rest.pop_back();
    if (rest.empty()) return kInvalidPath;
    Item* at = item_;
    size_t from = 0;
    for (size_t sep; (sep = rest.find(L'\\', from)) != std::wstring::npos; from = sep + 1) {
        Item* next = Find(*at, rest.substr(from, sep - from));
        if (!next || !next->directory) return kDirNotFound;
        at = next;
    }
    *parent = at;
    *name = rest.substr(from);
    return S_OK;
}

HRESULT FolderItem::Attach(Item* parent, std::unique_ptr<Item> child) {
    if (Find(*parent, child->name)) {
        Log(0, L"Image writer: [%s] is in the image already", child->name.c_str());
        return kDuplicateName;
    }
    if (HRESULT hr = image_->Fits(Blocks(*child)); FAILED(hr)) {
        Log(0, L"Image writer: [%s] does not fit the medium", child->name.c_str());
        return hr;
    }
    parent->children.push_back(std::move(child));
    return S_OK;
}

HRESULT FolderItem::AddDirectory(BSTR path) {
    Item* parent;
    std::wstring name;
    if (HRESULT hr = Parent(path, &parent, &name); FAILED(hr)) return hr;
    auto item = std::make_unique<Item>();
    item->name = name;
    item->directory = true;
    item->modified = Now();
    return Attach(parent, std::move(item));
}

HRESULT FolderItem::AddFile(BSTR path, IStream* data) {
    if (!data) return E_POINTER;
    Item* parent;
    std::wstring name;
    if (HRESULT hr = Parent(path, &parent, &name); FAILED(hr)) return hr;
    STATSTG st{};
    if (HRESULT hr = data->Stat(&st, STATFLAG_NONAME); FAILED(hr)) return hr;
    auto item = std::make_unique<Item>();
    item->name = name;
    item->size = st.cbSize.QuadPart;
    item->modified = (st.mtime.dwLowDateTime || st.mtime.dwHighDateTime) ? st.mtime : Now();
    data->AddRef();
    *item->stream.put() = data;
    return Attach(parent, std::move(item));
}

HRESULT FolderItem::AddTree(BSTR source, VARIANT_BOOL includeBase) {
    if (!source || !*source) return E_INVALIDARG;
    std::wstring folder = source;
    while (folder.size() > 3 && (folder.back() == L'\\' || folder.back() == L'/')) folder.pop_back();
    const DWORD attrs = ::GetFileAttributesW(folder.c_str());
    if (attrs == INVALID_FILE_ATTRIBUTES) return LastErrorHresult();
    if (!(attrs & FILE_ATTRIBUTE_DIRECTORY)) return kDirNotFound;
    auto tree = std::make_unique<Item>();
    tree->directory = true;
    const size_t cut = folder.find_last_of(L"\\/");
    tree->name = cut == std::wstring::npos ? folder : folder.substr(cut + 1);
    if (tree->name.empty() || tree->name.back() == L':') tree->name = L"ROOT";
    WIN32_FILE_ATTRIBUTE_DATA fa{};
    tree->modified = ::GetFileAttributesExW(folder.c_str(), GetFileExInfoStandard, &fa) ? fa.ftLastWriteTime : Now();
    // A tree that is not added closes the files it held, and gives them back
    // to the budget.
    size_t& budget = image_->HoldBudget();
    const size_t before = budget;
    HRESULT hr = ReadTree(folder, *tree, budget);
    if (SUCCEEDED(hr)) hr = includeBase != VARIANT_FALSE ? Attach(item_, std::move(tree)) : AttachContents(*tree);
    if (FAILED(hr)) budget = before;
    return hr;
}

HRESULT FolderItem::AttachContents(Item& tree) {
    // All of them or none.
    for (const auto& c : tree.children)
        if (Find(*item_, c->name)) {
            Log(0, L"Image writer: [%s] is in the image already", c->name.c_str());
            return kDuplicateName;
        }
    if (HRESULT hr = image_->Fits(Blocks(tree) - 1); FAILED(hr)) return hr;
    for (auto& c : tree.children) item_->children.push_back(std::move(c));
    return S_OK;
}

}  // namespace

HRESULT CreateBuiltinImage(IFileSystemImage** image, size_t heldFiles) {
    if (!image) return E_POINTER;
    *image = new (std::nothrow) Image(heldFiles);
    return *image ? S_OK : E_OUTOFMEMORY;
}

}  // namespace kx::iso
