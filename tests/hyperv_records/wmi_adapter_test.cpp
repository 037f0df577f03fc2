// The default Hyper-V operations against recorded answers of the Hyper-V WMI
// provider, replayed by the in-process WMI service of the host tests: a VM
// with a snapshot tree, other VMs and settings kinds that must not leak into
// its answers, a VM that is not there, and a provider that fails.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "../host/fake_wbem.h"
#include "kx_test.h"
#include "platform/hyperv_ops.h"
#include "platform/wmi/wmi_client.h"

using fakewbem::FakeService;
using fakewbem::MakeInstance;
using fakewbem::Value;
using kxtest::LogCursor;
namespace kp = kx::platform;

namespace {

constexpr const wchar_t* kVm = L"0B7A3E10-2222-4D5C-8E11-00AA00BB00CC";
constexpr const wchar_t* kOther = L"11111111-2222-3333-4444-555555555555";
constexpr const wchar_t* kS1 = L"A1000000-0000-0000-0000-000000000001";
constexpr const wchar_t* kS2 = L"A2000000-0000-0000-0000-000000000002";
constexpr const wchar_t* kS3 = L"A3000000-0000-0000-0000-000000000003";
constexpr const wchar_t* kNs = L"\\\\HV01\\root\\virtualization\\v2:";

std::wstring SettingsPathOf(const std::wstring& guid) {
    return std::wstring(kNs) + L"Msvm_VirtualSystemSettingData.InstanceID=\"Microsoft:" + guid + L"\"";
}

// One Msvm_VirtualSystemSettingData as the provider answers it.
IWbemClassObject* Settings(const std::wstring& vm, const std::wstring& guid, const wchar_t* type,
                           const std::wstring& created, const std::wstring& parent) {
    fakewbem::Props p = {{L"InstanceID", L"Microsoft:" + guid},
                         {L"VirtualSystemIdentifier", vm},
                         {L"VirtualSystemType", type},
                         {L"ConfigurationID", guid},
                         {L"ConfigurationDataRoot", L"D:\\VMs\\" + vm},
                         {L"CreationTime", created}};
    p.emplace_back(L"Parent", parent.empty() ? Value::Null() : Value(SettingsPathOf(parent)));
    return MakeInstance(L"Msvm_VirtualSystemSettingData", SettingsPathOf(guid), std::move(p));
}

IWbemClassObject* Storage(const std::wstring& owner, int n, Value hostResource) {
    const std::wstring id = L"Microsoft:" + owner + L"\\83F8638B\\0\\" + std::to_wstring(n) + L"\\L";
    return MakeInstance(L"Msvm_StorageAllocationSettingData",
                        std::wstring(kNs) + L"Msvm_StorageAllocationSettingData.InstanceID=\"" + id + L"\"",
                        {{L"InstanceID", id}, {L"HostResource", std::move(hostResource)}});
}

constexpr const wchar_t* kRealized = L"Microsoft:Hyper-V:System:Realized";
constexpr const wchar_t* kSnapshot = L"Microsoft:Hyper-V:Snapshot:Realized";

// A host with VM kVm ("IVM one": running state, a planned copy, snapshots
// S1 <- S2, S1 <- S3 listed out of time order) and another VM whose
// settings carry the same kinds.
void Record(FakeService& svc) {
    svc.Add(MakeInstance(L"Msvm_ComputerSystem", L"Msvm_ComputerSystem.Name=\"HV01\"",
                         {{L"Name", L"HV01"}, {L"ElementName", L"HV01"}}));
    svc.Add(MakeInstance(L"Msvm_ComputerSystem", std::wstring(L"Msvm_ComputerSystem.Name=\"") + kVm + L"\"",
                         {{L"Name", kVm}, {L"ElementName", L"IVM one"}}));
    svc.Add(MakeInstance(L"Msvm_ComputerSystem", std::wstring(L"Msvm_ComputerSystem.Name=\"") + kOther + L"\"",
                         {{L"Name", kOther}, {L"ElementName", L"other"}}));
    svc.Add(Settings(kVm, kS3, kSnapshot, L"20260301100000.000000-000", kS1));
    svc.Add(Settings(kOther, L"B0000000-0000-0000-0000-00000000000B", kSnapshot, L"20250101000000.000000-000", L""));
    svc.Add(Settings(kVm, L"C0000000-0000-0000-0000-00000000000C", L"Microsoft:Hyper-V:System:Planned",
                     L"20260101000000.000000-000", L""));
    svc.Add(Settings(kVm, kVm, kRealized, L"20260101000000.000000-000", kS2));
    svc.Add(Settings(kVm, kS1, kSnapshot, L"20260201100000.000000-000", L""));
    svc.Add(Settings(kVm, kS2, kSnapshot, L"20260215100000.000000-000", kS1));
    svc.Add(Settings(kOther, kOther, kRealized, L"20250101000000.000000-000", L""));

    const std::wstring s7 = L"E:\\dest\\VStore\\S0000000007\\";
    svc.Associate(SettingsPathOf(kVm), Storage(kVm, 0, std::vector<std::wstring>{s7 + L"disk0000000001_S2.avhdx"}));
    svc.Associate(SettingsPathOf(kVm), Storage(kVm, 1, std::vector<std::wstring>{L"C:\\iso\\tools.iso"}));
    svc.Associate(SettingsPathOf(kVm), Storage(kVm, 2, Value::Null()));  // an empty DVD drive
    svc.Associate(SettingsPathOf(kVm), MakeInstance(L"Msvm_ProcessorSettingData", L"p", {{L"HostResource", L"x"}}));
    svc.Associate(SettingsPathOf(kS1), Storage(kS1, 0, std::vector<std::wstring>{s7 + L"disk0000000001.vhdx"}));
    svc.Associate(SettingsPathOf(kS2), Storage(kS2, 0, std::vector<std::wstring>{s7 + L"disk0000000001_S1.avhdx"}));
    svc.Associate(SettingsPathOf(kS3), Storage(kS3, 0, std::vector<std::wstring>{s7 + L"disk0000000001_S3.avhdx"}));
    svc.Associate(SettingsPathOf(kOther), Storage(kOther, 0, std::vector<std::wstring>{L"F:\\other.vhdx"}));
}

// The default adapter in place, connected to `svc`, for one test.
struct Provider {
    explicit Provider(FakeService& svc) : scope(&svc) { kp::SetHyperVOps(nullptr); }
    std::unique_ptr<kp::HyperVOperation> Open() {
        std::unique_ptr<kp::HyperVOperation> op;
        EXPECT_EQ(kp::HyperV().OpenHyperVOperation(L"", L"", L"", &op), 0u);
        return op;
    }
    fakewbem::ConnectorScope scope;
};

std::vector<std::wstring> Guids(const std::vector<std::unique_ptr<kp::HyperVSnapshot>>& list) {
    std::vector<std::wstring> out;
    for (const auto& s : list) out.push_back(s->Guid() + L"<" + s->ParentGuid());
    return out;
}

}  // namespace

