// Session bitmaps: one bit per sector of a backed-up disk, set when the
// session holds data for that sector. Sector s is bit (s % 8), least
// significant first, of byte s / 8.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// A caller-allocated block that bitmap requests fill: the start sector of the
// returned bits (a multiple of 8), the number of valid sectors returned, and
// the bits themselves (as many bytes as the caller asked for).
struct DiskBitmapBuffer {
    LONGLONG startingSector;
    LONGLONG sectorCount;
    BYTE bitmap[1];
};

// Bytes to allocate for a DiskBitmapBuffer that holds `bitmapBytes` bytes.
inline size_t DiskBitmapBufferSize(size_t bitmapBytes) { return 2 * sizeof(LONGLONG) + bitmapBytes; }

// A bitmap of a disk: a bitmap file, the union of a session chain, or a live
// virtual disk all answer through this interface.
class IDiskBmpReader {
public:
    // Ends the object. Returns 0.
    virtual DWORD Release() = 0;
    // Fills `buffer` with up to `cbToRead` bytes of bits from the byte that
    // holds `startingSector`. 0, 87 for a start outside the disk,
    // 0x80070057 for a null buffer, or the failing code.
    virtual DWORD GetBitmap(LONGLONG startingSector, LONG cbToRead, DiskBitmapBuffer* buffer) = 0;
    // The number of sectors of the disk. 0, or 0x80070057 for a null pointer.
    virtual DWORD GetTotalSectors(LONGLONG* totalSectors) = 0;

protected:
    virtual ~IDiskBmpReader() = default;
};

// Opens a bitmap file. On success *reader is owned by the caller, who ends it
// with Release(). 0x80070057 for bad arguments, 0xFFFFFFFF for a file that is
// no bitmap file, otherwise the failing system code.
KXHA_API DWORD ReadDiskBitmap(const wchar_t* path, IDiskBmpReader** reader);

// Writes the bitmap of the disk file sourceFolder\fileName (a session disk,
// "disk##########.zek") as targetFolder\<name less its last three
// characters>"Bitmap". `flag` is handed to the session password lookup.
KXHA_API DWORD CreateBitmap4ZekFile(const wchar_t* sourceFolder, const wchar_t* targetFolder, const wchar_t* fileName,
                                    DWORD flag);
