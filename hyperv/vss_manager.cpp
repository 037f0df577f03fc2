// The shadow-copy snapshot manager: one snapshot set of host volumes at a
// time, made and given up through the system's backup-components protocol.
#include "hyperv/vss_manager.h"

#include <vsbackup.h>
#include <vsserror.h>

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "platform/host_util.h"
#include "platform/process_runner.h"
#include "platform/vss.h"

namespace kx::hyperv {
namespace {

struct NamedResult {
    HRESULT hr;
    const wchar_t* name;
};

#define KX_WIDEN2(s) L##s
#define KX_WIDEN(s) KX_WIDEN2(s)
#define KX_VSS_NAME(code) {code, KX_WIDEN(#code)}
constexpr NamedResult kResultNames[] = {
    KX_VSS_NAME(VSS_E_BAD_STATE),
    KX_VSS_NAME(VSS_E_UNEXPECTED),
    KX_VSS_NAME(VSS_E_PROVIDER_ALREADY_REGISTERED),
    KX_VSS_NAME(VSS_E_PROVIDER_NOT_REGISTERED),
    KX_VSS_NAME(VSS_E_PROVIDER_VETO),
    KX_VSS_NAME(VSS_E_PROVIDER_IN_USE),
    KX_VSS_NAME(VSS_E_OBJECT_NOT_FOUND),
    KX_VSS_NAME(VSS_S_ASYNC_PENDING),
    KX_VSS_NAME(VSS_S_ASYNC_FINISHED),
    KX_VSS_NAME(VSS_S_ASYNC_CANCELLED),
    KX_VSS_NAME(VSS_E_VOLUME_NOT_SUPPORTED),
    KX_VSS_NAME(VSS_E_OBJECT_ALREADY_EXISTS),
    KX_VSS_NAME(VSS_E_VOLUME_NOT_SUPPORTED_BY_PROVIDER),
    KX_VSS_NAME(VSS_E_UNEXPECTED_PROVIDER_ERROR),
    KX_VSS_NAME(VSS_E_CORRUPT_XML_DOCUMENT),
    KX_VSS_NAME(VSS_E_INVALID_XML_DOCUMENT),
    KX_VSS_NAME(VSS_E_MAXIMUM_NUMBER_OF_VOLUMES_REACHED),
    KX_VSS_NAME(VSS_E_FLUSH_WRITES_TIMEOUT),
    KX_VSS_NAME(VSS_E_HOLD_WRITES_TIMEOUT),
    KX_VSS_NAME(VSS_E_UNEXPECTED_WRITER_ERROR),
    KX_VSS_NAME(VSS_E_SNAPSHOT_SET_IN_PROGRESS),
    KX_VSS_NAME(VSS_E_MAXIMUM_NUMBER_OF_SNAPSHOTS_REACHED),
    KX_VSS_NAME(VSS_E_WRITER_INFRASTRUCTURE),
    KX_VSS_NAME(VSS_E_WRITER_NOT_RESPONDING),
    KX_VSS_NAME(VSS_E_WRITER_ALREADY_SUBSCRIBED),
    KX_VSS_NAME(VSS_E_UNSUPPORTED_CONTEXT),
    KX_VSS_NAME(VSS_E_VOLUME_IN_USE),
    KX_VSS_NAME(VSS_E_MAXIMUM_DIFFAREA_ASSOCIATIONS_REACHED),
    KX_VSS_NAME(VSS_E_INSUFFICIENT_STORAGE),
    KX_VSS_NAME(VSS_E_REBOOT_REQUIRED),
    KX_VSS_NAME(VSS_E_TRANSACTION_FREEZE_TIMEOUT),
    KX_VSS_NAME(VSS_E_TRANSACTION_THAW_TIMEOUT),
    KX_VSS_NAME(VSS_E_VOLUME_NOT_LOCAL),
    KX_VSS_NAME(VSS_E_NESTED_VOLUME_LIMIT),
    KX_VSS_NAME(VSS_E_NOT_SUPPORTED),
    KX_VSS_NAME(VSS_E_WRITERERROR_INCONSISTENTSNAPSHOT),
    KX_VSS_NAME(VSS_E_WRITERERROR_OUTOFRESOURCES),
    KX_VSS_NAME(VSS_E_WRITERERROR_TIMEOUT),
    KX_VSS_NAME(VSS_E_WRITERERROR_RETRYABLE),
    KX_VSS_NAME(VSS_E_WRITERERROR_NONRETRYABLE),
    KX_VSS_NAME(E_ACCESSDENIED),
    KX_VSS_NAME(E_INVALIDARG),
    KX_VSS_NAME(E_OUTOFMEMORY),
    KX_VSS_NAME(E_UNEXPECTED),
    KX_VSS_NAME(E_POINTER),
    KX_VSS_NAME(E_NOTIMPL),
};
#undef KX_VSS_NAME
#undef KX_WIDEN
#undef KX_WIDEN2

// Logs a failing call with its code and the code's name; returns `hr`.
HRESULT Failed(const wchar_t* call, HRESULT hr) noexcept {
    const wchar_t* name = VssResultName(hr);
    Log(0, L"VSS: %s failed, hr = 0x%08X%s%s%s", call, static_cast<DWORD>(hr), name ? L" (" : L"", name ? name : L"",
        name ? L")" : L"");
    return hr;
}

// Starts an asynchronous step through `start` and waits for it.
template <class Start>
HRESULT RunStep(const wchar_t* step, Start&& start) noexcept {
    com_ptr<IVssAsync> async;
    const HRESULT hr = start(async.put());
    if (FAILED(hr)) return Failed(step, hr);
    if (!async) return Failed(step, E_POINTER);
    return WaitForVssAsync(async.get(), step);
}

class VssManager final : public IVssMgr {
public:
    DWORD Release() override {
        return RunExport<vss_rows::kRelease>(
            [&](auto&) -> DWORD {
                if (vss_) {
                    const HRESULT hr = GiveUp(!keep_);
                    if (keep_ || FAILED(hr))
                        Log(1, L"VSS: snapshot set %s stays on the system", hostutil::GuidToString(setId_).c_str());
                }
                delete this;
                return 0;
            },
            static_cast<int>(keep_));
    }

