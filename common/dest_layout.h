// Names and paths of a backup destination: session folders
// (root\VStore\S##########) and the ini files that tie a destination spread
// over a header root and leaf roots together.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx {

inline constexpr const wchar_t* kVStore = L"VStore";
inline constexpr const wchar_t* kLeafRootIni = L"leaf_root.ini";
inline constexpr const wchar_t* kHeaderRootIni = L"header_root.ini";

// "S" and the session number in ten digits.
std::wstring SessionFolderName(DWORD session);

// A name the library may put into a path as one component: not empty, no
// "\", "/" or ":", and not "." or "..". Names from callers that are not
// plain would reach outside the folder they are meant for.
bool IsPlainName(const wchar_t* name) noexcept;

// "S" (or "s") followed by exactly ten digits: a session folder's name.
bool IsSessionName(const wchar_t* name) noexcept;

// root\VStore\S########## (no second separator when root ends with "\").
// 0, or E_INVALIDARG for a null or empty root.
DWORD HA_GetKbSessPathByRootAndNum(const wchar_t* root, DWORD session, std::wstring& path);

// Splits a session folder path into its destination root (everything before
// "VStore" less the separator; empty when "VStore" is missing or within the
// first two characters) and its session number. False when the last
// component is not "S" followed by a number.
bool GetRootAndSessNumFromPath(const wchar_t* path, std::wstring& root, DWORD* session);

// The header root named by root\leaf_root.ini; "default" (or no file) gives
// an empty string and the system's code, or 0xFFFFFFFF.
DWORD GetHeaderRoot(const wchar_t* root, std::wstring& header);

// The leaf roots listed in root\header_root.ini, or the root alone when it
// has no such file. An empty entry ends the list with a non-zero code; the
// roots read before it stay.
DWORD GetLeafRoots(const wchar_t* root, std::vector<std::wstring>& roots);

}  // namespace kx
