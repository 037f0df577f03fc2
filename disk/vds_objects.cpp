#include "disk/vds_objects.h"

#include <objbase.h>

#include <cwchar>

#include "log/debug_log.h"
#include "platform/process_runner.h"
#include "platform/vds/vds_system.h"

namespace Kestrix {

CAutoCoInitialize::CAutoCoInitialize() : hr_(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED)) {
    constexpr const wchar_t* kWhere = L"Kestrix::CAutoCoInitialize::_InitCOM";
    if (hr_ == RPC_E_CHANGED_MODE) {
        kx::Log(4, L"%s::COM concurrency model has been changed.", kWhere);
        kx::Log(2, L"%s::Failed to initialize COM using CoInitializeEx. (EC=[%#08x])", kWhere,
                static_cast<unsigned>(hr_));
        return;
    }
    uninitialise_ = SUCCEEDED(hr_);
}

CAutoCoInitialize::~CAutoCoInitialize() {
    if (uninitialise_) ::CoUninitialize();
}

}  // namespace Kestrix

namespace kx::disk {

namespace {

using namespace kx::vds;

// Frees a string the service allocated, after copying it.
std::wstring TakeString(LPWSTR s) {
    std::wstring copy = s ? s : L"";
    if (s) ::CoTaskMemFree(s);
    return copy;
}

constexpr auto kReadyPoll = 500;     // ms between readiness questions
constexpr int kReadyPolls = 120;     // 60 s in all

// Asks `query` for an enumerator and appends each of its objects that has
// the interface `I`, wrapped as W (with `extra` after the pointer).
template <class I, class W, class Query, class... Extra>
HRESULT Collect(Query&& query, std::vector<W>* out, Extra... extra) {
    com_ptr<IEnumVdsObject> e;
    HRESULT hr = query(e.put());
    if (FAILED(hr)) return hr;
    std::vector<com_ptr<I>> found;
    hr = EnumerateVdsObjects(e.get(), &found);
    for (auto& object : found) out->emplace_back(std::move(object), extra...);
    return hr;
}

}  // namespace

std::wstring ErrorText(DWORD code) {
    wchar_t* text = nullptr;
    const DWORD n = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                         FORMAT_MESSAGE_IGNORE_INSERTS,
                                     nullptr, code, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    unique_hlocal owner(text);
    std::wstring s = n && text ? std::wstring(text, n) : std::wstring(L"unknown error");
    while (!s.empty() && (s.back() == L'\n' || s.back() == L'\r' || s.back() == L' ')) s.pop_back();
    return s;
}

std::wstring GuidText(const GUID& guid) {
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    return text;
}

DWORD DiskProperties::Number() const {
    const size_t at = name.find_last_not_of(L"0123456789");
    if (at == std::wstring::npos || at + 1 >= name.size()) return 0xFFFFFFFF;
    return static_cast<DWORD>(std::wcstoul(name.c_str() + at + 1, nullptr, 10));
}

std::wstring DiskProperties::Identity() const {
    if (style == VDS_PST_MBR) {
        wchar_t text[16];
        std::swprintf(text, 16, L"%010u", static_cast<unsigned>(signature));
        return text;
    }
    return style == VDS_PST_GPT ? GuidText(diskGuid) : std::wstring();
}

// ---- disks ----------------------------------------------------------------------------------

std::optional<DiskProperties> CVdsDisk::GetProperties() const {
    VDS_DISK_PROP raw{};
    if (FAILED(disk_->GetProperties(&raw))) return std::nullopt;
    DiskProperties p;
    p.id = raw.id;
    p.status = raw.status;
    p.deviceType = raw.dwDeviceType;
    p.mediaType = raw.dwMediaType;
    p.size = raw.ullSize;
    p.flags = raw.ulFlags;
    p.style = raw.PartitionStyle;
    p.diskGuid = raw.DiskGuid;
    p.signature = raw.PartitionStyle == VDS_PST_MBR ? raw.dwSignature : 0;
    if (raw.PartitionStyle == VDS_PST_MBR) {
        // Only the signature is the identity; the rest of the union is not defined for MBR.
        p.diskGuid = GUID{};
        p.diskGuid.Data1 = raw.dwSignature;
    }
    TakeString(raw.pwszDiskAddress);
    p.name = TakeString(raw.pwszName);
    p.friendlyName = TakeString(raw.pwszFriendlyName);
    TakeString(raw.pwszAdaptorName);
    p.devicePath = TakeString(raw.pwszDevicePath);
    return p;
}

HRESULT CVdsDisk::GetDiskExtents(std::vector<VDS_DISK_EXTENT>* extents) const {
    VDS_DISK_EXTENT* array = nullptr;
    LONG count = 0;
    const HRESULT hr = disk_->QueryExtents(&array, &count);
    if (SUCCEEDED(hr) && array) extents->assign(array, array + count);
    if (array) ::CoTaskMemFree(array);
    return hr;
}

DWORD CVdsDisk::Initialize(const wchar_t* caller) const {
    const std::optional<DiskProperties> p = GetProperties();
    if (!p) return kFailNoCode;
    // A signature no other disk is likely to carry: from a fresh GUID, never 0.
    GUID fresh{};
    ::CoCreateGuid(&fresh);
    const DWORD signature = fresh.Data1 ? fresh.Data1 : 0x4B585631;
    VdsSystem::LayoutStep step = VdsSystem::LayoutStep::kOpen;
    const DWORD rc = System().WriteEmptyMbr(p->name, signature, &step);
    if (rc != ERROR_SUCCESS) {
        if (step == VdsSystem::LayoutStep::kOpen)
            LogErr(0, rc, L"%s : Failed to open disk [%s]", caller, p->name.c_str());
        else
            LogErr(0, rc, L"%s : Failed to set disk layout!", caller);
    }
    return rc;
}

com_ptr<IVdsPack> CVdsDisk::Pack() const {
    com_ptr<IVdsPack> pack;
    disk_->GetPack(pack.put());
    return pack;
}

bool CVdsDisk::IsForeignDisk() const {
    com_ptr<IVdsPack> pack = Pack();
    VDS_PACK_PROP p{};
    if (!pack || FAILED(pack->GetProperties(&p))) return false;
    TakeString(p.pwszName);
    return (p.ulFlags & VDS_PKF_FOREIGN) != 0;
}

HRESULT CVdsDisk::ImportDisk() const {
    com_ptr<IVdsPack> foreign = Pack();
    if (!foreign) return E_FAIL;
    com_ptr<IVdsProvider> provider;
    HRESULT hr = foreign->GetProvider(provider.put());
    if (FAILED(hr)) return hr;
    com_ptr<IVdsSwProvider> sw = QueryAs<IVdsSwProvider>(provider.get());
    if (!sw) return E_NOINTERFACE;
    // The host's own pack of the provider: the first one that is not foreign.
    std::vector<com_ptr<IVdsPack>> packs;
    Collect<IVdsPack>([&](IEnumVdsObject** e) { return sw->QueryPacks(e); }, &packs);
    com_ptr<IVdsPack> target;
    for (auto& candidate : packs) {
        VDS_PACK_PROP p{};
        if (FAILED(candidate->GetProperties(&p))) continue;
        TakeString(p.pwszName);
        if (!(p.ulFlags & VDS_PKF_FOREIGN) && p.status == VDS_PS_ONLINE) {
            target = std::move(candidate);
            break;
        }
    }
    if (!target) {
        hr = sw->CreatePack(target.put());
        if (FAILED(hr)) return hr;
    }
    VDS_PACK_PROP targetProps{};
    hr = target->GetProperties(&targetProps);
    if (FAILED(hr)) return hr;
    TakeString(targetProps.pwszName);
    const std::optional<DiskProperties> p = GetProperties();
    if (!p) return E_FAIL;
    VDS_OBJECT_ID id = p->id;
    HRESULT result = S_OK;
    BOOL reboot = FALSE;
    hr = foreign->MigrateDisks(&id, 1, targetProps.id, TRUE, FALSE, &result, &reboot);
    return FAILED(hr) ? hr : result;
}

HRESULT CVdsDisk::MakeDiskWritable() const { return disk_->ClearFlags(VDS_DF_READ_ONLY); }

HRESULT CVdsDisk::Offline() const {
    com_ptr<IVdsDiskOnline> online = QueryAs<IVdsDiskOnline>(disk_.get());
    if (!online) return E_NOINTERFACE;
    return online->Offline();
}

// ---- volumes, packs, providers ---------------------------------------------------------------

std::optional<VolumeProperties> CVdsVolume::GetProperties() const {
    VDS_VOLUME_PROP raw{};
    if (FAILED(volume_->GetProperties(&raw))) return std::nullopt;
    TakeString(raw.pwszName);
    VolumeProperties p;
    p.id = raw.id;
    p.type = raw.type;
    p.status = raw.status;
    p.flags = raw.ulFlags;
    p.dynamic = onDynamicPack_ || (raw.type >= VDS_VT_SPAN && raw.type <= VDS_VT_PARITY);
    // The drive letter is the access path of the form "X:\".
    if (com_ptr<IVdsVolumeMF> mf = QueryAs<IVdsVolumeMF>(volume_.get())) {
        LPWSTR* paths = nullptr;
        LONG count = 0;
        if (SUCCEEDED(mf->QueryAccessPaths(&paths, &count)) && paths) {
            for (LONG i = 0; i < count; ++i) {
                const std::wstring path = TakeString(paths[i]);
                if (p.letter.empty() && path.size() <= 3 && path.size() >= 2 && path[1] == L':')
                    p.letter = path.substr(0, 2);
            }
            ::CoTaskMemFree(paths);
        }
    }
    return p;
}

HRESULT CVdsPack::GetVolumes(std::vector<CVdsVolume>* volumes) const {
    return Collect<IVdsVolume>([&](IEnumVdsObject** e) { return pack_->QueryVolumes(e); }, volumes, IsDynamic());
}

HRESULT CVdsPack::GetDisks(std::vector<CVdsDisk>* disks) const {
    return Collect<IVdsDisk>([&](IEnumVdsObject** e) { return pack_->QueryDisks(e); }, disks);
}

bool CVdsPack::IsDynamic() const {
    com_ptr<IVdsProvider> provider;
    VDS_PROVIDER_PROP p{};
    if (FAILED(pack_->GetProvider(provider.put())) || !provider || FAILED(provider->GetProperties(&p))) return false;
    TakeString(p.pwszName);
    TakeString(p.pwszVersion);
    return (p.ulFlags & VDS_PF_DYNAMIC) != 0;
}

HRESULT CSWProvider::GetPacks(std::vector<CVdsPack>* packs) const {
    return Collect<IVdsPack>([&](IEnumVdsObject** e) { return provider_->QueryPacks(e); }, packs);
}

// ---- the service -----------------------------------------------------------------------------

HRESULT CVdsService::Initialize2() {
    constexpr const wchar_t* kWhere = L"CVdsService::Initialize2";
    service_.reset();
    HRESULT hr = System().LoadService(service_.put());
    if (FAILED(hr)) {
        service_.reset();
        return hr;
    }
    for (int poll = 0;; ++poll) {
        hr = service_->IsServiceReady();
        if (hr == S_OK) return S_OK;
        if (FAILED(hr) || poll + 1 >= kReadyPolls) {
            if (!FAILED(hr)) hr = HRESULT_FROM_WIN32(ERROR_TIMEOUT);
            Log(0, L"%s : Service is not ready. Err[0x%08X], Msg[%s]", kWhere, static_cast<unsigned>(hr),
                ErrorText(hr).c_str());
            service_.reset();
            return hr;
        }
        platform::Pauses().For(kReadyPoll);
    }
}

HRESULT CVdsService::Initialize() {
    constexpr const wchar_t* kWhere = L"CVdsService::Initialize";
    HRESULT hr = Initialize2();
    if (FAILED(hr)) {
        Log(0, L"%s : Initialize Vds service failed.", kWhere);
        return hr;
    }
    Log(2, L"%s : Initialize all of the unallocated disks", kWhere);
    std::vector<CVdsDisk> unallocated;
    GetUnallocatedDisks(&unallocated);
    Log(2, L"%s : Found %d uncallocated disks", kWhere, static_cast<int>(unallocated.size()));
    for (const CVdsDisk& disk : unallocated) disk.Initialize(kWhere);
    if (!unallocated.empty()) Reenumerate();

    Log(2, L"%s: Import all of the foreign disks.", kWhere);
    std::vector<CVdsDisk> all;
    GetAllDisks(&all);
    Log(2, L"%s : Found total %d disks", kWhere, static_cast<int>(all.size()));
    int imported = 0;
    for (const CVdsDisk& disk : all) {
        if (!disk.IsForeignDisk()) continue;
        if (SUCCEEDED(disk.ImportDisk())) ++imported;
    }
    if (imported) Reenumerate();
    return S_OK;
}

HRESULT CVdsService::GetUnallocatedDisks(std::vector<CVdsDisk>* disks) const {
    if (!service_) return E_POINTER;
    return Collect<IVdsDisk>([&](IEnumVdsObject** e) { return service_->QueryUnallocatedDisks(e); }, disks);
}

HRESULT CVdsService::Reenumerate() const { return service_ ? service_->Reenumerate() : E_POINTER; }

HRESULT CVdsService::GetSwProviders(std::vector<CSWProvider>* providers) const {
    if (!service_) return E_POINTER;
    return Collect<IVdsSwProvider>(
        [&](IEnumVdsObject** e) { return service_->QueryProviders(VDS_QUERY_SOFTWARE_PROVIDERS, e); }, providers);
}

HRESULT CVdsService::GetAllPacks(std::vector<CVdsPack>* packs) const {
    std::vector<CSWProvider> providers;
    HRESULT hr = GetSwProviders(&providers);
    if (FAILED(hr)) return hr;
    for (const CSWProvider& provider : providers)
        if (FAILED(hr = provider.GetPacks(packs))) return hr;
    return S_OK;
}

HRESULT CVdsService::GetAllDisks(std::vector<CVdsDisk>* disks) const {
    std::vector<CVdsPack> packs;
    HRESULT hr = GetAllPacks(&packs);
    if (FAILED(hr)) return hr;
    for (const CVdsPack& pack : packs)
        if (FAILED(hr = pack.GetDisks(disks))) return hr;
    return S_OK;
}

HRESULT CVdsService::DisableAutoMountVolumes() const {
    constexpr const wchar_t* kWhere = L"CVdsService::DisableAutoMountVolumes";
    if (!service_) return E_POINTER;
    com_ptr<IVdsServiceSAN> san = QueryAs<IVdsServiceSAN>(service_.get());
    if (!san) {
        Log(0, L"%s : Failed to get IVdsServiceSAN. Err[0x%08X], Msg[%s]", kWhere,
            static_cast<unsigned>(E_NOINTERFACE), ErrorText(E_NOINTERFACE).c_str());
        return E_NOINTERFACE;
    }
    HRESULT hr = san->SetSANPolicy(VDS_SP_OFFLINE_SHARED);
    if (FAILED(hr)) {
        Log(0, L"%s : Failed to SetSANPolicy. Err[0x%08X], Msg[%s]", kWhere, static_cast<unsigned>(hr),
            ErrorText(hr).c_str());
        return hr;
    }
    hr = service_->SetFlags(VDS_SVF_AUTO_MOUNT_OFF);
    if (FAILED(hr)) {
        Log(0, L"%s : Failed to setFlags. Err[0x%08X], Msg[%s]", kWhere, static_cast<unsigned>(hr),
            ErrorText(hr).c_str());
        return hr;
    }
    return S_OK;
}

void CVdsService::Uninitialize() { service_.reset(); }

}  // namespace kx::disk