    DWORD CreateSnapshotSet(const std::vector<std::wstring>& volumes) override {
        return RunExport<vss_rows::kCreateSet>(
            [&](auto& frame) -> DWORD {
                if (vss_) return static_cast<DWORD>(Failed(L"CreateSnapshotSet (a set is present)", VSS_E_BAD_STATE));
                if (volumes.empty()) return frame.InvalidParameter();
                std::vector<std::wstring> names;
                for (const std::wstring& v : volumes) {
                    if (v.empty()) return frame.InvalidParameter();
                    std::wstring name;
                    if (const DWORD rc = platform::Vss().VolumeNameOf(v, name); rc != 0) {
                        Log(0, L"VSS: the volume of %s can't be found, rc = [%d]", v.c_str(), rc);
                        return static_cast<DWORD>(HRESULT_FROM_WIN32(rc));
                    }
                    bool seen = false;
                    for (const std::wstring& n : names) seen = seen || EqualsNoCase(n, name);
                    if (!seen) names.push_back(std::move(name));
                }
                return static_cast<DWORD>(Make(names));
            },
            static_cast<int>(volumes.size()));
    }

    DWORD GetSnapshotSetId(GUID* setId) override {
        if (!setId) return kE_POINTER;
        if (!vss_) return static_cast<DWORD>(VSS_E_BAD_STATE);
        *setId = setId_;
        return 0;
    }

    DWORD GetSnapshots(std::vector<VssSnapshotInfo>& snapshots) override {
        if (!vss_) return static_cast<DWORD>(VSS_E_BAD_STATE);
        snapshots = snapshots_;
        return 0;
    }

    DWORD GetShadowDevicePath(const std::wstring& volumeOrPath, std::wstring& device) override {
        device.clear();
        if (volumeOrPath.empty()) return kE_INVALIDARG;
        if (!vss_) return static_cast<DWORD>(VSS_E_BAD_STATE);
        std::wstring name;
        if (const DWORD rc = platform::Vss().VolumeNameOf(volumeOrPath, name); rc != 0)
            return static_cast<DWORD>(HRESULT_FROM_WIN32(rc));
        for (const VssSnapshotInfo& s : snapshots_) {
            if (EqualsNoCase(s.volume, name)) {
                device = s.shadowDevice;
                return 0;
            }
        }
        return static_cast<DWORD>(VSS_E_OBJECT_NOT_FOUND);
    }

