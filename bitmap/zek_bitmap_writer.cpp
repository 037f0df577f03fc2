#include "bitmap/zek_bitmap_writer.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "bitmap/bitmap_file_format.h"
#include "bitmap/session_password.h"
#include "common/dest_layout.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "platform/vdisk.h"

namespace kx::bitmap {

namespace {

constexpr const wchar_t* kName = kCreateBitmap4ZekFile.name;

DWORD WriteAll(HANDLE file, const void* data, DWORD size) {
    DWORD written = 0;
    if (!::WriteFile(file, data, size, &written, nullptr)) return LastErrorOr();
    return written == size ? 0 : ERROR_WRITE_FAULT;
}

// Steps from opening the disk on, with the bitmap file already created.
DWORD WriteBitmap(HANDLE out, const std::wstring& source, const vdisk::PasswordBlock* password,
                  DiskBitmapBuffer* transfer) {
    std::unique_ptr<vdisk::IVDisk> disk;
    DWORD rc = vdisk::CreateVHDFileEx(source.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, password, &disk);
    if (rc) {
        Log(0, L"%s(): Open Zek VHD [%s] failed, rc = 0x%08X", kName, source.c_str(), rc);
        return rc;
    }
    if (!disk) {
        Log(0, L"%s(): Open Zek VHD [%s] failed, pVHD is NULL", kName, source.c_str());
        return ERROR_OPEN_FAILED;
    }

    ULONGLONG size = 0;
    vdisk::Geometry geo;
    DWORD type = 0;
    if ((rc = disk->GetSize(&size)) || (rc = disk->GetGeometry(&geo)) || (rc = disk->GetType(&type))) {
        Log(0, L"%s(): query disk [%s] failed, rc = %d", kName, source.c_str(), rc);
        return rc;
    }
    if (geo.bytesPerSector == 0) {
        Log(0, L"%s(): disk [%s] reports 0 bytes per sector", kName, source.c_str());
        return ERROR_INVALID_DATA;
    }
    const LONGLONG totalSectors = static_cast<LONGLONG>(size / geo.bytesPerSector);
    Log(4, L"%s(): Disk size           = [%lld]", kName, static_cast<LONGLONG>(size));
    Log(4, L"%s(): Total Sectors       = [%lld]", kName, totalSectors);
    Log(4, L"%s(): Cylinders           = [%lld]", kName, geo.cylinders);
    Log(4, L"%s(): MediaType           = [%d]", kName, geo.mediaType);
    Log(4, L"%s(): Tracks Per Cylinder = [%ld]", kName, static_cast<long>(geo.tracksPerCylinder));
    Log(4, L"%s(): Sectors Per Track   = [%ld]", kName, static_cast<long>(geo.sectorsPerTrack));
    Log(4, L"%s(): Bytes Per Sector    = [%ld]", kName, static_cast<long>(geo.bytesPerSector));

    BitmapFileHeader header;
    std::memset(&header, 0, sizeof header);
    header.version = kBitmapFileVersion;
    header.differencing = (type == vdisk::kTypeDifferencing || type == vdisk::kTypeDifferencingOther) ? 1 : 0;
    header.totalSectors = totalSectors;
    Log(4, L"%s(): vhd_type            = [%ld]", kName, static_cast<long>(type));
    if ((rc = WriteAll(out, &header, sizeof header))) {
        Log(0, L"%s(): write disk bitmap file header failed, rc = %d", kName, rc);
        return rc;
    }

    constexpr LONGLONG kSectorsPerRequest = kTransferBytes * 8LL;
    LONGLONG start = 0, returned = 0;
    for (;;) {
        std::memset(transfer, 0, 2 * sizeof(LONGLONG));
        if ((rc = disk->GetBitmap(start, kTransferBytes, transfer))) {
            Log(0, L"%s() failed for GetBitMap(%lld, %d, %p), rc = [%d]", kName, start, kTransferBytes, transfer, rc);
            return rc;
        }
        const LONGLONG count = transfer->sectorCount;
        const DWORD bytes = static_cast<DWORD>((count + 7) / 8);
        if (bytes && (rc = WriteAll(out, transfer->bitmap, bytes))) {
            Log(0, L"%s() failed at WriteFile(%p, %p, %d, NULL), rc = [%d]", kName, out, transfer->bitmap, bytes, rc);
            return rc;
        }
        returned += count;
        if (count < kSectorsPerRequest) {
            Log(1, L"%s(): reaches the end of bitmap, total sectors = [%lld]", kName, returned);
            return 0;
        }
        start = transfer->startingSector + count;
    }
}

}  // namespace

DWORD CreateBitmap4ZekFile(const wchar_t* sourceFolder, const wchar_t* targetFolder, const wchar_t* fileName,
                           DWORD flag) {
    return RunExport<kCreateBitmap4ZekFile>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(sourceFolder) || IsNullOrEmpty(targetFolder) || !IsPlainName(fileName))
                return frame.InvalidParameter();
            const std::wstring source = Format(L"%s\\%s", sourceFolder, fileName);
            std::wstring target = Format(L"%s\\%s", targetFolder, fileName);
            if (target.size() < 10 || source.size() >= MAX_PATH || target.size() >= MAX_PATH)
                return frame.InvalidParameter();
            target.resize(target.size() - 3);
            target += L"Bitmap";
            Log(4, L"%s: Source file [%s]", kName, source.c_str());
            Log(4, L"%s: Target file [%s]", kName, target.c_str());

            std::wstring root;
            DWORD session = 0;
            if (!GetRootAndSessNumFromPath(sourceFolder, root, &session)) {
                Log(0, L"%s() failed to get root and sess_num from path [%s]", kName, sourceFolder);
                return kFailNoCode;
            }
            bool encrypted = false;
            std::wstring password;
            if (DWORD rc = GetZekSessionPwd(root, session, flag, &encrypted, &password)) {
                Log(0, L"%s() CalcFileSize2Send, Get session pwd failed, rc = %d", kName, rc);
                return rc;
            }
            vdisk::PasswordBlock block;
            if (encrypted) {
                const size_t chars = std::min<size_t>(password.size(), 23);
                std::memcpy(block.bytes, password.data(), chars * sizeof(wchar_t));
            }

            // The transfer record: two 64-bit counts and kTransferBytes of bitmap.
            constexpr size_t kBufferSize = offsetof(DiskBitmapBuffer, bitmap) + kTransferBytes;
            std::unique_ptr<BYTE[]> buffer(new (std::nothrow) BYTE[kBufferSize]);
            if (!buffer) {
                Log(0, L"%s() failed to allocate memory in size [%d]", kName, static_cast<int>(kBufferSize));
                return ERROR_OUTOFMEMORY;
            }
            unique_hfile out(::CreateFileW(target.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
            if (!out) {
                const DWORD rc = LastErrorOr();
                Log(0, L"%s() failed to create bitmap file [%s], rc = [%d]", kName, target.c_str(), rc);
                return rc;
            }
            const DWORD rc = WriteBitmap(out.get(), source, encrypted ? &block : nullptr,
                                         reinterpret_cast<DiskBitmapBuffer*>(buffer.get()));
            SecureZeroMemory(block.bytes, sizeof block.bytes);
            return rc;
        },
        OrNull(sourceFolder), OrNull(targetFolder), OrNull(fileName));
}

}  // namespace kx::bitmap
