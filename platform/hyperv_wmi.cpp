// The default Hyper-V operations: the host's Hyper-V WMI provider in
// namespace root\virtualization\v2, reached through the library's WMI client.
//
//   VM            Msvm_ComputerSystem whose Name is the VM's GUID (no braces,
//                 upper case); its ElementName is the display name.
//   settings      Msvm_VirtualSystemSettingData whose VirtualSystemIdentifier
//                 is the same GUID. VirtualSystemType tells the running
//                 state ("Microsoft:Hyper-V:System:Realized") from the
//                 snapshots ("Microsoft:Hyper-V:Snapshot:Realized"); other
//                 kinds (planned VMs, recovery settings) are ignored.
//                 ConfigurationDataRoot is the VM's data folder;
//                 ConfigurationID names a snapshot; Parent is the object path
//                 of the snapshot a snapshot stands on; CreationTime orders
//                 the snapshots.
//   disk files    Msvm_StorageAllocationSettingData associated with a
//                 settings object; HostResource holds the file (hard disks
//                 and DVD images alike).
//
// The provider's answers are never cached: snapshot deletion asks the same
// VM object again after Hyper-V has removed a snapshot.
//
// Without a provider to run against, the class and property names, the
// shape of Parent and the order of CreationTime could only be checked
// against the provider's documentation; the tests replay answers of that
// shape through an in-process WMI service.
//
// COM must be usable on the calling thread (the process's business, as for
// every user of the WMI client); when it is not, opening fails and is logged.
#include "platform/hyperv_wmi.h"

#include <algorithm>

#include "common/wstring_format.h"
#include "log/debug_log.h"
#include "platform/wmi/wmi_client.h"

namespace kx::platform {

namespace {

constexpr const wchar_t* kNamespace = L"root\\virtualization\\v2";
constexpr const wchar_t* kRealized = L"Microsoft:Hyper-V:System:Realized";
constexpr const wchar_t* kSnapshot = L"Microsoft:Hyper-V:Snapshot:Realized";
constexpr const wchar_t* kInstancePrefix = L"Microsoft:";

// A settings object's own GUID: its ConfigurationID, or the text after
// "Microsoft:" in its InstanceID when the provider gives no ConfigurationID.
std::wstring SettingsGuid(const wmi::WmiObject& settings) {
    std::wstring id = settings.GetProperty(L"ConfigurationID");
    if (!id.empty()) return id;
    id = settings.GetProperty(L"InstanceID");
    const size_t prefix = wcslen(kInstancePrefix);
    if (id.size() > prefix && EqualsNoCase(id.substr(0, prefix), kInstancePrefix)) return id.substr(prefix);
    return id;
}

// Every settings object of a VM, in the provider's order. 0 or the query's
// HRESULT (logged).
DWORD SettingsOf(const wmi::WmiService& service, const std::wstring& vmGuid, std::vector<wmi::WmiObject>& out) {
    out.clear();
    wmi::WmiEnumerator query(service, L"Msvm_VirtualSystemSettingData");
    query.SetEqualFilter(L"VirtualSystemIdentifier", wmi_text::ProviderGuid(vmGuid));
    HRESULT hr = query.Start();
    for (wmi::WmiObject o; SUCCEEDED(hr) && (o = query.Next());) out.push_back(o);
    if (SUCCEEDED(hr)) hr = query.LastError();
    if (FAILED(hr)) {
        Log(0, L"HyperVOps: the settings of VM %s can't be listed, hr = 0x%08X", vmGuid.c_str(),
            static_cast<DWORD>(hr));
        out.clear();
        return static_cast<DWORD>(hr);
    }
    return 0;
}

bool IsOfType(const wmi::WmiObject& settings, const wchar_t* type) {
    return EqualsNoCase(settings.GetProperty(L"VirtualSystemType"), type);
}

// The disk files of one settings object. 0 or the query's HRESULT (logged).
DWORD DiskImagesOf(const wmi::WmiService& service, const wmi::WmiObject& settings,
                   std::vector<std::wstring>& images) {
    images.clear();
    const std::wstring id = settings.GetProperty(L"InstanceID");
    if (id.empty()) {
        Log(0, L"HyperVOps: a settings object without InstanceID");
        return ERROR_INVALID_DATA;
    }
    wmi::WmiAssociator query(service, wmi_text::SettingsPath(id));
    query.SetResultClass(L"Msvm_StorageAllocationSettingData");
    HRESULT hr = query.Start();
    for (wmi::WmiObject o; SUCCEEDED(hr) && (o = query.Next());)
        for (auto& file : o.GetMultiValueProperty(L"HostResource"))
            if (!file.empty()) images.push_back(std::move(file));
    if (SUCCEEDED(hr)) hr = query.LastError();
    if (FAILED(hr)) {
        Log(0, L"HyperVOps: the disks of %s can't be listed, hr = 0x%08X", id.c_str(), static_cast<DWORD>(hr));
        images.clear();
        return static_cast<DWORD>(hr);
    }
    return 0;
}

class WmiSnapshot final : public HyperVSnapshot {
public:
    WmiSnapshot(wmi::WmiService service, wmi::WmiObject settings)
        : service_(std::move(service)), settings_(std::move(settings)) {}
    std::wstring Guid() const override { return SettingsGuid(settings_); }
    std::wstring ParentGuid() const override { return wmi_text::GuidOfSettingsPath(settings_.GetProperty(L"Parent")); }
    DWORD GetDiskImages(std::vector<std::wstring>& images) override { return DiskImagesOf(service_, settings_, images); }
    std::wstring CreationTime() const { return settings_.GetProperty(L"CreationTime"); }

private:
    wmi::WmiService service_;
    wmi::WmiObject settings_;
};

class WmiVm final : public HyperVVm {
public:
    WmiVm(wmi::WmiService service, wmi::WmiObject system) : service_(std::move(service)), system_(std::move(system)) {}