    DWORD DeleteSnapshotSet() override {
        return RunExport<vss_rows::kDeleteSet>([&](auto&) -> DWORD {
            if (!vss_) return static_cast<DWORD>(Failed(L"DeleteSnapshotSet (no set)", VSS_E_BAD_STATE));
            return static_cast<DWORD>(GiveUp(true));
        });
    }

    DWORD KeepSnapshotSet(bool keep) override {
        keep_ = keep;
        return 0;
    }

private:
    ~VssManager() override = default;

    // One attempt at a set; what it made is released when it goes out of
    // scope, unless it is taken over by the manager.
    struct Attempt {
        com_ptr<IVssBackupComponents> vss;
        VSS_ID setId{};
        bool started = false;   // StartSnapshotSet succeeded
        bool snapshot = false;  // DoSnapshotSet was asked for
        std::vector<VssSnapshotInfo> snapshots;
    };

    HRESULT Make(const std::vector<std::wstring>& names) {
        Attempt a;
        const HRESULT hr = Build(names, a);
        if (FAILED(hr)) {
            Undo(a);
            return hr;
        }
        vss_ = std::move(a.vss);
        setId_ = a.setId;
        snapshots_ = std::move(a.snapshots);
        completed_ = false;
        Log(1, L"VSS: snapshot set %s made of %d volumes", hostutil::GuidToString(setId_).c_str(),
            static_cast<int>(snapshots_.size()));
        return S_OK;
    }

    static HRESULT Build(const std::vector<std::wstring>& names, Attempt& a) {
        HRESULT hr = platform::Vss().CreateBackupComponents(a.vss.put());
        if (FAILED(hr)) return Failed(L"CreateVssBackupComponents", hr);
        if (!a.vss) return Failed(L"CreateVssBackupComponents", E_POINTER);
        IVssBackupComponents* vss = a.vss.get();
        if (hr = vss->InitializeForBackup(nullptr); FAILED(hr)) return Failed(L"InitializeForBackup", hr);
        if (hr = vss->SetContext(kVssContext); FAILED(hr)) return Failed(L"SetContext", hr);
        if (hr = vss->SetBackupState(false, false, VSS_BT_COPY, false); FAILED(hr))
            return Failed(L"SetBackupState", hr);
        hr = RunStep(L"GatherWriterMetadata", [&](IVssAsync** p) { return vss->GatherWriterMetadata(p); });
        if (FAILED(hr)) return hr;
        if (hr = vss->StartSnapshotSet(&a.setId); FAILED(hr)) return Failed(L"StartSnapshotSet", hr);
        a.started = true;
        std::vector<VSS_ID> ids;
        for (const std::wstring& name : names) {
            std::wstring volume = name;  // the calls take a writable string
            BOOL supported = FALSE;
            if (hr = vss->IsVolumeSupported(GUID_NULL, volume.data(), &supported); FAILED(hr))
                return Failed(L"IsVolumeSupported", hr);
            if (!supported) {
                Log(0, L"VSS: volume %s can't have a shadow copy", name.c_str());
                return Failed(L"IsVolumeSupported", VSS_E_VOLUME_NOT_SUPPORTED);
            }
            VSS_ID id{};
            if (hr = vss->AddToSnapshotSet(volume.data(), GUID_NULL, &id); FAILED(hr))
                return Failed(L"AddToSnapshotSet", hr);
            ids.push_back(id);
        }
        hr = RunStep(L"PrepareForBackup", [&](IVssAsync** p) { return vss->PrepareForBackup(p); });
        if (FAILED(hr)) return hr;
        // From the moment DoSnapshotSet runs, part of the set may exist.
        hr = RunStep(L"DoSnapshotSet", [&](IVssAsync** p) {
            const HRESULT started = vss->DoSnapshotSet(p);
            a.snapshot = SUCCEEDED(started);
            return started;
        });
        if (FAILED(hr)) return hr;
        for (size_t i = 0; i < ids.size(); ++i) {
            platform::unique_snapshot_prop prop;
            if (hr = vss->GetSnapshotProperties(ids[i], prop.put()); FAILED(hr)) {
                prop.forget();
                return Failed(L"GetSnapshotProperties", hr);
            }
            const wchar_t* device = prop.get().m_pwszSnapshotDeviceObject;
            if (!device || !*device) return Failed(L"GetSnapshotProperties (no device)", VSS_E_UNEXPECTED);
            a.snapshots.push_back(VssSnapshotInfo{names[i], device, ids[i]});
            Log(2, L"VSS: %s is shadowed by %s", names[i].c_str(), device);
        }
        return S_OK;
    }

