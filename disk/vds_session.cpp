#include "disk/vds_session.h"

#include "common/result_codes.h"
#include "log/debug_log.h"
#include "platform/process_runner.h"

namespace kx::disk {

namespace {
constexpr int kStartRounds = 7;
constexpr DWORD kStartPauseMs = 2000;
constexpr int kOfflineTries = 10;
constexpr DWORD kOfflinePauseMs = 1000;
}  // namespace

DWORD VdsSession::Open(VdsStart how) {
    if (initialised_) return ERROR_SUCCESS;
    service_ = std::make_unique<CVdsService>(L"Kestrix");
    Log(2, L"Initialize VDS service.");
    for (int round = 0; round < kStartRounds; ++round) {
        const HRESULT hr = how == VdsStart::kFull ? service_->Initialize() : service_->Initialize2();
        if (SUCCEEDED(hr)) {
            initialised_ = true;
            return ERROR_SUCCESS;
        }
        if (hr != vds::kServerStarting) {
            Log(0, L"VcmDiskOperation::Initialize, Init vds failed, rc = 0x%X", static_cast<unsigned>(hr));
            return kFailNoCode;
        }
        Log(1, L"VcmDiskOperation::Initialize, the %d round", round);
        if (round + 1 < kStartRounds) platform::Pauses().For(kStartPauseMs);
    }
    return kFailNoCode;
}

VdsSession::~VdsSession() {
    if (initialised_) {
        Log(2, L"Uninitialize VDS service.");
        service_->Uninitialize();
    }
    service_.reset();
}

DWORD TakeDiskOffline(const CVdsDisk& disk) {
    Log(2, L"Make disk writable.");
    if (FAILED(disk.MakeDiskWritable())) Log(1, L"Unable to make disk writable.");
    auto isOffline = [&disk] {
        const std::optional<DiskProperties> p = disk.GetProperties();
        if (!p) {
            Log(1, L"Failed to get disk properties");
            return false;
        }
        return p->status == VDS_DS_OFFLINE;
    };
    for (int attempt = 1; attempt <= kOfflineTries; ++attempt) {
        const HRESULT hr = disk.Offline();
        if (hr == vds::kDiskAlreadyOffline) {
            Log(2, L"Disk is already offline.");
            return ERROR_SUCCESS;
        }
        if (FAILED(hr))
            Log(1, L"Unable to offline disk. Retry time #%d, %s, %d.", kOfflineTries - attempt,
                ErrorText(hr).c_str(), static_cast<int>(hr));
        if (isOffline()) return ERROR_SUCCESS;
        if (attempt < kOfflineTries) platform::Pauses().For(kOfflinePauseMs);
    }
    return isOffline() ? ERROR_SUCCESS : kFailNoCode;
}

}  // namespace kx::disk