    std::wstring Guid() const override { return system_.GetProperty(L"Name"); }
    std::wstring DisplayName() const override { return system_.GetProperty(L"ElementName"); }

    DWORD GetDataFolder(std::wstring& folder) override {
        folder.clear();
        wmi::WmiObject realized;
        if (DWORD rc = Realized(&realized)) return rc;
        folder = realized.GetProperty(L"ConfigurationDataRoot");
        if (folder.empty()) {
            Log(0, L"HyperVOps: VM %s has no ConfigurationDataRoot", Guid().c_str());
            return ERROR_NOT_FOUND;
        }
        return 0;
    }

    DWORD GetDiskImages(std::vector<std::wstring>& images) override {
        images.clear();
        wmi::WmiObject realized;
        if (DWORD rc = Realized(&realized)) return rc;
        return DiskImagesOf(service_, realized, images);
    }

    DWORD GetSnapshotByGuid(const std::wstring& guid, std::unique_ptr<HyperVSnapshot>* snapshot) override {
        snapshot->reset();
        std::vector<std::unique_ptr<HyperVSnapshot>> all;
        if (DWORD rc = GetSnapshotList(all)) return rc;
        const std::wstring wanted = wmi_text::ProviderGuid(guid);
        for (auto& s : all) {
            if (!EqualsNoCase(wmi_text::ProviderGuid(s->Guid()), wanted)) continue;
            *snapshot = std::move(s);
            return 0;
        }
        return ERROR_NOT_FOUND;
    }

    DWORD GetSnapshotList(std::vector<std::unique_ptr<HyperVSnapshot>>& snapshots) override {
        snapshots.clear();
        std::vector<wmi::WmiObject> settings;
        if (DWORD rc = SettingsOf(service_, Guid(), settings)) return rc;
        std::vector<std::unique_ptr<WmiSnapshot>> found;
        for (auto& s : settings)
            if (IsOfType(s, kSnapshot)) found.push_back(std::make_unique<WmiSnapshot>(service_, s));
        // CreationTime is a CIM datetime ("yyyymmddHHMMSS.mmmmmm+UUU") of
        // fixed width in the host's offset, so its text sorts by time. A
        // snapshot is always made after the one it stands on.
        std::stable_sort(found.begin(), found.end(),
                         [](const auto& a, const auto& b) { return a->CreationTime() < b->CreationTime(); });
        for (auto& s : found) snapshots.push_back(std::move(s));
        return 0;
    }

private:
    // The settings of the running state: the first "Realized" one.
    DWORD Realized(wmi::WmiObject* out) {
        std::vector<wmi::WmiObject> settings;
        if (DWORD rc = SettingsOf(service_, Guid(), settings)) return rc;
        for (auto& s : settings) {
            if (!IsOfType(s, kRealized)) continue;
            *out = s;
            return 0;
        }
        Log(0, L"HyperVOps: VM %s has no settings of its running state", Guid().c_str());
        return ERROR_NOT_FOUND;
    }

    wmi::WmiService service_;
    wmi::WmiObject system_;
};

class WmiOperation final : public HyperVOperation {
public:
    explicit WmiOperation(wmi::WmiService service) : service_(std::move(service)) {}

    std::unique_ptr<HyperVVm> GetVmByGuid(const std::wstring& guid) override {
        wmi::WmiEnumerator query(service_, L"Msvm_ComputerSystem");
        query.SetEqualFilter(L"Name", wmi_text::ProviderGuid(guid));
        const HRESULT hr = query.Start();
        wmi::WmiObject system = SUCCEEDED(hr) ? query.Next() : wmi::WmiObject();
        if (!system) {
            const HRESULT why = FAILED(hr) ? hr : query.LastError();
            if (FAILED(why))
                Log(0, L"HyperVOps: looking for VM %s failed, hr = 0x%08X", guid.c_str(), static_cast<DWORD>(why));
            else
                Log(1, L"HyperVOps: no VM %s on this host", guid.c_str());
            return nullptr;
        }
        return std::make_unique<WmiVm>(service_, std::move(system));
    }

private:
    wmi::WmiService service_;
};

class WmiHyperV final : public HyperVOps {
public:
    DWORD OpenHyperVOperation(const std::wstring& host, const std::wstring& user, const std::wstring& password,
                              std::unique_ptr<HyperVOperation>* operation) override {
        operation->reset();
        if (!host.empty() || !user.empty() || !password.empty()) {
            // Only the local host, as the calling user, is ever asked.
            Log(0, L"HyperVOps: only the local host can be opened");
            return ERROR_NOT_SUPPORTED;
        }
        wmi::WmiService service;
        const HRESULT hr = wmi::WmiLocator().CreateWbemService(kNamespace, &service);
        if (FAILED(hr)) {
            Log(0, L"HyperVOps: the Hyper-V WMI provider is not available on this host, hr = 0x%08X",
                static_cast<DWORD>(hr));
            return static_cast<DWORD>(hr);
        }
        service.SetNameSpace(kNamespace);
        *operation = std::make_unique<WmiOperation>(std::move(service));
        return 0;
    }
};

WmiHyperV g_wmiHyperV;

}  // namespace

HyperVOps& WmiHyperVOps() { return g_wmiHyperV; }

}  // namespace kx::platform
