#include "hyperv/disk_chain.h"

#include <cwctype>

#include "common/dest_layout.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"
#include "platform/vdisk.h"
#include "platform/vhdx_reader.h"

namespace kx::hyperv {

namespace {

std::wstring FileNameOf(const std::wstring& path) {
    const size_t slash = path.rfind(L'\\');
    return slash == std::wstring::npos ? path : path.substr(slash + 1);
}

bool EndsWithVhdx(const std::wstring& path) {
    return EndsWithNoCase(path, L".vhdx") || EndsWithNoCase(path, L".avhdx");
}

// Opens the file through the VHDX reader, read-only and sharing reads and
// writes (Hyper-V may hold it open for writing): a file that is no VHDX
// disk, or a damaged one, fails here. The code as an HRESULT.
DWORD OpenAsVhdx(const std::wstring& path) {
    std::unique_ptr<vdisk::IVhdxDisk> disk;
    const DWORD rc = vdisk::OpenVhdxDisk(path.c_str(), false, &disk);
    return rc & 0x80000000u ? rc : HresultFromWin32(rc);
}

}  // namespace

bool IsVirtualDiskImage(const std::wstring& path) {
    const size_t dot = path.rfind(L'.');
    if (dot == std::wstring::npos) return false;
    const std::wstring ext = path.substr(dot);
    for (const wchar_t* e : {L".vhd", L".avhd", L".vhdx", L".avhdx"})
        if (EqualsNoCase(ext, e)) return true;
    return false;
}

std::wstring FolderOf(const std::wstring& path) {
    const size_t slash = path.rfind(L'\\');
    return slash == std::wstring::npos ? std::wstring() : path.substr(0, slash);
}

DWORD IDrVolCallback::OnVolumeDone(const std::wstring&, DWORD) { return 0; }

CDrVolCbImp::~CDrVolCbImp() = default;

void CDrVolCbImp::Release() { delete this; }

DWORD CDrVolCbImp::Init(const wchar_t* vmGuid, const wchar_t* currSnapshotId) {
    if (!vmGuid) return kE_INVALIDARG;
    vmGuid_ = vmGuid;
    currSnapshotId_ = currSnapshotId ? currSnapshotId : L"";
    reserved_.clear();
    if (currSnapshotId_.empty())
        Log(2, L"CDrVolCbImp::Init, input CurrSnapshotID is empty, indicate snapshot NOW");
    vm_.reset();
    operation_.reset();
    if (platform::HyperV().OpenHyperVOperation(L"", L"", L"", &operation_) != 0 || !operation_) {
        Log(0, L"CDrVolCbImp::Init, OpenHyperVOperation failed");
        return kNoHyperVOperation;
    }
    vm_ = operation_->GetVmByGuid(vmGuid_);
    if (!vm_) {
        Log(0, L"CDrVolCbImp::Init, GetVmByGuid failed");
        return kNoVmOrImage;
    }
    return 0;
}

DWORD CDrVolCbImp::ChosenImages(Caller caller, std::vector<std::wstring>& images) {
    images.clear();
    const bool bySig = caller == Caller::kDiskBySig;
    if (currSnapshotId_.empty()) {
        Log(2, L"CDrVolCbImp::GetDiskPathBySig, empty curr snapshot ID, mean snap-NOW");
        if (DWORD rc = vm_->GetDiskImages(images)) {
            if (bySig)
                Log(0, L"CDrVolCbImp::Vm's GetDiskPathBySig, GetDiskImages failed, rc = %d", rc);
            else
                Log(0, L"CDrVolCbImp::GetRootPath, GetDiskImages by VM failed, rc = %d", rc);
            return rc;
        }
    } else {
        std::unique_ptr<platform::HyperVSnapshot> snapshot;
        DWORD rc = vm_->GetSnapshotByGuid(currSnapshotId_, &snapshot);
        if (rc == 0 && !snapshot) rc = ERROR_NOT_FOUND;
        if (rc) {
            Log(0, L"CDrVolCbImp::GetDiskPathBySig, GetSnapshotByGuid failed, rc = %d, snap = %s", rc,
                currSnapshotId_.c_str());
            return rc;
        }
        if ((rc = snapshot->GetDiskImages(images)) != 0) {
            if (bySig)
                Log(0, L"CDrVolCbImp::GetDiskPathBySig, GetDiskImages failed, rc = %d", rc);
            else
                Log(0, L"CDrVolCbImp::GetRootPath, GetDiskImages failed, rc = %d", rc);
            return rc;
        }
    }
    if (images.empty()) {
        if (bySig)
            Log(0, L"CDrVolCbImp::GetDiskPathBySig, GetDiskImages , empty vector, rc = %d", 0);
        else
            Log(0, L"CDrVolCbImp::GetRootPath, GetDiskImages , empty vector, rc = %d", 0);
    }
    return 0;
}

DWORD CDrVolCbImp::GetImageFolders(std::vector<std::wstring>& folders) {
    if (!vm_) return kE_INVALIDARG;
    std::vector<std::wstring> images;
    if (DWORD rc = ChosenImages(Caller::kRootPath, images)) return rc;
    for (const auto& image : images) {
        if (!IsVirtualDiskImage(image)) continue;
        const std::wstring dir = FolderOf(image);
        Log(2, L"CDrVolCbImp::GetRootPath, vm_guid = %s, snap_guid = %s, dir = %s", vmGuid_.c_str(),
            currSnapshotId_.c_str(), dir.c_str());
        folders.push_back(dir);
    }
    return 0;
}

DWORD CDrVolCbImp::GetVirtualDisks(std::vector<std::wstring>& disks) {
    disks.clear();
    if (!vm_) return kE_INVALIDARG;
    std::vector<std::wstring> images;
    if (DWORD rc = ChosenImages(Caller::kDiskBySig, images)) return rc;
    for (auto& image : images)
        if (IsVirtualDiskImage(image)) disks.push_back(std::move(image));
    return 0;
}

DWORD CDrVolCbImp::GetRootPath(std::wstring& dir) {
    dir.clear();
    if (!vm_) return kE_INVALIDARG;
    std::vector<std::wstring> images;
    if (DWORD rc = ChosenImages(Caller::kRootPath, images)) return rc;
    std::wstring folder;
    for (const auto& image : images) {
        if (!IsVirtualDiskImage(image)) continue;
        folder = FolderOf(image);
        break;
    }
    if (folder.empty()) {
        Log(0, L"CDrVolCbImp::GetRootPath, does not find vhd or avhd from images");
        return kNoVmOrImage;
    }
    Log(2, L"CDrVolCbImp::GetRootPath, vm_guid = %s, snap_guid = %s, dir = %s", vmGuid_.c_str(),
        currSnapshotId_.c_str(), folder.c_str());
    std::wstring root;
    DWORD session = 0;
    if (!GetRootAndSessNumFromPath(folder.c_str(), root, &session) || root.empty()) {
        Log(1, L"CDrVolCbImp::GetRootPath, Get root and sessNo failed, dir = %s", folder.c_str());
        return kFailNoCode;
    }
    std::wstring header;
    if (DWORD rc = GetHeaderRoot(root.c_str(), header)) {
        // Not a leaf destination: its own sessions are the answer.
        Log(0, L"CDrVolCbImp::GetRootPath, GetHeaderRoot failed, rc = %d", rc);
        header = root;
    }
    if (DWORD rc = HA_GetKbSessPathByRootAndNum(header.c_str(), session, dir)) return rc;
    Log(2, L"CDrVolCbImp::GetRootPath, the dir get is %s", dir.c_str());
    return 0;
}

DWORD ReadVhdDiskSignature(const std::wstring& path, DWORD* signature) {
    *signature = 0;
    std::unique_ptr<vdisk::IVDisk> disk;
    DWORD rc = vdisk::CreateVHDFileEx(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, &disk);
    if (rc) {
        Log(1, L"CDrVolCbImp::GetDiskPathBySig, create IVHD share_ro failed, path = %s, rc = %d", path.c_str(), rc);
        Log(1, L"CDrVolCbImp::GetDiskPathBySig, try with share_rw");
        rc = vdisk::CreateVHDFileEx(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, &disk);
        if (rc) {
            Log(0, L"CDrVolCbImp::GetDiskPathBySig, create IVHD share_rw failed, path = %s, rc = %d", path.c_str(),
                rc);
            return rc;
        }
    }
    BYTE sector[512];
    if ((rc = disk->ReadSectors(0, 1, sector)) != 0) {
        Log(0, L"CDrVolCbImp::GetDiskPathBySig, get disk sig failed, path = %s, rc = %d", path.c_str(), rc);
        return rc;
    }
    *signature = sector[440] | (sector[441] << 8) | (sector[442] << 16) | (static_cast<DWORD>(sector[443]) << 24);
    return 0;
}

DWORD ReadVhdxDiskId(const std::wstring& path, DWORD* signature) {
    *signature = 0;
    if (DWORD rc = OpenAsVhdx(path)) {
        Log(0, L"CDrVolCbImp::GetDiskPathBySig::Create IDiskImageVirtual failed, file = %s, rc = 0x%08X", path.c_str(),
            rc);
        return rc;
    }
    const std::wstring name = FileNameOf(path);
    const size_t at = name.rfind(L"disk");
    if (at == std::wstring::npos) {
        Log(0, L"CDrVolCbImp::GetVHDXDiskIDGet disk ID failed, file = %s", path.c_str());
        return ERROR_INVALID_DATA;
    }
    size_t i = at + 4;
    if (i >= name.size() || !std::iswdigit(name[i])) {
        Log(0, L"CDrVolCbImp::GetVHDXDiskIDGet disk ID failed2, file = %s", path.c_str());
        return ERROR_INVALID_DATA;
    }
    unsigned long long id = 0;
    for (; i < name.size() && std::iswdigit(name[i]); ++i) id = id * 10 + (name[i] - L'0');
    *signature = static_cast<DWORD>(id);
    return 0;
}

DWORD CDrVolCbImp::GetDiskPathBySig(DWORD signature, std::wstring& path) {
    path.clear();
    if (!vm_) return kE_INVALIDARG;
    std::vector<std::wstring> images;
    if (DWORD rc = ChosenImages(Caller::kDiskBySig, images)) return rc;
    for (const auto& image : images) {
        if (!IsVirtualDiskImage(image)) continue;
        DWORD found = 0;
        const DWORD rc = EndsWithVhdx(image) ? ReadVhdxDiskId(image, &found) : ReadVhdDiskSignature(image, &found);
        if (rc == 0 && found == signature) {
            path = image;
            return 0;
        }
    }
    return kFailNoCode;
}

}  // namespace kx::hyperv
