// Hyper-V VMs made from backups: their disk chain back to the backup
// sessions, mark files, the size of the destinations on a volume, copies of
// their recovery information, and the deletion of their snapshots with the
// record of files whose deletion is pending.
//
// The VM is named by its GUID; its name is only logged. Hyper-V is asked on
// the local host, as the calling user. Results: 0, a Win32 code, E_INVALIDARG
// (0x80070057), 0xFFFFFFFF when the Hyper-V operations can't be opened (also
// on a host without Hyper-V), 0xFFFFFFFE for an unknown VM or a VM without
// ".vhd"/".avhd"/".vhdx"/".avhdx" disks.
//
// ---- Disks, sessions and mark files ----
// A standby or instant VM runs from disk files inside a backup session folder
// <root>\VStore\S##########. Its session folder is that of the first disk
// file of its running state; when <root> is a leaf destination (its
// leaf_root.ini names a header), the same session number under the header
// destination is the answer.
//
// ---- Snapshot deletion ----
// Deleting a snapshot of a standby VM also frees the files the conversion
// made for it: the session folders its disks ran from, and each base disk
// "<name>.vhd(x)" with the zero-GUID differencing disk
// "<name>_00000000-0000-0000-0000-000000000000.avhd(x)" made on it. Files
// that something still holds open can't go at once; they are written into
// the VM's pending-delete record, "<data folder>\<VM GUID>_vcm_to_del.ini"
// (UTF-16 ini: INC_SESS_FOLDER/IncFolder "a|b|" with INC_SESS_SIZE/IncSize,
// VHD_AVHD_LIST/list "<base|differencing>" with VHD_AVHD_SIZE/size; a reader
// trusts the sizes up to 0x400000 characters), and removed by a later
// deletion of the same VM.
//
//   BeginDeleteSnapshot_HyperV(vm, snapshot, &h)
//     1. finds the VM and its data folder;
//     2. replays the record: every recorded folder and pair is removed
//        unless the VM lists it again (see "in use" below); what still
//        can't be removed is written back, the rest leaves the record. A
//        record that can't be read is logged and left for next time;
//     3. notes the snapshot's disk files, and hands out `h`.
//   The caller deletes the snapshot through Hyper-V, then
//   EndDeleteSnapshot_HyperV(h, deleted)   (always; it frees `h`)
//     - deleted false: nothing is removed (the Hyper-V deletion failed);
//     - the snapshot still listed: nothing removed, ERROR_BUSY (170);
//     - otherwise each zero-GUID differencing disk among the snapshot's
//       files and its base, then each session folder its files lie in,
//       are removed unless in use; those that fail are recorded.
//   "In use": a file that the VM's running state or any remaining snapshot
//   lists, or the base disk named by such a differencing disk
//   ("<name>_<GUID>.avhd(x)" stands on "<name>.vhd(x)"); a folder is in use
//   when it holds such a file. Nothing in use is ever removed; disk files
//   Hyper-V made itself (other ".avhdx") are left to Hyper-V.
//
//   CleanUselessVirtualDisk(vm, folder) removes from `folder` (not its
//   sub-folders) every disk file that is not in use, in the order
//   "*000000000000.avhd", "*000000000000.avhdx", "*.avhd", "*.avhdx",
//   "*.vhd", "*.vhdx" (a differencing disk before the disk it stands on).
//   Files that can't be removed are kept (not recorded); the result is the
//   first such failure's code, or 0.
//
// ---- Boot volume repair ----
// Before a VM made from a backup first boots, the boot sector of its boot
// volume and the MBR's active entry must carry the CHS geometry Hyper-V
// presents (AdjustVirtualDiskVolumeCHS, include/KestrixHA/hyperv_disk.h).
//
//   AdjustVolumeBootCode_HyperV(vm, snapshot, signature)
//     1. takes the disk list of the VM's running state (snapshot null or
//        empty) or of that snapshot, through the same disk chain as the
//        paths above; only ".vhd"/".avhd"/".vhdx"/".avhdx" files count;
//     2. picks the boot disk: with a non-zero `signature`, the disk whose
//        disk signature it is (a ".vhd"/".avhd" file's MBR signature, a ".vhdx"
//        file's "disk<number>" name, as the recovery core asks); with 0, the
//        first disk of the list whose MBR has an active entry;
//     3. the boot volume starts at that entry's first LBA times the disk's
//        logical sector size; its boot sector and the MBR are repaired in
//        place, the disk opened for writing.
//   Disks are read without locking others out, but the repair needs the
//   boot disk to itself: call it while the VM is off (a running VM's disk
//   gives 32). Results: 0; E_INVALIDARG for a null or empty VM GUID;
//   0xFFFFFFFF when Hyper-V can't be opened or no disk has the signature;
//   0xFFFFFFFE for an unknown VM or when no disk has an active partition;
//   the snapshot lookup's code; when no boot volume was found and some disk
//   could not be read, the first such disk's code; else the repair's code.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "KestrixHA/api.h"

