// Wrappers of the Virtual Disk Service's objects: the COM guard, the
// service, its software providers, packs, disks and volumes, and the one
// enumerator walk they share. Each wrapper owns one interface reference;
// what the service hands out (property strings, extent arrays) is copied
// and freed before a call returns.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/unique_resource.h"
#include "platform/vds/vds_interfaces.h"

namespace Kestrix {

// COM for the calling thread while it lives: a single-threaded apartment
// when the thread has none yet; a thread already in the other model keeps
// it (and the guard then leaves COM alone at its end).
class CAutoCoInitialize {
public:
    CAutoCoInitialize();
    ~CAutoCoInitialize();
    CAutoCoInitialize(const CAutoCoInitialize&) = delete;
    CAutoCoInitialize& operator=(const CAutoCoInitialize&) = delete;
    HRESULT Result() const { return hr_; }

private:
    HRESULT hr_;
    bool uninitialise_ = false;
};

}  // namespace Kestrix

namespace kx::disk {

// The interface `I` of `object`, or empty.
template <class I>
com_ptr<I> QueryAs(IUnknown* object) {
    com_ptr<I> out;
    if (object) object->QueryInterface(*vds::kIidOf<I>, reinterpret_cast<void**>(out.put()));
    return out;
}

// Walks `e` one object at a time and keeps each as the interface `I`
// (objects without it are skipped). S_OK at the end of the list, or the
// walk's failure.
template <class I>
HRESULT EnumerateVdsObjects(vds::IEnumVdsObject* e, std::vector<com_ptr<I>>* out) {
    for (;;) {
        com_ptr<IUnknown> object;
        ULONG fetched = 0;
        const HRESULT hr = e->Next(1, object.put(), &fetched);
        if (hr == S_FALSE || (SUCCEEDED(hr) && fetched == 0)) return S_OK;
        if (FAILED(hr)) return hr;
        if (com_ptr<I> wanted = QueryAs<I>(object.get())) out->push_back(std::move(wanted));
    }
}

// The text of an HRESULT or Win32 code, without the line end.
std::wstring ErrorText(DWORD code);
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}".
std::wstring GuidText(const GUID& guid);

// A disk's properties, its strings copied.
struct DiskProperties {
    GUID id{};
    VDS_DISK_STATUS status = VDS_DS_UNKNOWN;
    DWORD deviceType = 0;
    DWORD mediaType = 0;
    ULONGLONG size = 0;
    ULONG flags = 0;
    VDS_PARTITION_STYLE style = VDS_PST_UNKNOWN;
    DWORD signature = 0;
    GUID diskGuid{};  // the identity union (GPT GUID, or the signature in its first four bytes)
    std::wstring name;  // \\?\PhysicalDriveN
    std::wstring devicePath;
    std::wstring friendlyName;

    // N of the name, or 0xFFFFFFFF.
    DWORD Number() const;
    // "%010u" of the signature for MBR, the GUID text for GPT, else empty.
    std::wstring Identity() const;
};

struct VolumeProperties {
    GUID id{};
    VDS_VOLUME_TYPE type = VDS_VT_UNKNOWN;
    VDS_VOLUME_STATUS status = VDS_VS_UNKNOWN;
    ULONG flags = 0;
    std::wstring letter;  // "C:" or empty
    bool dynamic = false;
};

class CVdsPack;

class CVdsDisk {
public:
    explicit CVdsDisk(com_ptr<vds::IVdsDisk> disk) : disk_(std::move(disk)) {}
    std::optional<DiskProperties> GetProperties() const;
    HRESULT GetDiskExtents(std::vector<VDS_DISK_EXTENT>* extents) const;
    // Gives a raw disk an empty MBR table with a new signature. `caller`
    // names the operation in the failure lines.
    DWORD Initialize(const wchar_t* caller) const;
    bool IsForeignDisk() const;
    // Moves the disk from its foreign pack into the provider's own pack.
    HRESULT ImportDisk() const;
    HRESULT MakeDiskWritable() const;
    HRESULT Offline() const;

private:
    com_ptr<vds::IVdsPack> Pack() const;
    com_ptr<vds::IVdsDisk> disk_;
};

class CVdsVolume {
public:
    CVdsVolume(com_ptr<vds::IVdsVolume> volume, bool onDynamicPack)
        : volume_(std::move(volume)), onDynamicPack_(onDynamicPack) {}
    std::optional<VolumeProperties> GetProperties() const;

private:
    com_ptr<vds::IVdsVolume> volume_;
    bool onDynamicPack_;
};

class CVdsPack {
public:
    explicit CVdsPack(com_ptr<vds::IVdsPack> pack) : pack_(std::move(pack)) {}
    HRESULT GetVolumes(std::vector<CVdsVolume>* volumes) const;
    HRESULT GetDisks(std::vector<CVdsDisk>* disks) const;
    // Whether the pack belongs to the dynamic-disk provider.
    bool IsDynamic() const;

private:
    com_ptr<vds::IVdsPack> pack_;
};

class CSWProvider {
public:
    explicit CSWProvider(com_ptr<vds::IVdsSwProvider> provider) : provider_(std::move(provider)) {}
    HRESULT GetPacks(std::vector<CVdsPack>* packs) const;

private:
    com_ptr<vds::IVdsSwProvider> provider_;
};

class CVdsService {
public:
    explicit CVdsService(std::wstring callerName) : caller_(std::move(callerName)) {}
    // Loads the service and waits until it is ready.
    HRESULT Initialize2();
    // Initialize2, then brings unallocated and foreign disks into use.
    HRESULT Initialize();
    HRESULT GetUnallocatedDisks(std::vector<CVdsDisk>* disks) const;
    HRESULT Reenumerate() const;
    HRESULT GetAllDisks(std::vector<CVdsDisk>* disks) const;
    HRESULT GetAllPacks(std::vector<CVdsPack>* packs) const;
    // SAN policy "off line on shared buses" and no automatic mounting.
    HRESULT DisableAutoMountVolumes() const;
    void Uninitialize();

private:
    HRESULT GetSwProviders(std::vector<CSWProvider>* providers) const;
    std::wstring caller_;
    com_ptr<vds::IVdsService> service_;
};

}  // namespace kx::disk
