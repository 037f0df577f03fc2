#include "bitmap/union_reader.h"

#include <emmintrin.h>

#include <new>

#include "bitmap/bitmap_catalogue.h"
#include "bitmap/disk_bmp_file_reader.h"
#include "common/dest_layout.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"

namespace kx::bitmap {

namespace {
// out[i] |= in[i] for `bytes` bytes, sixteen at a time: the union's cost next
// to the file reads it stands on.
void OrInto(BYTE* out, const BYTE* in, size_t bytes) noexcept {
    size_t i = 0;
    for (; i + 64 <= bytes; i += 64)
        for (size_t k = 0; k < 64; k += 16) {
            const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(out + i + k));
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + k));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i + k), _mm_or_si128(a, b));
        }
    for (; i < bytes; ++i) out[i] |= in[i];
}
}  // namespace

CDiskBmpReader_OR::CDiskBmpReader_OR(std::vector<Child> children) noexcept : children_(std::move(children)) {}

DWORD CDiskBmpReader_OR::Release() {
    delete this;
    return 0;
}

DWORD CDiskBmpReader_OR::GetTotalSectors(LONGLONG* totalSectors) {
    if (children_.empty()) return kE_INVALIDARG;
    return children_.front()->GetTotalSectors(totalSectors);
}

DWORD CDiskBmpReader_OR::GetBitmap(LONGLONG startingSector, LONG cbToRead, DiskBitmapBuffer* buffer) {
    if (children_.empty() || !buffer || cbToRead < 0) return kE_INVALIDARG;
    if (DWORD rc = children_[0]->GetBitmap(startingSector, cbToRead, buffer)) {
        Log(0, L"CDiskBmpReader_OR::the first VHD, get bitmap failed, rc = %d", rc);
        return rc;
    }
    const size_t valid = static_cast<size_t>((buffer->sectorCount + 7) / 8);
    for (size_t i = 1; i < children_.size(); ++i) {
        if (static_cast<DWORD>(cbToRead) > capacity_) {
            // Grown only when a request is larger than any before.
            scratch_.reset();
            capacity_ = static_cast<DWORD>(cbToRead);
            scratch_.reset(new (std::nothrow) BYTE[static_cast<size_t>(cbToRead) + 16]);
            if (!scratch_) {
                capacity_ = 0;
                Log(0, L"CDiskBmpReader_OR::realloc mem failed, size = %d", cbToRead);
                return kE_OUTOFMEMORY;
            }
        }
        // Only the record's counters need clearing: the child fills the bytes
        // it reports, and no more of them are used.
        auto* part = reinterpret_cast<DiskBitmapBuffer*>(scratch_.get());
        part->startingSector = 0;
        part->sectorCount = 0;
        if (DWORD rc = children_[i]->GetBitmap(startingSector, cbToRead, part)) {
            Log(0, L"CDiskBmpReader_OR::the %d VHD (from 0), get bitmap failed, rc = %d", static_cast<int>(i), rc);
            return rc;
        }
        // A child that covers fewer sectors contributes only its valid bytes.
        OrInto(buffer->bitmap, part->bitmap, std::min(valid, static_cast<size_t>((part->sectorCount + 7) / 8)));
    }
    return 0;
}

std::wstring FindBmpPathByVhdName(const std::vector<std::wstring>& bitmaps, const std::wstring& diskFile) {
    auto stem = [](const std::wstring& path) {
        const size_t slash = path.find_last_of(L"\\/");
        std::wstring name = slash == std::wstring::npos ? path : path.substr(slash + 1);
        const size_t dot = name.rfind(L'.');
        return dot == std::wstring::npos ? name : name.substr(0, dot);
    };
    const std::wstring want = stem(diskFile);
    for (const auto& b : bitmaps)
        if (EqualsNoCase(stem(b), want)) return b;
    return {};
}

namespace {

DWORD IncsFromFull(const wchar_t* diskPath, DWORD lowestSession, IDiskBmpReader** reader) {
    const std::wstring path = diskPath;
    const size_t slash = path.rfind(L'\\');
    if (slash == std::wstring::npos) return kE_INVALIDARG;
    const std::wstring diskFile = path.substr(slash + 1);
    const std::wstring sessionFolder = path.substr(0, slash);
    std::wstring root;
    DWORD session = 0;
    if (!GetRootAndSessNumFromPath(sessionFolder.c_str(), root, &session) || root.empty()) {
        Log(0, L"GetBmpR_IncsFromFull, disk path is not in a session folder, path = %s", diskPath);
        return ERROR_BAD_PATHNAME;
    }

    std::vector<CDiskBmpReader_OR::Child> chain;
    for (DWORD s = session;; --s) {
        const std::wstring name = SessionFolderName(s);
        std::vector<std::wstring> bitmaps;
        if (DWORD rc = GetBitmapDiskList(root.c_str(), name.c_str(), bitmaps)) {
            Log(0, L"GetBmpR_IncsFromFull, Get bitmap list failed, root = %s, sessName = %s, rc = %d\n", root.c_str(),
                name.c_str(), rc);
            return rc;
        }
        if (bitmaps.empty()) {
            Log(0, L"GetBmpR_IncsFromFull, no disk.bitmap exists under this sess, root = %s, sessName = %s",
                root.c_str(), name.c_str());
            return ERROR_FILE_NOT_FOUND;
        }
        const std::wstring bmp = FindBmpPathByVhdName(bitmaps, diskFile);
        if (bmp.empty()) {
            Log(2, L"GetBmpR_IncsFromFull, cannot find bmp file, disk = %s, sess = %d", diskFile.c_str(), s);
        } else {
            Log(2, L"GetBmpR_IncsFromFull, Bmp file = %s", bmp.c_str());
            BitmapFileHeader header{};
            if (DWORD rc = ReadBitmapHeader(bmp.c_str(), &header)) {
                Log(0, L"GetBmpR_IncsFromFull, CheckIfFullVhdBeforeMerged failed, rc = %d, bmp = %d", rc, s);
                return rc;
            }
            BitmapFileReaderPtr r;
            if (DWORD rc = OpenBitmapReader(bmp.c_str(), r)) {
                Log(0, L"GetBmpR_IncsFromFull, Create BmpReader failed, path = %s, rc = %d", bmp.c_str(), rc);
                return rc;
            }
            chain.emplace_back(r.release());
            if (header.differencing == 0) {
                Log(2, L"GetBmpR_IncsFromFull, is full VHD before merged, sess = %d, disk = %s", s, diskFile.c_str());
                break;
            }
        }
        if (s <= lowestSession || s == 0) break;
    }
    if (chain.empty()) {
        Log(0, L"GetBmpR_IncsFromFull, no bitmap of disk %s between sessions %u and %u", diskFile.c_str(),
            lowestSession, session);
        return ERROR_FILE_NOT_FOUND;
    }
    // When the allocation fails the chain still owns and releases the children.
    auto* u = new (std::nothrow) CDiskBmpReader_OR(std::move(chain));
    if (!u) return kE_OUTOFMEMORY;
    *reader = u;
    return 0;
}

}  // namespace

DWORD GetBitmapReader_IncsFromFull(const wchar_t* diskPath, DWORD lowestSession, IDiskBmpReader** reader) {
    return RunExport<kGetBitmapReader_IncsFromFull>([&](auto& frame) -> DWORD {
        if (IsNullOrEmpty(diskPath) || !reader) return frame.InvalidParameter();
        *reader = nullptr;
        return IncsFromFull(diskPath, lowestSession, reader);
    });
}

}  // namespace kx::bitmap
