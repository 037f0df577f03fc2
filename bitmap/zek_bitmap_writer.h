// Writes the bitmap file of one session disk file.
#pragma once

#include <windows.h>

namespace kx::bitmap {

DWORD CreateBitmap4ZekFileImpl(const wchar_t* sourceFolder, const wchar_t* targetFolder, const wchar_t* fileName,
                               DWORD flag);

}  // namespace kx::bitmap
