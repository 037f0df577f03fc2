// Preparing sessions for conversion: a copy of each session's description
// files and, for an incremental session, one bitmap file per disk, in
// <bitmap root>\VCM-bitmap\S##########.
#pragma once

#include <windows.h>

#include <string>

namespace kx::bitmap {

inline constexpr const wchar_t* kBitmapFolder = L"VCM-bitmap";
inline constexpr const wchar_t* kLastSessionFile = L"LastSession.vsb";

// The exports of the same names, each run in the export frame. Folder
// arguments may not be empty (87, before anything is created); a session
// name must be "S" and ten digits.
[[nodiscard]] DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                           const wchar_t* sessionName, DWORD bRegen, DWORD flag, bool generateBitmaps);
[[nodiscard]] DWORD CreateBitmap4Session(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                         const wchar_t* sessionName, DWORD flag);

// Every new session of a destination, newest first, down to the last
// converted one. `begin` and `end` are only logged.
[[nodiscard]] DWORD CreateBitmap4BackupDestEx(const wchar_t* root, const wchar_t* bitmapRoot, DWORD begin, DWORD end,
                                              DWORD bRegen, DWORD flag);
// A null bitmap root stands for the root.
[[nodiscard]] DWORD CreateBitmap4BackupDest(const wchar_t* root, DWORD flag, const wchar_t* bitmapRoot);

[[nodiscard]] DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end,
                                          DWORD bRegen, DWORD flag);
[[nodiscard]] DWORD CreateSessionBitmap(DWORD flag, const wchar_t* path);

// Writes <bitmap root>\VCM-bitmap\LastSession.vsb holding `session`.
[[nodiscard]] DWORD MarkLastConvertedSession(const wchar_t* bitmapRoot, const wchar_t* session);

// The name in LastSession.vsb of a bitmap folder; empty when there is none.
std::wstring ReadLastConvertedSession(const std::wstring& bitmapFolder);

}  // namespace kx::bitmap