TEST(HyperVWmiAdapter, AVmWithASnapshotTreeIsReadFromTheProvidersAnswers) {
    const long liveBefore = fakewbem::LiveObjects();
    {
        FakeService svc;
        Record(svc);
        {
            Provider provider(svc);
            auto op = provider.Open();
            ASSERT_TRUE(op);
            // Braces and case as a caller has them.
            auto vm = op->GetVmByGuid(L"{0b7a3e10-2222-4d5c-8e11-00aa00bb00cc}");
            ASSERT_TRUE(vm);
            EXPECT_EQ(vm->Guid(), kVm);
            EXPECT_EQ(vm->DisplayName(), L"IVM one");
            std::wstring folder;
            EXPECT_EQ(vm->GetDataFolder(folder), 0u);
            EXPECT_EQ(folder, std::wstring(L"D:\\VMs\\") + kVm);

            std::vector<std::wstring> disks;
            ASSERT_EQ(vm->GetDiskImages(disks), 0u);
            EXPECT_EQ(disks, (std::vector<std::wstring>{L"E:\\dest\\VStore\\S0000000007\\disk0000000001_S2.avhdx",
                                                        L"C:\\iso\\tools.iso"}));

            std::vector<std::unique_ptr<kp::HyperVSnapshot>> snaps;
            ASSERT_EQ(vm->GetSnapshotList(snaps), 0u);
            // Oldest first; neither the planned settings nor the other VM's.
            EXPECT_EQ(Guids(snaps), (std::vector<std::wstring>{std::wstring(kS1) + L"<", std::wstring(kS2) + L"<" + kS1,
                                                               std::wstring(kS3) + L"<" + kS1}));
            ASSERT_EQ(snaps.size(), 3u);
            EXPECT_EQ(snaps[0]->GetDiskImages(disks), 0u);
            EXPECT_EQ(disks, std::vector<std::wstring>{L"E:\\dest\\VStore\\S0000000007\\disk0000000001.vhdx"});

            std::unique_ptr<kp::HyperVSnapshot> s3;
            ASSERT_EQ(vm->GetSnapshotByGuid(L"{a3000000-0000-0000-0000-000000000003}", &s3), 0u);
            ASSERT_TRUE(s3);
            EXPECT_EQ(s3->GetDiskImages(disks), 0u);
            EXPECT_EQ(disks, std::vector<std::wstring>{L"E:\\dest\\VStore\\S0000000007\\disk0000000001_S3.avhdx"});
            std::unique_ptr<kp::HyperVSnapshot> none;
            EXPECT_EQ(vm->GetSnapshotByGuid(kOther, &none), static_cast<DWORD>(ERROR_NOT_FOUND));
            EXPECT_FALSE(none);

            // What went to the provider is the text the adapter documents.
            namespace w = kp::wmi_text;
            EXPECT_EQ(svc.queries.front(), w::VmQuery(kVm));
            EXPECT_NE(std::find(svc.queries.begin(), svc.queries.end(), w::SettingsQuery(kVm)), svc.queries.end());
            EXPECT_NE(std::find(svc.queries.begin(), svc.queries.end(), w::DiskQuery(std::wstring(L"Microsoft:") + kS3)),
                      svc.queries.end());
            EXPECT_EQ(provider.scope.connections(), 1);
        }
        kp::SetHyperVOps(nullptr);
        // Every COM reference the adapter took is given back.
        EXPECT_EQ(svc.refs(), 1u);
    }
    EXPECT_EQ(fakewbem::LiveObjects(), liveBefore);
}

