// The pending-delete record of a VM: the files a snapshot deletion could not
// remove at once because something still had them open, kept for the next
// deletion of the same VM.
//
// File: <data folder>\<VM GUID>_vcm_to_del.ini, a UTF-16 profile file that
// starts with the byte-order mark and the mark section "[QZSIG]". Lists:
//   [INC_SESS_FOLDER] IncFolder = every folder followed by "|"   (a|b|)
//   [INC_SESS_SIZE]   IncSize   = the length of IncFolder in characters
//   [VHD_AVHD_LIST]   list      = "<base|differencing>" per disk pair
//   [VHD_AVHD_SIZE]   size      = the length of list in characters
// The size keys tell a reader how large a buffer to take; it trusts them up
// to kPendingDelCap characters and never reads more than that plus 2. A last
// entry cut off by a size that is too small is dropped by the readers.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

namespace kx::hyperv {

inline constexpr int kPendingDelCap = 0x400000;

// Which record: the VM's data folder and the VM GUID as the caller gave it.
struct PendingDelContext {
    std::wstring dataFolder;
    std::wstring vmGuid;
};

using DiskPair = std::pair<std::wstring, std::wstring>;  // base disk, differencing disk

std::wstring PendingDelRecordPath(const PendingDelContext& context);

// Each routine creates the record (with its mark section) when it is missing
// and returns 0, the creation's code, 0xFFFFFFFF for a negative size key,
// 0x8007000E when the buffer cannot be had, or the failing write's code.
DWORD _ReadPendingDelFolderFromCfgFile(const PendingDelContext& context, std::vector<std::wstring>& folders);
// Appends to the folder list. An empty `folders` returns 0 without touching
// (or creating) the file. An old value longer than its size key claims is
// cut back to its last whole entry before the new ones follow.
DWORD _AddPendingDelFolderToCfgFile(const PendingDelContext& context, const std::vector<std::wstring>& folders);
DWORD _WritePendingDelFolderToCfgFile(const PendingDelContext& context, const std::vector<std::wstring>& folders);
// Keeps only the two shapes of pair the deletion writes: "x.vhd" with
// "..._00000000-0000-0000-0000-000000000000.avhd", or the same with ".vhdx"
// and ".avhdx" (case ignored); every other entry is dropped.
DWORD _ReadPendingDelPair(const PendingDelContext& context, std::vector<DiskPair>& pairs);
DWORD _WritePendingDelPair(const PendingDelContext& context, const std::vector<DiskPair>& pairs);
// Only the in-memory list; logged at level 2.
void _AppendToPendingDelVhdList(const std::wstring& base, const std::wstring& differencing,
                                std::vector<DiskPair>& pairs);

// The accepted pair shapes (see _ReadPendingDelPair).
bool IsAcceptedPair(const std::wstring& base, const std::wstring& differencing);

}  // namespace kx::hyperv
