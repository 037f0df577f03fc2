#include "fake_vds.h"

#include <objbase.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

namespace kxtest {

using namespace kx::vds;

namespace {

long g_outstanding = 0;

LPWSTR Dup(const std::wstring& s) {
    auto* p = static_cast<LPWSTR>(::CoTaskMemAlloc((s.size() + 1) * sizeof(wchar_t)));
    std::memcpy(p, s.c_str(), (s.size() + 1) * sizeof(wchar_t));
    return p;
}

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

GUID ParseGuid(const std::string& text) {
    GUID g{};
    if (FAILED(::CLSIDFromString(Wide(text).c_str(), &g))) throw std::runtime_error("bad GUID " + text);
    return g;
}

GUID NumberedGuid(DWORD tag, DWORD n) {
    GUID g{};
    g.Data1 = tag;
    g.Data2 = static_cast<WORD>(n);
    return g;
}

// The reference count every fake shares; objects live as long as the
// FakeVds (enumerators until their last Release).
struct Counted {
    long refs = 0;
    ULONG Add() {
        ++g_outstanding;
        return static_cast<ULONG>(++refs);
    }
    ULONG Drop() {
        --g_outstanding;
        return static_cast<ULONG>(--refs);
    }
};

#define KX_FAKE_IUNKNOWN                                                              \
    ULONG STDMETHODCALLTYPE AddRef() override { return count.Add(); }                 \
    ULONG STDMETHODCALLTYPE Release() override { return count.Drop(); }               \
    Counted count;

template <class I>
HRESULT Hand(I* object, void** out) {
    object->AddRef();
    *out = object;
    return S_OK;
}

// Hands out the object as the interface asked for when it offers it (the
// first one for IUnknown).
HRESULT Offer(REFIID iid, void** out, std::initializer_list<std::pair<const IID*, IUnknown*>> offered) {
    for (const auto& [id, object] : offered)
        if (IsEqualIID(iid, *id) || IsEqualIID(iid, IID_IUnknown)) return Hand(object, out);
    *out = nullptr;
    return E_NOINTERFACE;
}

class FakeEnum final : public IEnumVdsObject {
public:
    explicit FakeEnum(std::vector<IUnknown*> items) : items_(std::move(items)) {
        for (IUnknown* i : items_) i->AddRef();
    }
    ~FakeEnum() {
        for (IUnknown* i : items_) i->Release();
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        return Offer(iid, out, {{&kIidEnumObject, this}});
    }
    ULONG STDMETHODCALLTYPE AddRef() override {
        ++g_outstanding;
        return static_cast<ULONG>(++refs_);
    }
    ULONG STDMETHODCALLTYPE Release() override {
        --g_outstanding;
        const long left = --refs_;
        if (left == 0) delete this;
        return static_cast<ULONG>(left);
    }
    HRESULT STDMETHODCALLTYPE Next(ULONG count, IUnknown** objects, ULONG* fetched) override {
        *fetched = 0;
        if (count != 1) return E_INVALIDARG;
        if (at_ >= items_.size()) return S_FALSE;
        objects[0] = items_[at_++];
        objects[0]->AddRef();
        *fetched = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reset() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumVdsObject**) override { return E_NOTIMPL; }

