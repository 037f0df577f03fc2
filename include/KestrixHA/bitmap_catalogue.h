// Preparing, listing, checking and removing session bitmaps of backup
// destinations. Prepared sessions live in <root>\VCM-bitmap\S##########;
// <root>\VCM-bitmap\LastSession.vsb names the last converted session.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"
#include "KestrixHA/bitmap.h"

// What CheckSessionBitmap found: 1 or 0 each.
struct SessionBitmapCheck {
    DWORD sessionExists;
    DWORD bitmapExists;
    DWORD match;  // every .xml, .ctf and .Zek file of the session has its counterpart
};

// Prepares one session: copies its .xml/.ctf files into
// targetFolder\sessionName and, when `generateBitmaps`, one .Bitmap per .Zek
// disk file, under the session lock. An existing target is kept unless
// `bRegen`. A failure removes the half-built target folder.
KXHA_API DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                      const wchar_t* sessionName, DWORD bRegen, DWORD flag, bool generateBitmaps);
KXHA_API DWORD CreateBitmap4Session(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                    const wchar_t* sessionName, DWORD flag);
// Prepares every valid session of the destination newer than the last
// converted one, newest first; bitmapRoot null means the destination root.
KXHA_API DWORD CreateBitmap4BackupDest(const wchar_t* root, DWORD flag, const wchar_t* bitmapRoot);
// The same for the newest destination of `path`.
KXHA_API DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end,
                                     DWORD bRegen, DWORD flag);
// CreateSessionBitmapEx(path, path, 0, 0, 0, flag); the first argument is not read.
KXHA_API DWORD CreateSessionBitmap(const wchar_t* unused, DWORD flag, const wchar_t* path);

// The destination roots of a path, the newest last.
KXHA_API DWORD GetBackupDestList(const wchar_t* path, std::vector<std::wstring>& roots);
// The prepared session names of one destination root.
KXHA_API DWORD GetBitmapList4BackupDest(const wchar_t* root, std::vector<std::wstring>& sessions);
// The prepared session names of every destination of a path.
KXHA_API DWORD GetSessionBitmapList(const wchar_t* path, std::vector<std::wstring>& sessions);
// The .Bitmap files of a prepared session, found among the destinations of a path.
KXHA_API DWORD GetBitmapDiskList(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files);
KXHA_API DWORD CheckSessionBitmap(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result);
// Removes prepared sessions of one root up to and including `limit`.
// 0, 2 when there is no VCM-bitmap folder, 145 when an empty one can't be removed.
KXHA_API DWORD DeleteBitmap4BackupDest(const wchar_t* root, const wchar_t* limit);
// Removes prepared sessions up to and including `session` (all when null or
// empty) in every destination of a path, and marks `session` (or
// S0000000000) as the last converted one.
KXHA_API DWORD DeleteSessionBitmap(const wchar_t* path, const wchar_t* session);
// When a prepared session after `begin` up to `end` is a full backup, the
// bitmaps up to `end` are obsolete: DeleteSessionBitmap(path, end).
KXHA_API DWORD DetectAndRemoveObsolteBitmap(const wchar_t* path, const wchar_t* begin, const wchar_t* end);

// The union of the written sectors of `diskPath` (root\VStore\S##########\disk)
// and of the same disk in every older session down to `lowestSession`, or to
// the session where the disk was full. The reader is the caller's, ended with Release().
KXHA_API DWORD GetBitmapReader_IncsFromFull(const wchar_t* diskPath, DWORD lowestSession, void* reserved,
                                            IDiskBmpReader** reader);
