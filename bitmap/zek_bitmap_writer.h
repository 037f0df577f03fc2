// Writes the bitmap file of one session disk file.
#pragma once

#include <windows.h>

namespace kx::bitmap {

// The export of the same name: <target>\<name less "zek">Bitmap from
// <source>\<name>. The file name must be a plain name; the folders may not
// be empty.
[[nodiscard]] DWORD CreateBitmap4ZekFile(const wchar_t* sourceFolder, const wchar_t* targetFolder,
                                         const wchar_t* fileName, DWORD flag);

}  // namespace kx::bitmap
