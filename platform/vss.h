// The system's shadow-copy service as the snapshot manager reaches it: a
// new backup-components object, the free call for snapshot properties, and
// the lookup of the volume that holds a path. The default loads vssapi.dll
// when first asked (a host without it answers with the load's code, and the
// library still loads there); tests put an in-process service in place.
#pragma once

#include <windows.h>
#include <vss.h>
#include <vsbackup.h>

#include <string>

namespace kx::platform {

class VssApi {
public:
    virtual ~VssApi() = default;
    // A new backup-components object (one reference, the caller's).
    virtual HRESULT CreateBackupComponents(IVssBackupComponents** components) = 0;
    // Frees the strings GetSnapshotProperties put into `prop`.
    virtual void FreeSnapshotProperties(VSS_SNAPSHOT_PROP* prop) = 0;
    // The volume name ("\\?\Volume{GUID}\") of the volume that holds
    // `path`. 0 or the Win32 code of the failing lookup.
    virtual DWORD VolumeNameOf(const std::wstring& path, std::wstring& volumeName) = 0;
};

// The service in use: the system's unless a test put another in place.
VssApi& Vss();
// Puts `api` in place (null puts the system's back). For tests: not to be
// switched while another thread uses the service.
void SetVssApi(VssApi* api);

// The system's lookup behind VolumeNameOf: GetVolumePathNameW, then
// GetVolumeNameForVolumeMountPointW on the mount point found.
DWORD SystemVolumeNameOf(const std::wstring& path, std::wstring& volumeName);

// Snapshot properties filled by GetSnapshotProperties, freed through the
// service in use at the end of scope.
class unique_snapshot_prop {
public:
    unique_snapshot_prop() noexcept : prop_{} {}
    ~unique_snapshot_prop() { reset(); }
    unique_snapshot_prop(const unique_snapshot_prop&) = delete;
    unique_snapshot_prop& operator=(const unique_snapshot_prop&) = delete;

    const VSS_SNAPSHOT_PROP& get() const noexcept { return prop_; }
    // For the out-parameter: what is held is freed first, and the
    // properties count as filled from now on.
    VSS_SNAPSHOT_PROP* put() noexcept {
        reset();
        filled_ = true;
        return &prop_;
    }
    // A call that failed left nothing to free.
    void forget() noexcept {
        filled_ = false;
        prop_ = {};
    }
    void reset() noexcept {
        if (filled_) Vss().FreeSnapshotProperties(&prop_);
        forget();
    }

private:
    VSS_SNAPSHOT_PROP prop_;
    bool filled_ = false;
};

}  // namespace kx::platform
