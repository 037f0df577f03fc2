// Preparing sessions for conversion: a copy of each session's description
// files and, for an incremental session, one bitmap file per disk, in
// <bitmap root>\VCM-bitmap\S##########.
#pragma once

#include <windows.h>

#include <string>

namespace kx::bitmap {

inline constexpr const wchar_t* kBitmapFolder = L"VCM-bitmap";
inline constexpr const wchar_t* kLastSessionFile = L"LastSession.vsb";

DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder, const wchar_t* sessionName,
                             DWORD bRegen, DWORD flag, bool generateBitmaps);

// Every new session of a destination, newest first, down to the last
// converted one. `begin` and `end` are only logged.
DWORD CreateBitmap4BackupDestEx(const wchar_t* root, const wchar_t* bitmapRoot, DWORD begin, DWORD end, DWORD bRegen,
                                DWORD flag);

DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end, DWORD bRegen,
                            DWORD flag);

// Writes <bitmap root>\VCM-bitmap\LastSession.vsb holding `session`.
DWORD MarkLastConvertedSession(const wchar_t* bitmapRoot, const wchar_t* session);

// The name in LastSession.vsb of a bitmap folder; empty when there is none.
std::wstring ReadLastConvertedSession(const std::wstring& bitmapFolder);

}  // namespace kx::bitmap