    // After a failure: the part of the set made is deleted and the backup
    // aborted; the objects go with the attempt.
    static void Undo(Attempt& a) noexcept {
        if (!a.started) return;
        if (a.snapshot) DeleteSet(a.vss.get(), a.setId, true);
        if (const HRESULT hr = a.vss->AbortBackup(); FAILED(hr)) Failed(L"AbortBackup", hr);
    }

    static HRESULT DeleteSet(IVssBackupComponents* vss, const VSS_ID& setId, bool quietIfMissing) noexcept {
        LONG deleted = 0;
        VSS_ID notDeleted{};
        const HRESULT hr = vss->DeleteSnapshots(setId, VSS_OBJECT_SNAPSHOT_SET, TRUE, &deleted, &notDeleted);
        if (FAILED(hr) && !(quietIfMissing && hr == VSS_E_OBJECT_NOT_FOUND)) return Failed(L"DeleteSnapshots", hr);
        if (SUCCEEDED(hr)) Log(2, L"VSS: %d snapshots of set %s deleted", static_cast<int>(deleted), hostutil::GuidToString(setId).c_str());
        return hr;
    }

    // BackupComplete (once; a failure is logged and does not stop the
    // rest), then with `remove` the delete. The manager is empty afterwards
    // unless the delete failed.
    HRESULT GiveUp(bool remove) {
        if (!completed_) {
            RunStep(L"BackupComplete", [&](IVssAsync** p) { return vss_->BackupComplete(p); });
            completed_ = true;
        }
        if (remove) {
            if (const HRESULT hr = DeleteSet(vss_.get(), setId_, false); FAILED(hr)) return hr;
        }
        vss_.reset();
        snapshots_.clear();
        setId_ = GUID_NULL;
        completed_ = false;
        return S_OK;
    }

    com_ptr<IVssBackupComponents> vss_;
    VSS_ID setId_{};
    std::vector<VssSnapshotInfo> snapshots_;
    bool completed_ = false;
    bool keep_ = false;
};

}  // namespace

const wchar_t* VssResultName(HRESULT hr) noexcept {
    for (const NamedResult& r : kResultNames)
        if (r.hr == hr) return r.name;
    if (hr == kVssStepTimedOut) return L"timed out";
    if (hr == kVssStepCancelled) return L"cancelled";
    return nullptr;
}

HRESULT WaitForVssAsync(IVssAsync* async, const wchar_t* step) noexcept {
    for (DWORD waited = 0;; waited += kVssPollMs) {
        HRESULT result = VSS_S_ASYNC_PENDING;
        if (const HRESULT hr = async->QueryStatus(&result, nullptr); FAILED(hr)) {
            Log(0, L"VSS: the state of %s can't be read", step);
            return Failed(L"IVssAsync::QueryStatus", hr);
        }
        if (result == VSS_S_ASYNC_FINISHED) return S_OK;
        if (result == VSS_S_ASYNC_CANCELLED) return Failed(step, kVssStepCancelled);
        if (FAILED(result)) return Failed(step, result);
        // VSS_S_ASYNC_PENDING, or a success code that does not say more.
        if (waited >= kVssStepLimitMs) {
            if (const HRESULT hr = async->Cancel(); FAILED(hr)) Failed(L"IVssAsync::Cancel", hr);
            Log(0, L"VSS: %s still runs after %d s", step, static_cast<int>(kVssStepLimitMs / 1000));
            return Failed(step, kVssStepTimedOut);
        }
        platform::Pauses().For(kVssPollMs);
    }
}

DWORD CreateVssManager(IVssMgr** mgr) {
    return RunExport<vss_rows::kCreateMgr>([&](auto& frame) -> DWORD {
        if (!mgr) return frame.InvalidParameter();
        *mgr = nullptr;
        VssManager* made = new (std::nothrow) VssManager();
        if (!made) return kE_OUTOFMEMORY;
        *mgr = made;
        return 0;
    });
}

}  // namespace kx::hyperv