    static HRESULT Make(std::vector<IUnknown*> items, IEnumVdsObject** out) {
        auto* e = new FakeEnum(std::move(items));
        return Hand(e, reinterpret_cast<void**>(out));
    }

private:
    std::vector<IUnknown*> items_;
    size_t at_ = 0;
    long refs_ = 0;
};

}  // namespace

long OutstandingReferences() { return g_outstanding; }

// ---- objects -----------------------------------------------------------------------------------

struct FakeProvider final : public IVdsProvider, public IVdsSwProvider {
    FakeProvider(FakeVds* w, std::string n, bool dyn, DWORD index) : world(w), name(std::move(n)), dynamic(dyn) {
        id = NumberedGuid(0xB0000000, index);
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        return Offer(iid, out, {{&kIidProvider, static_cast<IVdsProvider*>(this)},
                               {&kIidSwProvider, static_cast<IVdsSwProvider*>(this)}});
    }
    KX_FAKE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE GetProperties(VDS_PROVIDER_PROP* p) override {
        *p = {};
        p->id = id;
        p->pwszName = Dup(Wide(name));
        p->type = VDS_PT_SOFTWARE;
        p->ulFlags = dynamic ? static_cast<ULONG>(VDS_PF_DYNAMIC) : 0u;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueryPacks(IEnumVdsObject** packs) override;
    HRESULT STDMETHODCALLTYPE CreatePack(IVdsPack** pack) override;

    FakeVds* world;
    std::string name;
    bool dynamic;
    GUID id;
};

struct FakePack final : public IVdsPack {
    FakePack(FakeVds* w, std::string n, FakeProvider* p, bool f, DWORD index)
        : world(w), name(std::move(n)), provider(p), foreign(f) {
        id = NumberedGuid(0xC0000000, index);
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        return Offer(iid, out, {{&kIidPack, this}});
    }
    KX_FAKE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE GetProperties(VDS_PACK_PROP* p) override {
        *p = {};
        p->id = id;
        p->pwszName = Dup(Wide(name));
        p->status = VDS_PS_ONLINE;
        p->ulFlags = foreign ? VDS_PKF_FOREIGN : 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetProvider(IVdsProvider** out) override {
        return Hand(static_cast<IVdsProvider*>(provider), reinterpret_cast<void**>(out));
    }
    HRESULT STDMETHODCALLTYPE QueryVolumes(IEnumVdsObject** volumes) override;
    HRESULT STDMETHODCALLTYPE QueryDisks(IEnumVdsObject** disks) override;
    HRESULT STDMETHODCALLTYPE CreateVolume(VDS_VOLUME_TYPE, void*, LONG, ULONG, IVdsAsync**) override {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE AddDisk(VDS_OBJECT_ID, VDS_PARTITION_STYLE, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MigrateDisks(VDS_OBJECT_ID* disks, LONG count, VDS_OBJECT_ID target, BOOL, BOOL queryOnly,
                                           HRESULT* results, BOOL* reboot) override;
    HRESULT STDMETHODCALLTYPE ReplaceDisk(VDS_OBJECT_ID, VDS_OBJECT_ID, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RemoveMissingDisk(VDS_OBJECT_ID) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Recover(IVdsAsync**) override { return E_NOTIMPL; }

    FakeVds* world;
    std::string name;
    FakeProvider* provider;
    bool foreign;
    GUID id;
};

struct FakeExtent {
    ULONGLONG offset = 0;
    GUID volume{};
};

struct FakeDisk final : public IVdsDisk, public IVdsDiskOnline {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        return Offer(iid, out, {{&kIidDisk, static_cast<IVdsDisk*>(this)},
                               {&kIidDiskOnline, static_cast<IVdsDiskOnline*>(this)}});
    }
    KX_FAKE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE GetProperties(VDS_DISK_PROP* p) override {
        if (propsFail) return E_FAIL;
        *p = {};
        p->id = id;
        p->status = status;
        p->dwDeviceType = deviceType;
        p->dwMediaType = mediaType;
        p->ullSize = size;
        p->ulFlags = readOnly ? VDS_DF_READ_ONLY : 0;
        p->PartitionStyle = style;
        if (style == VDS_PST_GPT) p->DiskGuid = guid;
        if (style == VDS_PST_MBR) p->dwSignature = signature;
        p->pwszName = Dup(Name());
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetPack(IVdsPack** out) override {
        if (!pack) return E_FAIL;
        return Hand(pack, reinterpret_cast<void**>(out));
    }
    HRESULT STDMETHODCALLTYPE GetIdentificationData(void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryExtents(VDS_DISK_EXTENT** out, LONG* count) override {
        if (extentsFail) return E_FAIL;
        *count = static_cast<LONG>(extents.size());
        *out = static_cast<VDS_DISK_EXTENT*>(::CoTaskMemAlloc(sizeof(VDS_DISK_EXTENT) * (extents.size() + 1)));
        for (size_t i = 0; i < extents.size(); ++i) {
            (*out)[i] = {};
            (*out)[i].diskId = id;
            (*out)[i].ullOffset = extents[i].offset;
            (*out)[i].volumeId = extents[i].volume;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ConvertStyle(VDS_PARTITION_STYLE) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetFlags(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ClearFlags(ULONG flags) override {
        if ((flags & VDS_DF_READ_ONLY) && readOnly) {
            readOnly = false;
            world->madeWritable.push_back(Name());
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Online() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Offline() override {
        ++world->offlineCalls;
        if (alreadyOffline) return kDiskAlreadyOffline;
        if (--offlineTries > 0) return static_cast<HRESULT>(0x80042413);  // busy
        status = VDS_DS_OFFLINE;
        return S_OK;
    }
    std::wstring Name() const { return L"\\\\?\\PhysicalDrive" + std::to_wstring(number); }

    FakeVds* world = nullptr;
    std::string name;
    FakePack* pack = nullptr;  // null: unallocated
    GUID id{};
    DWORD number = 0;
    ULONGLONG size = 0;
    VDS_PARTITION_STYLE style = VDS_PST_UNKNOWN;
    DWORD signature = 0;
    GUID guid{};
    VDS_DISK_STATUS status = VDS_DS_ONLINE;
    DWORD deviceType = 7;   // FILE_DEVICE_DISK
    DWORD mediaType = 12;   // FixedMedia
    bool readOnly = false;
    bool propsFail = false;
    bool extentsFail = false;
    bool alreadyOffline = false;
    int offlineTries = 1;
    std::vector<FakeExtent> extents;
};

struct FakeVolume final : public IVdsVolume, public IVdsVolumeMF {
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        return Offer(iid, out, {{&kIidVolume, static_cast<IVdsVolume*>(this)},
                               {&kIidVolumeMF, static_cast<IVdsVolumeMF*>(this)}});
    }
    KX_FAKE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE GetProperties(VDS_VOLUME_PROP* p) override {
        *p = {};
        p->id = id;
        p->type = type;
        p->status = status;
        p->ulFlags = flags;
        p->pwszName = Dup(L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolume" + Wide(name));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetPack(IVdsPack** out) override { return Hand(pack, reinterpret_cast<void**>(out)); }
    HRESULT STDMETHODCALLTYPE QueryPlexes(IEnumVdsObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Extend(void*, LONG, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Shrink(ULONGLONG, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE AddPlex(VDS_OBJECT_ID, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE BreakPlex(VDS_OBJECT_ID, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RemovePlex(VDS_OBJECT_ID, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Delete(BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetFlags(ULONG, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ClearFlags(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetFileSystemProperties(void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Format(int, LPWSTR, DWORD, BOOL, BOOL, BOOL, IVdsAsync**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE AddAccessPath(LPWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryAccessPaths(LPWSTR** paths, LONG* count) override {
        std::vector<std::wstring> all;
        if (!letter.empty()) all.push_back(letter + L"\\");
        all.push_back(L"C:\\mnt\\" + Wide(name) + L"\\");  // a folder mount point is no letter
        *count = static_cast<LONG>(all.size());
        *paths = static_cast<LPWSTR*>(::CoTaskMemAlloc(sizeof(LPWSTR) * all.size()));
        for (size_t i = 0; i < all.size(); ++i) (*paths)[i] = Dup(all[i]);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueryReparsePoints(void**, LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE DeleteAccessPath(LPWSTR, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Mount() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Dismount(BOOL, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetFileSystemFlags(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE ClearFileSystemFlags(ULONG) override { return E_NOTIMPL; }

    std::string name;
    FakePack* pack = nullptr;
    GUID id{};
    VDS_VOLUME_TYPE type = VDS_VT_SIMPLE;
    VDS_VOLUME_STATUS status = VDS_VS_ONLINE;
    ULONG flags = 0;
    std::wstring letter;
};

class FakeServiceObject final : public IVdsService, public IVdsServiceSAN {
public:
    explicit FakeServiceObject(FakeVds* w) : world_(w) {}
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
        return Offer(iid, out, {{&kIidService, static_cast<IVdsService*>(this)},
                               {&kIidServiceSan, static_cast<IVdsServiceSAN*>(this)}});
    }
    KX_FAKE_IUNKNOWN
    HRESULT STDMETHODCALLTYPE IsServiceReady() override {
        if (world_->notReadyPolls > 0) {
            --world_->notReadyPolls;
            return S_FALSE;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE WaitForServiceReady() override { return S_OK; }
    HRESULT STDMETHODCALLTYPE GetProperties(VDS_SERVICE_PROP*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryProviders(DWORD masks, IEnumVdsObject** out) override {
        std::vector<IUnknown*> items;
        if (masks & VDS_QUERY_SOFTWARE_PROVIDERS)
            for (auto& p : world_->providers_) items.push_back(static_cast<IVdsProvider*>(p.get()));
        return FakeEnum::Make(std::move(items), out);
    }
    HRESULT STDMETHODCALLTYPE QueryMaskedDisks(IEnumVdsObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryUnallocatedDisks(IEnumVdsObject** out) override {
        std::vector<IUnknown*> items;
        for (auto& d : world_->disks_)
            if (!d->pack) items.push_back(static_cast<IVdsDisk*>(d.get()));
        return FakeEnum::Make(std::move(items), out);
    }
    HRESULT STDMETHODCALLTYPE GetObject(VDS_OBJECT_ID, VDS_OBJECT_TYPE, IUnknown**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryDriveLetters(WCHAR, DWORD, void*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE QueryFileSystemTypes(void**, LONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reenumerate() override {
        ++world_->reenumerations;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Refresh() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE CleanupObsoleteMountPoints() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Advise(IUnknown*, DWORD*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Unadvise(DWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reboot() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetFlags(ULONG flags) override {
        world_->serviceFlags |= flags;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ClearFlags(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetSANPolicy(VDS_SAN_POLICY*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSANPolicy(VDS_SAN_POLICY policy) override {
        world_->sanPolicy = policy;
        return S_OK;
    }

private:
    FakeVds* world_;
};

HRESULT FakeProvider::QueryPacks(IEnumVdsObject** out) {
    std::vector<IUnknown*> items;
    for (auto& p : world->packs_)
        if (p->provider == this) items.push_back(p.get());
    return FakeEnum::Make(std::move(items), out);
}

HRESULT FakeProvider::CreatePack(IVdsPack** out) {
    world->packs_.push_back(std::make_unique<FakePack>(world, name + "-own", this, false,
                                                       static_cast<DWORD>(world->packs_.size())));
    return Hand(static_cast<IVdsPack*>(world->packs_.back().get()), reinterpret_cast<void**>(out));
}

HRESULT FakePack::QueryVolumes(IEnumVdsObject** out) {
    std::vector<IUnknown*> items;
    for (auto& v : world->volumes_)
        if (v->pack == this) items.push_back(static_cast<IVdsVolume*>(v.get()));
    return FakeEnum::Make(std::move(items), out);
}

HRESULT FakePack::QueryDisks(IEnumVdsObject** out) {
    std::vector<IUnknown*> items;
    for (auto& d : world->disks_)
        if (d->pack == this) items.push_back(static_cast<IVdsDisk*>(d.get()));
    return FakeEnum::Make(std::move(items), out);
}

HRESULT FakePack::MigrateDisks(VDS_OBJECT_ID* ids, LONG count, VDS_OBJECT_ID target, BOOL, BOOL queryOnly,
                               HRESULT* results, BOOL* reboot) {
    FakePack* to = nullptr;
    for (auto& p : world->packs_)
        if (IsEqualGUID(p->id, target)) to = p.get();
    if (!to || to->foreign) return E_INVALIDARG;
    *reboot = FALSE;
    for (LONG i = 0; i < count; ++i) {
        results[i] = E_INVALIDARG;
        for (auto& d : world->disks_) {
            if (!IsEqualGUID(d->id, ids[i]) || d->pack != this) continue;
            results[i] = S_OK;
            if (queryOnly) continue;
            d->pack = to;
            world->imported.push_back(d->Name());
        }
    }
    return S_OK;
}

// ---- the world -----------------------------------------------------------------------------------

FakeVds::FakeVds(const std::string& description) : service_(std::make_unique<FakeServiceObject>(this)) {
    std::istringstream in(description);
    std::string line;
    std::map<std::string, FakeProvider*> providers;
    std::map<std::string, FakePack*> packs;
    std::map<std::string, FakeVolume*> volumes;
    struct PendingExtent {
        std::string disk, volume;
        ULONGLONG offset;
    };
    std::vector<PendingExtent> extents;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string kind, name, word;
        if (!(words >> kind) || kind[0] == '#') continue;
        if (kind != "loader") words >> name;
        std::map<std::string, std::string> opt;
        while (words >> word) {
            const size_t eq = word.find('=');
            opt[word.substr(0, eq)] = eq == std::string::npos ? "1" : word.substr(eq + 1);
        }
        auto num = [&](const char* key, unsigned long long fallback) {
            return opt.count(key) ? std::strtoull(opt[key].c_str(), nullptr, 0) : fallback;
        };
        if (kind == "loader") {
            startingRounds = static_cast<int>(num("starting", 0));
            loadFailure = static_cast<HRESULT>(num("fail", 0));
            notReadyPolls = static_cast<int>(num("notready", 0));
        } else if (kind == "provider") {
            providers_.push_back(std::make_unique<FakeProvider>(this, name, opt.count("dynamic") > 0,
                                                                static_cast<DWORD>(providers_.size())));
            providers[name] = providers_.back().get();
        } else if (kind == "pack") {
            if (!providers.count(opt["provider"])) throw std::runtime_error("no provider for pack " + name);
            packs_.push_back(std::make_unique<FakePack>(this, name, providers[opt["provider"]],
                                                        opt.count("foreign") > 0, static_cast<DWORD>(packs_.size())));
            packs[name] = packs_.back().get();
        } else if (kind == "disk") {
            auto d = std::make_unique<FakeDisk>();
            d->world = this;
            d->name = name;
            d->id = NumberedGuid(0xD0000000, static_cast<DWORD>(disks_.size()));
            if (opt["pack"] != "unallocated") {
                if (!packs.count(opt["pack"])) throw std::runtime_error("no pack for disk " + name);
                d->pack = packs[opt["pack"]];
            }
            d->number = static_cast<DWORD>(num("number", disks_.size()));
            d->size = num("size", 1ull << 30);
            const std::string style = opt.count("style") ? opt["style"] : "raw";
            d->style = style == "mbr" ? VDS_PST_MBR : style == "gpt" ? VDS_PST_GPT : VDS_PST_UNKNOWN;
            d->signature = static_cast<DWORD>(num("signature", 0));
            if (opt.count("guid")) d->guid = ParseGuid(opt["guid"]);
            d->status = opt["status"] == "offline" ? VDS_DS_OFFLINE : VDS_DS_ONLINE;
            d->deviceType = static_cast<DWORD>(num("type", 7));
            d->mediaType = static_cast<DWORD>(num("media", 12));
            d->readOnly = opt.count("readonly") > 0;
            d->propsFail = opt.count("propsfail") > 0;
            d->extentsFail = opt.count("extentsfail") > 0;
            d->alreadyOffline = opt.count("already-offline") > 0;
            d->offlineTries = static_cast<int>(num("offline-tries", 1));
            disks_.push_back(std::move(d));
        } else if (kind == "extent") {
            extents.push_back({name, opt["volume"], num("offset", 0)});
        } else if (kind == "volume") {
            auto v = std::make_unique<FakeVolume>();
            v->name = name;
            if (!packs.count(opt["pack"])) throw std::runtime_error("no pack for volume " + name);
            v->pack = packs[opt["pack"]];
            v->id = ParseGuid(opt["id"]);
            v->letter = Wide(opt["letter"]);
            v->status = opt["status"] == "offline" ? VDS_VS_OFFLINE : VDS_VS_ONLINE;
            v->flags = static_cast<ULONG>(num("flags", 0));
            v->type = static_cast<VDS_VOLUME_TYPE>(num("type", VDS_VT_SIMPLE));
            volumes[name] = v.get();
            volumes_.push_back(std::move(v));
        } else {
            throw std::runtime_error("unknown fixture line: " + line);
        }
    }
    for (const PendingExtent& e : extents) {
        FakeDisk* d = Disk(e.disk);
        if (!d) throw std::runtime_error("no disk for extent " + e.disk);
        FakeExtent x;
        x.offset = e.offset;
        if (e.volume != "free") {
            if (!volumes.count(e.volume)) throw std::runtime_error("no volume " + e.volume);
            x.volume = volumes[e.volume]->id;
        }
        d->extents.push_back(x);
    }
}

FakeVds::~FakeVds() {
    if (installed_) {
        kx::vds::SetSystem(nullptr);
        kx::platform::SetPause(nullptr);
    }
}

void FakeVds::Install(kx::platform::Pause* pause) {
    kx::vds::SetSystem(this);
    if (pause) kx::platform::SetPause(pause);
    installed_ = true;
}

HRESULT FakeVds::LoadService(IVdsService** service) {
    ++loads;
    *service = nullptr;
    if (startingRounds > 0) {
        --startingRounds;
        return kServerStarting;
    }
    if (FAILED(loadFailure)) return loadFailure;
    return Hand(static_cast<IVdsService*>(service_.get()), reinterpret_cast<void**>(service));
}

DWORD FakeVds::WriteEmptyMbr(const std::wstring& devicePath, DWORD signature, LayoutStep* failed) {
    for (auto& d : disks_) {
        if (d->Name() != devicePath) continue;
        *failed = LayoutStep::kLayout;
        layoutsWritten.push_back(devicePath);
        d->style = VDS_PST_MBR;
        d->signature = signature;
        // The disk joins the first basic pack, as the service does once it has a table.
        for (auto& p : packs_)
            if (!p->foreign && !p->provider->dynamic) {
                d->pack = p.get();
                break;
            }
        return ERROR_SUCCESS;
    }
    *failed = LayoutStep::kOpen;
    return ERROR_FILE_NOT_FOUND;
}

FakeDisk* FakeVds::Disk(const std::string& name) {
    for (auto& d : disks_)
        if (d->name == name) return d.get();
    return nullptr;
}

std::string Fixture(const std::string& name) {
    std::ifstream in(std::string(KX_VDS_FIXTURES) + "/" + name);
    if (!in) throw std::runtime_error("missing fixture " + name);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace kxtest
