// Bitmap files and session folders made by hand for the bitmap tests.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KestrixHA/bitmap.h"
#include "bitmap/bitmap_file_format.h"
#include "kx_test.h"

namespace kxtest {

// "S" and the session number in ten digits, as session folders are named.
inline std::wstring SessionName(unsigned n) {
    wchar_t b[16];
    _snwprintf(b, 16, L"S%010u", n);
    return b;
}

// A bitmap reader released when it goes out of scope.
struct ReaderRelease {
    void operator()(IDiskBmpReader* r) const { r->Release(); }
};
using Reader = std::unique_ptr<IDiskBmpReader, ReaderRelease>;

inline void WriteBitmapFile(const std::wstring& path, int64_t totalSectors, const std::vector<uint8_t>& body,
                            uint32_t differencing = 1) {
    kx::bitmap::BitmapFileHeader h;
    std::memset(&h, 0, sizeof h);
    h.version = 1;
    h.differencing = differencing;
    h.totalSectors = totalSectors;
    std::vector<uint8_t> all(reinterpret_cast<uint8_t*>(&h), reinterpret_cast<uint8_t*>(&h) + sizeof h);
    all.insert(all.end(), body.begin(), body.end());
    WriteBytes(path, all.data(), all.size());
}

inline void WriteBackupInfo(const std::wstring& sessionFolder, unsigned number, const char* kind,
                            const char* status = "Finished", int encrypted = 0) {
    MakeDirs(sessionFolder);
    char xml[512];
    snprintf(xml, sizeof xml,
             "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<BackupInfo>\r\n  <SessionNumber>%u</SessionNumber>\r\n"
             "  <SessionGuid>{0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B%02u}</SessionGuid>\r\n  <BackupKind>%s</BackupKind>\r\n"
             "  <Status>%s</Status>\r\n  <Encrypted>%d</Encrypted>\r\n</BackupInfo>\r\n",
             number, number % 100, kind, status, encrypted);
    WriteText(sessionFolder + L"\\BackupInfo.XML", xml);
}

}  // namespace kxtest