TEST(HyperVWmiAdapter, AMissingVmAFailingProviderAndNoProviderAreCodesNotCrashes) {
    FakeService svc;
    Record(svc);
    Provider provider(svc);
    auto op = provider.Open();
    ASSERT_TRUE(op);
    {
        LogCursor log;
        EXPECT_FALSE(op->GetVmByGuid(L"{99999999-2222-4D5C-8E11-00AA00BB00CC}"));
        EXPECT_TRUE(log.Contains(L"HyperVOps: no VM {99999999-2222-4D5C-8E11-00AA00BB00CC} on this host"));
        // A GUID that tries to leave its quotes matches nothing.
        EXPECT_FALSE(op->GetVmByGuid(std::wstring(kVm) + L"' OR Name LIKE '%"));
    }
    auto vm = op->GetVmByGuid(kVm);
    ASSERT_TRUE(vm);
    // The provider starts failing after the VM was found.
    svc.failQueries = WBEM_E_FAILED;
    const DWORD failed = static_cast<DWORD>(WBEM_E_FAILED);
    const struct {
        const char* call;
        std::function<DWORD()> run;
    } calls[] = {
        {"disks", [&] { std::vector<std::wstring> d{L"stale"}; DWORD rc = vm->GetDiskImages(d); return d.empty() ? rc : 0u; }},
        {"data", [&] { std::wstring f; return vm->GetDataFolder(f); }},
        {"list", [&] { std::vector<std::unique_ptr<kp::HyperVSnapshot>> s; return vm->GetSnapshotList(s); }},
        {"by guid", [&] { std::unique_ptr<kp::HyperVSnapshot> s; return vm->GetSnapshotByGuid(kS1, &s); }},
    };
    for (const auto& c : calls) {
        SCOPED_TRACE(c.call);
        LogCursor log;
        EXPECT_EQ(c.run(), failed);
        EXPECT_TRUE(log.Contains(L"hr = 0x80041001"));
    }
    {
        LogCursor log;
        EXPECT_FALSE(op->GetVmByGuid(kVm));
        EXPECT_TRUE(log.Contains(L"HyperVOps: looking for VM"));
    }
    svc.failQueries = S_OK;

    // A host where the namespace can't be reached.
    struct Refusing : kx::wmi::WmiConnector {
        HRESULT Connect(const std::wstring&, IWbemServices** out) noexcept override {
            *out = nullptr;
            return WBEM_E_INVALID_NAMESPACE;
        }
    } refusing;
    kx::wmi::testing::SetConnector(&refusing);
    LogCursor log;
    std::unique_ptr<kp::HyperVOperation> none;
    EXPECT_EQ(kp::HyperV().OpenHyperVOperation(L"", L"", L"", &none), static_cast<DWORD>(WBEM_E_INVALID_NAMESPACE));
    EXPECT_FALSE(none);
    EXPECT_TRUE(log.Contains(L"HyperVOps: the Hyper-V WMI provider is not available on this host, hr = 0x8004100E"));
    // Another host or user is never asked.
    kx::wmi::testing::SetConnector(nullptr);
    fakewbem::ConnectorScope again(&svc);
    EXPECT_EQ(kp::HyperV().OpenHyperVOperation(L"HV02", L"", L"", &none), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(again.connections(), 0);
    kp::SetHyperVOps(nullptr);
}

// A snapshot's Parent is a whole object path; only its key names the parent.
TEST(HyperVWmiAdapter, ParentPathsGiveTheirGuidOrNothing) {
    const struct {
        const wchar_t* path;
        const wchar_t* guid;
    } cases[] = {
        {L"\\\\HV01\\root\\virtualization\\v2:Msvm_VirtualSystemSettingData.InstanceID=\"Microsoft:A1-B2\"", L"A1-B2"},
        {L"Msvm_VirtualSystemSettingData.InstanceID=\"Microsoft:a1-b2\"", L"a1-b2"},
        {L"msvm_virtualsystemsettingdata.instanceid=\"microsoft:X\"", L"X"},
        {L"", L""},
        {L"Msvm_VirtualSystemSettingData.InstanceID=\"Microsoft:", L""},
        {L"Msvm_VirtualSystemSettingData.InstanceID=\"Microsoft:\"", L""},
        {L"Msvm_VirtualSystemSettingData.InstanceID=\"Other:A1\"", L""},
    };
    for (const auto& c : cases) EXPECT_EQ(kp::wmi_text::GuidOfSettingsPath(c.path), c.guid) << c.path;
}
