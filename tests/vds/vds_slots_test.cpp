// The disk service's interfaces as declared in platform/vds: each method the
// library calls in the slot the published definitions give it, and the
// published identifiers.
#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "slot_probe.h"
#include "platform/vds/vds_interfaces.h"

namespace {

using namespace kx::vds;

using kxtest::Probe;
using kxtest::SlotTable;

// Method order of the published definitions, after IUnknown's three slots.
using Order = std::vector<std::string>;
const Order kService = {"IsServiceReady", "WaitForServiceReady", "GetProperties", "QueryProviders",
                        "QueryMaskedDisks", "QueryUnallocatedDisks", "GetObject", "QueryDriveLetters",
                        "QueryFileSystemTypes", "Reenumerate", "Refresh", "CleanupObsoleteMountPoints", "Advise",
                        "Unadvise", "Reboot", "SetFlags", "ClearFlags"};
const Order kPack = {"GetProperties", "GetProvider", "QueryVolumes", "QueryDisks", "CreateVolume",
                     "AddDisk", "MigrateDisks", "ReplaceDisk", "RemoveMissingDisk", "Recover"};
const Order kDisk = {"GetProperties", "GetPack", "GetIdentificationData", "QueryExtents", "ConvertStyle",
                     "SetFlags", "ClearFlags"};
const Order kVolume = {"GetProperties", "GetPack", "QueryPlexes", "Extend", "Shrink", "AddPlex",
                       "BreakPlex", "RemovePlex", "Delete", "SetFlags", "ClearFlags"};
const Order kVolumeMF = {"GetFileSystemProperties", "Format", "AddAccessPath", "QueryAccessPaths",
                         "QueryReparsePoints", "DeleteAccessPath", "Mount", "Dismount", "SetFileSystemFlags",
                         "ClearFileSystemFlags"};
const Order kEnum = {"Next", "Skip", "Reset", "Clone"};
const Order kSan = {"GetSANPolicy", "SetSANPolicy"};
const Order kOnline = {"Online", "Offline"};
const Order kSw = {"QueryPacks", "CreatePack"};
const Order kLoader = {"LoadService"};
const Order kProvider = {"GetProperties"};

TEST(VdsInterfaces, SlotsMatchThePublishedDefinitions) {
    static auto table = SlotTable(std::make_index_sequence<32>());
    Probe probe{table.data(), -1};
    auto as = [&](auto* typed) { return reinterpret_cast<decltype(typed)>(&probe); };
    auto* svc = as(static_cast<IVdsService*>(nullptr));
    auto* pack = as(static_cast<IVdsPack*>(nullptr));
    auto* disk = as(static_cast<IVdsDisk*>(nullptr));
    auto* vol = as(static_cast<IVdsVolume*>(nullptr));
    auto* mf = as(static_cast<IVdsVolumeMF*>(nullptr));
    auto* en = as(static_cast<IEnumVdsObject*>(nullptr));
    auto* san = as(static_cast<IVdsServiceSAN*>(nullptr));
    auto* online = as(static_cast<IVdsDiskOnline*>(nullptr));
    auto* sw = as(static_cast<IVdsSwProvider*>(nullptr));
    auto* loader = as(static_cast<IVdsServiceLoader*>(nullptr));
    auto* provider = as(static_cast<IVdsProvider*>(nullptr));
    GUID none{};
    struct Case {
        const Order* order;
        std::string name;
        std::function<void()> call;
    };
    const std::vector<Case> cases = {
        {&kService, "IsServiceReady", [&] { svc->IsServiceReady(); }},
        {&kService, "QueryProviders", [&] { svc->QueryProviders(0, nullptr); }},
        {&kService, "QueryUnallocatedDisks", [&] { svc->QueryUnallocatedDisks(nullptr); }},
        {&kService, "Reenumerate", [&] { svc->Reenumerate(); }},
        {&kService, "SetFlags", [&] { svc->SetFlags(0); }},
        {&kPack, "GetProperties", [&] { pack->GetProperties(nullptr); }},
        {&kPack, "GetProvider", [&] { pack->GetProvider(nullptr); }},
        {&kPack, "QueryVolumes", [&] { pack->QueryVolumes(nullptr); }},
        {&kPack, "QueryDisks", [&] { pack->QueryDisks(nullptr); }},
        {&kPack, "MigrateDisks", [&] { pack->MigrateDisks(nullptr, 0, none, FALSE, FALSE, nullptr, nullptr); }},
        {&kDisk, "GetProperties", [&] { disk->GetProperties(nullptr); }},
        {&kDisk, "GetPack", [&] { disk->GetPack(nullptr); }},
        {&kDisk, "QueryExtents", [&] { disk->QueryExtents(nullptr, nullptr); }},
        {&kDisk, "ClearFlags", [&] { disk->ClearFlags(0); }},
        {&kVolume, "GetProperties", [&] { vol->GetProperties(nullptr); }},
        {&kVolumeMF, "QueryAccessPaths", [&] { mf->QueryAccessPaths(nullptr, nullptr); }},
        {&kEnum, "Next", [&] { en->Next(0, nullptr, nullptr); }},
        {&kSan, "SetSANPolicy", [&] { san->SetSANPolicy(VDS_SP_OFFLINE_SHARED); }},
        {&kOnline, "Offline", [&] { online->Offline(); }},
        {&kSw, "QueryPacks", [&] { sw->QueryPacks(nullptr); }},
        {&kSw, "CreatePack", [&] { sw->CreatePack(nullptr); }},
        {&kLoader, "LoadService", [&] { loader->LoadService(nullptr, nullptr); }},
        {&kProvider, "GetProperties", [&] { provider->GetProperties(nullptr); }},
    };
    for (const Case& c : cases) {
        probe.hit = -1;
        c.call();
        int expected = -1;
        for (size_t i = 0; i < c.order->size(); ++i)
            if ((*c.order)[i] == c.name) expected = static_cast<int>(3 + i);
        EXPECT_EQ(probe.hit, expected) << c.name;
    }

    auto text = [](const GUID& g) {
        wchar_t s[40];
        ::StringFromGUID2(g, s, 40);
        return std::wstring(s);
    };
    const std::vector<std::pair<const GUID*, const wchar_t*>> ids = {
        {&kClsidVdsLoader, L"{9C38ED61-D565-4728-AEEE-C80952F0ECDE}"},
        {&kIidServiceLoader, L"{E0393303-90D4-4A97-AB71-E9B671EE2729}"},
        {&kIidService, L"{0818A8EF-9BA9-40D8-A6F9-E22833CC771E}"},
        {&kIidServiceSan, L"{FC5D23E8-A88B-41A5-8DE0-2D2F73C5A630}"},
        {&kIidProvider, L"{10C5E575-7984-4E81-A56B-431F5F92AE42}"},
        {&kIidSwProvider, L"{9AA58360-CE33-4F92-B658-ED24B14425B8}"},
        {&kIidPack, L"{3B69D7F5-9D94-4648-91CA-79939BA263BF}"},
        {&kIidDisk, L"{07E5C822-F00C-47A1-8FCE-B244DA56FD06}"},
        {&kIidDiskOnline, L"{90681B1D-6A7F-48E8-9061-31B7AA125322}"},
        {&kIidVolume, L"{88306BB2-E71F-478C-86A2-79DA200A0F11}"},
        {&kIidVolumeMF, L"{EE2D5DED-6236-4169-931D-B9778CE03DC6}"},
        {&kIidEnumObject, L"{118610B7-8D94-4030-B5B8-500889788E4E}"},
    };
    for (const auto& [guid, want] : ids) EXPECT_EQ(text(*guid), want);
}

}  // namespace
