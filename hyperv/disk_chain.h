// From a Hyper-V VM (and optionally one of its snapshots) back to the backup
// destination and session whose folder holds its disk files.
//
// A standby or instant VM runs from ".vhd", ".avhd", ".vhdx" or ".avhdx"
// files inside a session folder root\VStore\S##########. The folder of the
// first such file of the chosen disk list names the session; a session on a
// leaf destination is mapped to the same session number under the leaf's
// header destination. A root that is not a leaf (no leaf_root.ini, or its
// Header is "default") has no header to map to: its own session folder is
// the answer, after the header lookup's failure line.
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/hyperv_ops.h"

namespace kx::hyperv {

// Codes of the callback's Init that reach callers unchanged.
inline constexpr DWORD kNoHyperVOperation = 0xFFFFFFFF;  // -1
inline constexpr DWORD kNoVmOrImage = 0xFFFFFFFE;        // -2

// ".vhd", ".avhd", ".vhdx" or ".avhdx" from the last "." on, any case.
bool IsVirtualDiskImage(const std::wstring& path);
// The text before the last "\" (empty when there is none).
std::wstring FolderOf(const std::wstring& path);

// The volume callback that the recovery core calls while it adjusts the boot
// code of a VM's volumes. Slot order: destructor, Release, GetDiskPathBySig,
// then the volume-done notice, which implementations need not override.
class IDrVolCallback {
public:
    virtual ~IDrVolCallback() = default;
    virtual void Release() = 0;
    // The disk file whose disk signature is `signature`.
    virtual DWORD GetDiskPathBySig(DWORD signature, std::wstring& path) = 0;
    // Told when the recovery core is done with a volume.
    virtual DWORD OnVolumeDone(const std::wstring& volume, DWORD result);
};

// The VM and snapshot context of one call.
class CDrVolCbImp final : public IDrVolCallback {
public:
    CDrVolCbImp() = default;
    ~CDrVolCbImp() override;
    CDrVolCbImp(const CDrVolCbImp&) = delete;
    CDrVolCbImp& operator=(const CDrVolCbImp&) = delete;

    void Release() override;  // for objects made with new
    DWORD GetDiskPathBySig(DWORD signature, std::wstring& path) override;

    // E_INVALIDARG for a null GUID, kNoHyperVOperation, kNoVmOrImage, or 0.
    // An empty or null snapshot id means the VM's running state.
    DWORD Init(const wchar_t* vmGuid, const wchar_t* currSnapshotId);
    // The folder of every virtual disk file of the chosen disk list.
    DWORD GetImageFolders(std::vector<std::wstring>& folders);
    // The virtual disk files of the chosen disk list, in its order.
    DWORD GetVirtualDisks(std::vector<std::wstring>& disks);
    // The session folder that holds the chosen disks, under the header
    // destination. E_INVALIDARG before a successful Init, kNoVmOrImage when
    // no disk file qualifies.
    DWORD GetRootPath(std::wstring& dir);

private:
    enum class Caller { kRootPath, kDiskBySig };
    DWORD ChosenImages(Caller caller, std::vector<std::wstring>& images);

    std::wstring vmGuid_;
    std::wstring currSnapshotId_;
    std::wstring reserved_;
    std::unique_ptr<platform::HyperVOperation> operation_;
    std::unique_ptr<platform::HyperVVm> vm_;
};

// The disk signature of a ".vhd"/".avhd" file (the 32-bit value at byte 440
// of its first sector), opened for reading with read sharing and, when that
// is refused, with read and write sharing. 0 or the failing code, logged.
DWORD ReadVhdDiskSignature(const std::wstring& path, DWORD* signature);
// The number behind the last "disk" of a ".vhdx"/".avhdx" file name
// ("disk%010u"), after the file has opened as a VHDX disk through the VHDX
// reader (read-only, sharing reads and writes).
DWORD ReadVhdxDiskId(const std::wstring& path, DWORD* signature);

}  // namespace kx::hyperv
