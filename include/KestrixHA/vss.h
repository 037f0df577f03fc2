// Shadow copies of host volumes for a conversion job: a point-in-time,
// application-consistent image of each source volume that the job reads
// through the shadow copy's device
// ("\\?\GLOBALROOT\Device\HarddiskVolumeShadowCopyN") while the live
// volume keeps changing.
//
// MVCM_CreateVssMgr hands out a manager object; the caller ends it with
// Release(). One manager holds at most one snapshot set at a time.
//
// How a set is made (the system's backup-components protocol, in order):
// InitializeForBackup, SetContext, SetBackupState (no component selection,
// not bootable system state, a copy backup: the writers keep their backup
// history and logs, since a conversion is not a backup), GatherWriterMetadata,
// StartSnapshotSet, per volume IsVolumeSupported and AddToSnapshotSet,
// PrepareForBackup, DoSnapshotSet, then GetSnapshotProperties per volume for
// its snapshot id and device. When the set is given up (DeleteSnapshotSet,
// or Release without keep) BackupComplete tells the writers, and
// DeleteSnapshots removes the set.
//
// Context: persistent with writers taking part (application rollback). The
// writers make databases and system files consistent, as for a backup; the
// persistent set outlives the backup-components object, so a set can be
// kept after Release (for a copy that another process finishes) and a job
// that dies leaves a set an administrator can see and remove, rather than
// one that vanishes under a reader. Persistent shadow copies are limited to
// NTFS volumes: others are refused by IsVolumeSupported.
//
// Volumes are named by a drive ("C:", "C:\"), a mount-point folder, any path
// on the volume ("D:\data\vm"), or a volume name ("\\?\Volume{GUID}\"). Each
// is reduced to its volume name (GetVolumePathNameW, then
// GetVolumeNameForVolumeMountPointW); names of the same volume share one
// snapshot.
//
// Each asynchronous step (metadata, prepare, snapshot, complete) is polled
// every 100 ms for at most 10 minutes. A step still running at the limit is
// cancelled and the call returns HRESULT_FROM_WIN32(ERROR_TIMEOUT)
// (0x800705B4); a step the system cancelled returns
// HRESULT_FROM_WIN32(ERROR_CANCELLED) (0x800704C7); a step that failed
// returns its own result.
//
// Failure: when CreateSnapshotSet fails after StartSnapshotSet, the manager
// deletes whatever part of the set DoSnapshotSet made, calls AbortBackup and
// releases every object it made. Any failure leaves the manager empty and
// usable: the next CreateSnapshotSet starts afresh.
//
// Results are 0 or an HRESULT: E_POINTER (0x80004003) for a null out
// pointer, E_INVALIDARG (0x80070057) for an empty list or name,
// VSS_E_BAD_STATE (0x80042301) for a set made twice or asked for when there
// is none, VSS_E_OBJECT_NOT_FOUND (0x80042308) for a volume not in the set,
// HRESULT_FROM_WIN32 of the volume lookup's error, or the system's result,
// unchanged. The debug log names each failing call with its code and, for
// the common shadow-copy codes, their name ("VSS_E_PROVIDER_VETO").
//
// The calling thread must have initialised COM, and the process its COM
// security (writers call back into it). One manager serves one thread.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// One volume of a snapshot set.
struct VssSnapshotInfo {
    std::wstring volume;        // the volume name ("\\?\Volume{GUID}\")
    std::wstring shadowDevice;  // "\\?\GLOBALROOT\Device\HarddiskVolumeShadowCopyN"
    GUID snapshotId;
};

class IVssMgr {
public:
    // Ends the object. With a set present: BackupComplete, and unless
    // KeepSnapshotSet(true) was called, DeleteSnapshots (failures are
    // logged). Returns 0.
    virtual DWORD Release() = 0;
    // Makes one snapshot set of `volumes` (see above).
    virtual DWORD CreateSnapshotSet(const std::vector<std::wstring>& volumes) = 0;
    // The set's id.
    virtual DWORD GetSnapshotSetId(GUID* setId) = 0;
    // The volumes of the set in the order first named.
    virtual DWORD GetSnapshots(std::vector<VssSnapshotInfo>& snapshots) = 0;
    // The shadow device of the volume that holds `volumeOrPath`.
    virtual DWORD GetShadowDevicePath(const std::wstring& volumeOrPath, std::wstring& device) = 0;
    // BackupComplete and DeleteSnapshots. On a failed delete the set stays
    // recorded, so that a later call or Release tries again.
    virtual DWORD DeleteSnapshotSet() = 0;
    // Whether Release leaves the set on the system (default: no).
    virtual DWORD KeepSnapshotSet(bool keep) = 0;

protected:
    virtual ~IVssMgr() = default;
};

// A new manager in *mgr, owned by the caller. E_POINTER for a null `mgr`,
// E_OUTOFMEMORY.
KXHA_API DWORD MVCM_CreateVssMgr(IVssMgr** mgr);
