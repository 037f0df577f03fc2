// The Hyper-V operations port: what the library asks of the host's Hyper-V
// about a VM and its snapshots, and the backup core's destination questions
// that the off-host copy size needs. Each lives behind a small interface
// with a default for a real host, so that a test can put its own in place.
//
// Hyper-V default: the WMI provider of namespace root\virtualization\v2
// (Msvm_ComputerSystem for the VM, Msvm_VirtualSystemSettingData for its
// current settings and its snapshots, Msvm_StorageAllocationSettingData for
// the disk files they hold), reached through the library's WMI client
// (platform/hyperv_wmi.cpp). On a host without that provider, opening the
// default gives the connection's HRESULT and logs
// "HyperVOps: the Hyper-V WMI provider is not available on this host".
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

namespace kx::platform {

class HyperVSnapshot {
public:
    virtual ~HyperVSnapshot() = default;
    virtual std::wstring Guid() const = 0;
    // The GUID of the snapshot this one stands on; empty for the first one
    // (or when the host does not tell).
    virtual std::wstring ParentGuid() const { return {}; }
    // The paths of the disk files this snapshot holds (any kind: ".vhd",
    // ".avhdx", ".iso", ...), as Hyper-V lists them. 0 or the failing code.
    virtual DWORD GetDiskImages(std::vector<std::wstring>& images) = 0;
};

class HyperVVm {
public:
    virtual ~HyperVVm() = default;
    virtual std::wstring Guid() const = 0;
    virtual std::wstring DisplayName() const = 0;
    // The folder that holds the VM's configuration (its "data folder").
    virtual DWORD GetDataFolder(std::wstring& folder) = 0;
    // The disk files of the VM's running state ("snapshot NOW").
    virtual DWORD GetDiskImages(std::vector<std::wstring>& images) = 0;
    // 0 and the snapshot, ERROR_NOT_FOUND when the VM has none of that GUID,
    // or the failing code.
    virtual DWORD GetSnapshotByGuid(const std::wstring& guid, std::unique_ptr<HyperVSnapshot>* snapshot) = 0;
    // Every snapshot of the VM, oldest first.
    virtual DWORD GetSnapshotList(std::vector<std::unique_ptr<HyperVSnapshot>>& snapshots) = 0;
};

// One open session with a host's Hyper-V.
class HyperVOperation {
public:
    virtual ~HyperVOperation() = default;
    // The VM of that GUID (braces and case as the caller has them), or null.
    virtual std::unique_ptr<HyperVVm> GetVmByGuid(const std::wstring& guid) = 0;
};

class HyperVOps {
public:
    virtual ~HyperVOps() = default;
    // Empty host, user and password: the local host as the calling user.
    virtual DWORD OpenHyperVOperation(const std::wstring& host, const std::wstring& user, const std::wstring& password,
                                      std::unique_ptr<HyperVOperation>* operation) = 0;
};

// The backup core's destination access that the off-host copy size uses.
class DestinationCore {
public:
    virtual ~DestinationCore() = default;
    // Makes the destinations of `headerRoot` known to the core.
    virtual DWORD InitBackupDest(const std::wstring& headerRoot) = 0;
    // Every destination the core knows: a block of null-terminated roots
    // ended by an empty one, or null when it knows none. Valid until the
    // next call on this object.
    virtual DWORD KbGetAllBackupDestinations(const wchar_t** block) = 0;
    // The size in bytes of everything under `folder`.
    virtual DWORD KbGetFileSize(const std::wstring& folder, ULONGLONG* bytes) = 0;
};

// A fresh destination-core object for one call (the built-in one reads the
// destination layout on disk), unless a test put a maker in place.
using DestinationCoreMaker = std::unique_ptr<DestinationCore> (*)();
std::unique_ptr<DestinationCore> MakeDestinationCore();

// The services in use: the defaults unless a test put others in place.
HyperVOps& HyperV();
// Puts `ops` / `maker` in place (null puts the default back). For tests:
// not to be switched while another thread uses the service.
void SetHyperVOps(HyperVOps* ops);
void SetDestinationCoreMaker(DestinationCoreMaker maker);

// Starts `commandLine` (program found by the usual search) with no window,
// waits for it without a time limit and gives its exit code. 0 when it ran
// (whatever it returned), or the process-creation error.
DWORD RunHiddenAndWait(const std::wstring& commandLine, DWORD* exitCode);

namespace wmi_text {
// The provider's query texts the default adapter sends; kept here so that
// their shape is checked without a provider.
std::wstring VmQuery(const std::wstring& vmGuid);
// Every settings object of the VM: its running state and its snapshots,
// told apart by VirtualSystemType.
std::wstring SettingsQuery(const std::wstring& vmGuid);
// The object path of a settings object (from its InstanceID) and the disk
// files associated with it.
std::wstring SettingsPath(const std::wstring& settingsInstanceId);
std::wstring DiskQuery(const std::wstring& settingsInstanceId);
// The GUID in a settings object's path ("...InstanceID=\"Microsoft:<GUID>\""),
// as a snapshot's Parent holds it; empty when the text has no such key.
std::wstring GuidOfSettingsPath(const std::wstring& path);
// A VM GUID as the provider's Name property holds it: no braces, upper case.
std::wstring ProviderGuid(const std::wstring& guid);
}  // namespace wmi_text

}  // namespace kx::platform