// ---- disk chain and mark files --------------------------------------------
// The root of `root`'s destinations (its header, then each destination of
// the header in order) that holds the file `markFile`. 0, E_INVALIDARG for an
// empty root, 2 when none holds it, or the destination list's code.
KXHA_API DWORD GetDirOfMarkFile_HyperV(const std::wstring& root, const std::wstring& markFile, std::wstring& dir);
// The same search, in each destination (with "BackupDev.sig") whose sessions
// hold disks of the VM's snapshots; the first answer wins.
KXHA_API DWORD GetDirOfMarkFileByVm_HyperV(const std::wstring& vmGuid, const std::wstring& markFile,
                                           std::wstring& dir);
// The bytes held by all destination roots on `root`'s volume.
KXHA_API DWORD GetOffcopySize_HyperV(const wchar_t* root, ULONGLONG* totalSize);

// ---- recovery information for the running state --------------------------
// The session folder + "AdrConfigure_now.xml" / "AdrInfoC.drz". `chars` is
// the buffer's size in characters: too small (or a null buffer) sets it to
// the path's length plus one and returns 122.
KXHA_API DWORD GetDrInfoLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid, wchar_t* buffer,
                                                       DWORD* chars);
KXHA_API DWORD GetAdrInfoCLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                         wchar_t* buffer, DWORD* chars);
// Runs `GuestDrInfoTool.exe 1 "" "" "" "" "" "" <guid> "<name>" "<folder>" `
// (found by the usual program search, hidden, no time limit) and copies the
// "AdrConfigure.xml" it writes into `folder` over "AdrConfigure_now.xml" in
// the folder of every disk of the running state. 0, the tool's exit code,
// the process-creation error, or the last failing copy's code.
KXHA_API DWORD GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                             const wchar_t* folder);

// ---- snapshot deletion ----------------------------------------------------
struct SnapshotDeleteHandle;
KXHA_API DWORD BeginDeleteSnapshot_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid,
                                          SnapshotDeleteHandle** handle);
KXHA_API DWORD EndDeleteSnapshot_HyperV(SnapshotDeleteHandle* handle, bool snapshotDeleted);
KXHA_API DWORD CleanUselessVirtualDisk(const wchar_t* vmGuid, const wchar_t* folder);

// ---- boot volume repair -----------------------------------------------------
KXHA_API DWORD AdjustVolumeBootCode_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid, DWORD diskSignature);

// ---- the pending-delete record on its own ---------------------------------
// `dataFolder` null: the VM's data folder from Hyper-V.
using PendingDiskPair = std::pair<std::wstring, std::wstring>;  // base, differencing
KXHA_API DWORD KxReadPendingDelRecord(const wchar_t* vmGuid, const wchar_t* dataFolder,
                                      std::vector<std::wstring>& folders, std::vector<PendingDiskPair>& pairs);
// Appends folders and pairs (pairs of the two accepted shapes only, else 87).
KXHA_API DWORD KxAddPendingDelRecord(const wchar_t* vmGuid, const wchar_t* dataFolder,
                                     const std::vector<std::wstring>& folders,
                                     const std::vector<PendingDiskPair>& pairs);
// Removes what the record names and is not in use; `withoutHyperV` (with a
// data folder) skips the in-use check, so only files held open are kept.
KXHA_API DWORD KxReplayPendingDelRecord(const wchar_t* vmGuid, const wchar_t* dataFolder, bool withoutHyperV,
                                        DWORD* removed, DWORD* pending);
