#include "fake_vss.h"

#include <vsserror.h>

#include <atomic>
#include <string>

namespace fakevss {
namespace {

std::atomic<long> g_live{0};

const VSS_ID kSetId = {0x5e75e700, 0x1234, 0x4abc, {0x80, 1, 2, 3, 4, 5, 6, 7}};

bool SameText(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

template <class I>
class Counted : public I {
public:
    Counted() { ++g_live; }
    virtual ~Counted() { --g_live; }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        if (!out) return E_POINTER;
        *out = nullptr;
        if (iid == __uuidof(IUnknown) || iid == __uuidof(I)) {
            *out = static_cast<I*>(this);
            AddRef();
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG left = --refs_;
        if (left == 0) delete this;
        return left;
    }

private:
    std::atomic<ULONG> refs_{1};
};

class Async final : public Counted<IVssAsync> {
public:
    Async(FakeVss& owner, std::wstring step, AsyncScript script)
        : owner_(owner), step_(std::move(step)), script_(script) {}

    HRESULT STDMETHODCALLTYPE Cancel() override {
        owner_.calls.push_back(L"Cancel:" + step_);
        cancelled_ = true;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Wait(DWORD) override {
        owner_.violations.push_back(L"IVssAsync::Wait blocks; the manager polls");
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE QueryStatus(HRESULT* result, INT*) override {
        if (auto f = owner_.script.fail.find(L"QueryStatus:" + step_); f != owner_.script.fail.end()) return f->second;
        if (!result) return E_POINTER;
        if (cancelled_) {
            *result = VSS_S_ASYNC_CANCELLED;
        } else if (script_.end == End::Never || polled_ < script_.pending) {
            ++polled_;
            *result = VSS_S_ASYNC_PENDING;
        } else {
            *result = script_.end == End::Finished    ? VSS_S_ASYNC_FINISHED
                      : script_.end == End::Cancelled ? VSS_S_ASYNC_CANCELLED
                                                      : script_.failure;
        }
        return S_OK;
    }

private:
    FakeVss& owner_;
    std::wstring step_;
    AsyncScript script_;
    int polled_ = 0;
    bool cancelled_ = false;
};

}  // namespace

long LiveObjects() { return g_live.load(); }

// The protocol as a line of stages; each call names the stage it needs.
class Components final : public Counted<IVssBackupComponents> {
    enum Stage { New, Initialized, Context, State, Metadata, Started, Prepared, Snapshot, Completed, Aborted };

public:
    explicit Components(FakeVss& owner) : o_(owner) {}

    HRESULT STDMETHODCALLTYPE InitializeForBackup(BSTR xml) override {
        if (xml) o_.violations.push_back(L"InitializeForBackup with a document");
        return Step(L"InitializeForBackup", stage_ == New, Initialized);
    }
    HRESULT STDMETHODCALLTYPE SetContext(LONG context) override {
        if (context != VSS_CTX_APP_ROLLBACK) o_.violations.push_back(L"SetContext: not the rollback context");
        return Step(L"SetContext", stage_ == Initialized, Context);
    }
    HRESULT STDMETHODCALLTYPE SetBackupState(boolean select, boolean bootable, VSS_BACKUP_TYPE type,
                                             boolean) override {
        if (select || bootable || type != VSS_BT_COPY) o_.violations.push_back(L"SetBackupState: not a plain copy");
        return Step(L"SetBackupState", stage_ == Context, State);
    }
    HRESULT STDMETHODCALLTYPE GatherWriterMetadata(IVssAsync** async) override {
        return AsyncStep(L"GatherWriterMetadata", stage_ == State, Metadata, async);
    }
    HRESULT STDMETHODCALLTYPE StartSnapshotSet(VSS_ID* setId) override {
        const HRESULT hr = Step(L"StartSnapshotSet", stage_ == Metadata, Started);
        if (SUCCEEDED(hr)) *setId = kSetId;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE IsVolumeSupported(VSS_ID provider, VSS_PWSZ volume, BOOL* supported) override {
        if (provider != GUID_NULL) o_.violations.push_back(L"IsVolumeSupported: a provider named");
        const HRESULT hr = Step(L"IsVolumeSupported", stage_ == Started, Started);
        checked_ = volume;
        if (SUCCEEDED(hr)) *supported = o_.script.unsupported.count(volume) ? FALSE : TRUE;
        return hr;
    }
    HRESULT STDMETHODCALLTYPE AddToSnapshotSet(VSS_PWSZ volume, VSS_ID provider, VSS_ID* id) override {
        if (provider != GUID_NULL) o_.violations.push_back(L"AddToSnapshotSet: a provider named");
        const HRESULT hr = Step(L"AddToSnapshotSet", stage_ == Started && checked_ == volume, Started);
        if (SUCCEEDED(hr)) {
            o_.added.push_back(volume);
            *id = kSetId;
            id->Data1 = static_cast<unsigned long>(o_.added.size());
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE PrepareForBackup(IVssAsync** async) override {
        return AsyncStep(L"PrepareForBackup", stage_ == Started && !o_.added.empty(), Prepared, async);
    }
    HRESULT STDMETHODCALLTYPE DoSnapshotSet(IVssAsync** async) override {
        return AsyncStep(L"DoSnapshotSet", stage_ == Prepared, Snapshot, async);
    }
    HRESULT STDMETHODCALLTYPE GetSnapshotProperties(VSS_ID id, VSS_SNAPSHOT_PROP* prop) override {
        const size_t index = id.Data1 - 1;
        const bool known = index < o_.added.size();
        const HRESULT hr = Step(L"GetSnapshotProperties", stage_ == Snapshot && known, Snapshot);
        if (FAILED(hr)) return hr;
        *prop = {};
        prop->m_SnapshotId = id;
        prop->m_SnapshotSetId = kSetId;
        prop->m_lSnapshotsCount = static_cast<LONG>(o_.added.size());
        if (!o_.script.noDevice)
            prop->m_pwszSnapshotDeviceObject =
                Dup(L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy" + std::to_wstring(40 + index));
        prop->m_pwszOriginalVolumeName = Dup(o_.added[index]);
        prop->m_pwszOriginatingMachine = Dup(L"HOST");
        ++o_.propsLive;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE BackupComplete(IVssAsync** async) override {
        return AsyncStep(L"BackupComplete", stage_ == Snapshot, Completed, async);
    }
    HRESULT STDMETHODCALLTYPE DeleteSnapshots(VSS_ID source, VSS_OBJECT_TYPE type, BOOL force, LONG* deleted,
                                              VSS_ID* notDeleted) override {
        if (source != kSetId || type != VSS_OBJECT_SNAPSHOT_SET || !force)
            o_.violations.push_back(L"DeleteSnapshots: not this set");
        const HRESULT hr = Step(L"DeleteSnapshots", stage_ == Snapshot || stage_ == Completed, stage_);
        if (SUCCEEDED(hr)) {
            *deleted = static_cast<LONG>(o_.added.size());
            *notDeleted = GUID_NULL;
        }
        return hr;
    }
    HRESULT STDMETHODCALLTYPE AbortBackup() override {
        return Step(L"AbortBackup", stage_ >= Started && stage_ < Completed, Aborted);
    }

    // Not part of making a set.
#define KX_NOT_USED(name, params) \
    HRESULT STDMETHODCALLTYPE name params override { return No(L"" #name); }
    KX_NOT_USED(GetWriterComponentsCount, (UINT*))
    KX_NOT_USED(GetWriterComponents, (UINT, IVssWriterComponentsExt**))
    KX_NOT_USED(InitializeForRestore, (BSTR))
    KX_NOT_USED(SetRestoreState, (VSS_RESTORE_TYPE))
    KX_NOT_USED(GetWriterMetadataCount, (UINT*))
    KX_NOT_USED(GetWriterMetadata, (UINT, VSS_ID*, IVssExamineWriterMetadata**))
    KX_NOT_USED(FreeWriterMetadata, ())
    KX_NOT_USED(AddComponent, (VSS_ID, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR))
    KX_NOT_USED(GatherWriterStatus, (IVssAsync**))
    KX_NOT_USED(GetWriterStatusCount, (UINT*))
    KX_NOT_USED(FreeWriterStatus, ())
    KX_NOT_USED(GetWriterStatus, (UINT, VSS_ID*, VSS_ID*, BSTR*, VSS_WRITER_STATE*, HRESULT*))
    KX_NOT_USED(SetBackupSucceeded, (VSS_ID, VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean))
    KX_NOT_USED(SetBackupOptions, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR))
    KX_NOT_USED(SetSelectedForRestore, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean))
    KX_NOT_USED(SetRestoreOptions, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR))
    KX_NOT_USED(SetAdditionalRestores, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, boolean))
    KX_NOT_USED(SetPreviousBackupStamp, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR))
    KX_NOT_USED(SaveAsXML, (BSTR*))
    KX_NOT_USED(AddAlternativeLocationMapping,
                (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean, LPCWSTR))
    KX_NOT_USED(AddRestoreSubcomponent, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean))
    KX_NOT_USED(SetFileRestoreStatus, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, VSS_FILE_RESTORE_STATUS))
    KX_NOT_USED(AddNewTarget, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, LPCWSTR, LPCWSTR, boolean, LPCWSTR))
    KX_NOT_USED(SetRangesFilePath, (VSS_ID, VSS_COMPONENT_TYPE, LPCWSTR, LPCWSTR, UINT, LPCWSTR))
    KX_NOT_USED(PreRestore, (IVssAsync**))
    KX_NOT_USED(PostRestore, (IVssAsync**))
    KX_NOT_USED(ImportSnapshots, (IVssAsync**))
    KX_NOT_USED(BreakSnapshotSet, (VSS_ID))
    KX_NOT_USED(Query, (VSS_ID, VSS_OBJECT_TYPE, VSS_OBJECT_TYPE, IVssEnumObject**))
    KX_NOT_USED(DisableWriterClasses, (const VSS_ID*, UINT))
    KX_NOT_USED(EnableWriterClasses, (const VSS_ID*, UINT))
    KX_NOT_USED(DisableWriterInstances, (const VSS_ID*, UINT))
    KX_NOT_USED(ExposeSnapshot, (VSS_ID, VSS_PWSZ, LONG, VSS_PWSZ, VSS_PWSZ*))
    KX_NOT_USED(RevertToSnapshot, (VSS_ID, BOOL))
    KX_NOT_USED(QueryRevertStatus, (VSS_PWSZ, IVssAsync**))
#undef KX_NOT_USED

private:
    // Records the call; out of turn is a violation. An injected failure
    // leaves the stage as it was.
    HRESULT Step(const wchar_t* name, bool inTurn, Stage next) {
        o_.calls.push_back(name);
        if (!inTurn) {
            o_.violations.push_back(std::wstring(name) + L" out of turn");
            return VSS_E_BAD_STATE;
        }
        if (auto f = o_.script.fail.find(name); f != o_.script.fail.end()) return f->second;
        stage_ = next;
        return S_OK;
    }
    HRESULT AsyncStep(const wchar_t* name, bool inTurn, Stage next, IVssAsync** async) {
        const HRESULT hr = Step(name, inTurn, next);
        if (FAILED(hr)) return hr;
        const auto s = o_.script.async.find(name);
        *async = new Async(o_, name, s == o_.script.async.end() ? AsyncScript{} : s->second);
        return S_OK;
    }
    HRESULT No(const wchar_t* name) {
        o_.calls.push_back(name);
        o_.violations.push_back(std::wstring(name) + L" is not part of making a set");
        return E_NOTIMPL;
    }
    VSS_PWSZ Dup(const std::wstring& s) {
        auto* p = static_cast<wchar_t*>(::CoTaskMemAlloc((s.size() + 1) * sizeof(wchar_t)));
        wcscpy(p, s.c_str());
        o_.strings_.insert(p);
        return p;
    }

    FakeVss& o_;
    Stage stage_ = New;
    std::wstring checked_;
};

HRESULT FakeVss::CreateBackupComponents(IVssBackupComponents** components) {
    calls.push_back(L"CreateVssBackupComponents");
    *components = nullptr;
    if (auto f = script.fail.find(L"CreateVssBackupComponents"); f != script.fail.end()) return f->second;
    added.clear();
    *components = new Components(*this);
    return S_OK;
}

void FakeVss::FreeSnapshotProperties(VSS_SNAPSHOT_PROP* prop) {
    --propsLive;
    for (VSS_PWSZ* s : {&prop->m_pwszSnapshotDeviceObject, &prop->m_pwszOriginalVolumeName,
                        &prop->m_pwszOriginatingMachine, &prop->m_pwszServiceMachine, &prop->m_pwszExposedName,
                        &prop->m_pwszExposedPath}) {
        if (!*s) continue;
        if (strings_.erase(*s) == 0)
            violations.push_back(L"FreeSnapshotProperties: a string not handed out, or freed twice");
        else
            ::CoTaskMemFree(*s);
        *s = nullptr;
    }
}

DWORD FakeVss::VolumeNameOf(const std::wstring& path, std::wstring& volumeName) {
    for (const auto& [p, v] : volumes_) {
        if (SameText(p, path)) {
            volumeName = v;
            return 0;
        }
    }
    return ERROR_FILE_NOT_FOUND;
}

}  // namespace fakevss
