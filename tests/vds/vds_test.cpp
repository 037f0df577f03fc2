// The disk and volume listings, the session's start-up rounds, the off-line
// routine, the signature check and the cloud-disk search, on the
// in-process disk service of fake_vds.h. Every test ends with no reference
// to the service's objects left.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "disk/cloud_disk_locate.h"
#include "disk/vds_listing.h"
#include "disk/vds_session.h"
#include "fake_vds.h"
#include "kx_test.h"

namespace {

using kxtest::FakeVds;
using kxtest::Fixture;
using kxtest::OutstandingReferences;
using kxtest::RecordingPause;
namespace kd = kx::disk;

constexpr DWORD kNoCode = 0xFFFFFFFF;

// A service from a fixture, installed with a recording pause; checks at the
// end of each test that every reference was given back.
class Vds : public ::testing::Test {
protected:
    void Use(const std::string& fixture) {
        fake_ = std::make_unique<FakeVds>(Fixture(fixture));
        fake_->Install(&pause_);
    }
    void TearDown() override {
        EXPECT_EQ(OutstandingReferences(), 0) << "references to the service's objects left";
        fake_.reset();
    }
    FakeVds& fake() { return *fake_; }
    std::unique_ptr<FakeVds> fake_;
    RecordingPause pause_;
    kxtest::LogCursor log_;
};

// The records' fields are compared with the tool's table of the same host
// (vds_view_test); here each listing on its own: the vector is cleared
// first, off-line disks and volumes and the DVD drive are left out, and
// every record is logged.
TEST_F(Vds, EachListingOnItsOwn) {
    Use("host.txt");
    std::vector<VdsDiskRecord> disks(5);
    ASSERT_EQ(kd::GetOnlineDisks(disks), 0u);
    EXPECT_EQ(disks.size(), 3u);
    std::vector<VdsVolumeRecord> volumes(7);
    ASSERT_EQ(kd::GetOnlineVolumes(volumes), 0u);
    EXPECT_EQ(volumes.size(), 5u);
    EXPECT_TRUE(log_.Contains(L"get disk, size=68719476736, guid={1A2B3C4D-0000-0000-0000-000000000000}, "
                              L"signature=439041101, partition=1, diskNo=0"));
    EXPECT_TRUE(log_.Contains(L"finish GetOnlineDisks, disk count = 3"));
    EXPECT_TRUE(log_.Contains(L"get volume, guid={6F1A0005-0000-4000-8000-0000000000D1}, letter=F:, flag=4, isDynamic=1"));
    EXPECT_TRUE(log_.Contains(L"finish GetOnlineVolumes, vol count = 5"));
    EXPECT_TRUE(log_.Contains(L"Uninitialize VDS service."));
}

TEST_F(Vds, NewDisksAreInitialisedOrImportedThenListed) {
    Use("arrivals.txt");
    std::vector<VdsDiskRecord> disks;
    std::vector<VdsVolumeRecord> volumes;
    ASSERT_EQ(kd::GetOnlineDisksAndVolumes(disks, volumes), 0u);
    EXPECT_EQ(fake().layoutsWritten, std::vector<std::wstring>{L"\\\\?\\PhysicalDrive5"});
    EXPECT_EQ(fake().imported, std::vector<std::wstring>{L"\\\\?\\PhysicalDrive6"});
    EXPECT_EQ(fake().reenumerations, 2);
    std::vector<unsigned long> numbers;
    for (const auto& d : disks) numbers.push_back(d.diskNumber);
    EXPECT_EQ(numbers, (std::vector<unsigned long>{0, 5, 6}));
    const VdsDiskRecord& fresh = disks[1];
    EXPECT_EQ(fresh.partitionStyle, 1u);
    EXPECT_NE(fresh.signature, 0u);
    wchar_t prefix[16];
    swprintf(prefix, 16, L"{%08lX-", fresh.signature);
    EXPECT_EQ(fresh.diskGuid.substr(0, 10), prefix);
    EXPECT_TRUE(log_.Contains(L"CVdsService::Initialize : Found 1 uncallocated disks"));
    EXPECT_TRUE(log_.Contains(L"CVdsService::Initialize : Found total 3 disks"));
    EXPECT_TRUE(log_.Contains(L"finish GetOnlineDisksAndVolumes"));
    // A second call finds nothing new.
    ASSERT_EQ(kd::GetOnlineDisks(disks), 0u);
    EXPECT_EQ(fake().layoutsWritten.size(), 1u);
    EXPECT_EQ(fake().imported.size(), 1u);
    EXPECT_EQ(fake().reenumerations, 2);
}

TEST_F(Vds, SessionStartRounds) {
    struct Case {
        const char* loader;
        DWORD rc;
        int rounds;  // round lines
        std::vector<DWORD> pauses;
        int loads;
    };
    const std::vector<Case> cases = {
        {"loader starting=2", 0, 2, {2000, 2000}, 3},
        {"loader starting=7", kNoCode, 7, std::vector<DWORD>(6, 2000), 7},
        {"loader fail=0x80070005", kNoCode, 0, {}, 1},
        {"loader notready=3", 0, 0, {500, 500, 500}, 1},
        {"loader notready=200", kNoCode, 0, std::vector<DWORD>(119, 500), 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.loader);
        kxtest::LogCursor log;
        pause_.pauses.clear();
        fake_ = std::make_unique<FakeVds>(std::string(c.loader) + "\n" + Fixture("host.txt"));
        fake_->Install(&pause_);
        std::vector<VdsDiskRecord> disks;
        std::vector<VdsVolumeRecord> volumes;
        EXPECT_EQ(kd::GetOnlineDisksAndVolumes(disks, volumes), c.rc);
        EXPECT_EQ(static_cast<int>(log.Matching(L"VcmDiskOperation::Initialize, the ").size()), c.rounds);
        if (c.rounds) {
            EXPECT_TRUE(log.Contains(L"VcmDiskOperation::Initialize, the 1 round"));
        }
        EXPECT_EQ(fake().loads, c.loads);
        EXPECT_EQ(log.Contains(L"finish GetOnlineDisksAndVolumes"), c.rc == 0);
        EXPECT_EQ(log.Contains(L"Uninitialize VDS service."), c.rc == 0);
        EXPECT_EQ(disks.size(), c.rc == 0 ? 3u : 0u);
        EXPECT_EQ(OutstandingReferences(), 0);
        if (std::string(c.loader).find("fail=") != std::string::npos) {
            EXPECT_TRUE(log.Contains(L"Init vds failed, rc = 0x80070005"));
        }
        EXPECT_EQ(pause_.pauses, c.pauses);
    }
}

TEST_F(Vds, FailingDiskCallsSkipTheDiskOrEndTheListing) {
    Use("faults.txt");
    std::vector<VdsDiskRecord> disks;
    // The disk without properties is skipped; the one whose extents fail ends
    // the listing with the failure, the records before it kept.
    EXPECT_EQ(kd::GetOnlineDisks(disks), static_cast<DWORD>(E_FAIL));
    ASSERT_EQ(disks.size(), 1u);
    EXPECT_EQ(disks[0].signature, 0x1A2B3C4Du);
    EXPECT_TRUE(log_.Contains(L"GetOnlineDisks, get disks failed, rc = -2147467259"));
    std::vector<VdsVolumeRecord> volumes;
    EXPECT_EQ(kd::GetOnlineDisksAndVolumes(disks, volumes), static_cast<DWORD>(E_FAIL));
    EXPECT_TRUE(log_.Contains(L"GetOnlineDisksAndVolumes, get disks failed, rc = -2147467259"));
    EXPECT_TRUE(log_.Contains(L"finish GetOnlineDisksAndVolumes"));
}

// The disk of `fixture` named `\\?\PhysicalDrive<number>`, taken off line.
DWORD OfflineDisk(unsigned number) {
    kd::VdsSession session;
    if (DWORD rc = session.Open(kd::VdsStart::kServiceOnly)) return rc;
    std::vector<kd::CVdsDisk> disks;
    session.Service().GetAllDisks(&disks);
    for (const kd::CVdsDisk& d : disks) {
        auto p = d.GetProperties();
        if (p && p->Number() == number) return kd::TakeDiskOffline(d);
    }
    return ERROR_NOT_FOUND;
}

TEST_F(Vds, OfflineRetriesAndTheAlreadyOfflineAnswer) {
    struct Case {
        const char* disk;  // a line added to the fixture
        DWORD rc;
        int calls;
        size_t pauses;
        int retryLines;
        bool already;
    };
    const std::vector<Case> cases = {
        {"disk x pack=basic0 number=20 style=mbr signature=7", 0, 1, 0, 0, false},
        {"disk x pack=basic0 number=20 style=mbr signature=7 offline-tries=3 readonly", 0, 3, 2, 2, false},
        {"disk x pack=basic0 number=20 style=mbr signature=7 already-offline", 0, 1, 0, 0, true},
        {"disk x pack=basic0 number=20 style=mbr signature=7 offline-tries=50", kNoCode, 10, 9, 10, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.disk);
        kxtest::LogCursor log;
        pause_.pauses.clear();
        fake_ = std::make_unique<FakeVds>(Fixture("host.txt") + c.disk + "\n");
        fake_->Install(&pause_);
        EXPECT_EQ(OfflineDisk(20), c.rc);
        EXPECT_EQ(fake().offlineCalls, c.calls);
        EXPECT_EQ(pause_.pauses, std::vector<DWORD>(c.pauses, 1000));
        EXPECT_EQ(static_cast<int>(log.Matching(L"Unable to offline disk. Retry time #").size()), c.retryLines);
        if (c.retryLines) {
            EXPECT_TRUE(log.Contains(L"Unable to offline disk. Retry time #9, "));
        }
        EXPECT_EQ(log.Contains(L"Disk is already offline."), c.already);
        EXPECT_TRUE(log.Contains(L"Make disk writable."));
        EXPECT_EQ(fake().madeWritable.size(), std::string(c.disk).find("readonly") != std::string::npos ? 1u : 0u);
        EXPECT_EQ(OutstandingReferences(), 0);
    }
}

TEST_F(Vds, SignatureConflictCheck) {
    struct Case {
        std::vector<std::wstring> ids;
        DWORD want;
        bool loads;
    };
    const std::vector<Case> cases = {
        {{}, 1, false},
        {{L"0439041101"}, 0, true},                                    // the system disk's signature
        {{L"1234567890", L"{7c2d4e6f-1111-2222-3333-444455556666}"}, 0, true},  // GPT, other case
        {{L"0286331153"}, 1, true},                                    // only on the off-line disk
        {{L"439041101", L"0x1A2B3C4D"}, 1, true},                      // not in identity form
        {{L"{1A2B3C4D-0000-0000-0000-000000000000}"}, 1, true},        // an MBR disk has no GUID identity
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.ids.empty() ? std::string("empty") : kxtest::Narrow(c.ids[0]));
        kxtest::LogCursor log;
        fake_ = std::make_unique<FakeVds>(Fixture("host.txt"));
        fake_->Install(&pause_);
        EXPECT_EQ(kd::CheckDiskSignatureConflict(c.ids), c.want);
        EXPECT_EQ(fake().loads > 0, c.loads);
        if (c.loads) {
            EXPECT_EQ(fake().sanPolicy, VDS_SP_OFFLINE_SHARED);
            EXPECT_EQ(fake().serviceFlags & VDS_SVF_AUTO_MOUNT_OFF, static_cast<ULONG>(VDS_SVF_AUTO_MOUNT_OFF));
            // The whole list is read unless a match ends it before the off-line disk.
            if (c.want == 1) {
                EXPECT_TRUE(log.Contains(L"Disk \\\\?\\PhysicalDrive3 is offline, ignore it."));
            }
            EXPECT_TRUE(log.Contains(L"VcmDiskOperation::CheckSameSignatureDisk, bCheckRet = " +
                                     std::to_wstring(c.want) + L"."));
        }
        EXPECT_EQ(log.Contains(L"has been mounted."), c.want == 0);
        EXPECT_EQ(OutstandingReferences(), 0);
    }
    // A service that cannot be started (no check, so no go) is met on Wine by vds_tool_test.
}

// Holds the disk-operation mutex in a process of its own: signals `ready`
// once it owns it, lets go when `stop` is set (or after a minute).
TEST(VdsAcrossProcesses, DISABLED_MutexHolder) {
    const auto task = kxtest::HelperTask();
    ASSERT_EQ(task.size(), 2u);
    kx::unique_handle mutex(::CreateMutexW(nullptr, TRUE, kd::kDiskOperationMutex));
    ASSERT_TRUE(mutex);
    kx::unique_handle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, task[0].c_str()));
    kx::unique_handle stop(::OpenEventW(SYNCHRONIZE, FALSE, task[1].c_str()));
    ASSERT_TRUE(ready && stop);
    ::SetEvent(ready.get());
    ::WaitForSingleObject(stop.get(), 60000);
    ::ReleaseMutex(mutex.get());
}

TEST_F(Vds, AnotherProcessHoldingTheDiskMutexMakesTheCheckFail) {
    Use("host.txt");
    const std::wstring tag = std::to_wstring(::GetCurrentProcessId());
    const std::wstring readyName = L"kx.vds.ready." + tag, stopName = L"kx.vds.stop." + tag;
    kx::unique_handle ready(::CreateEventW(nullptr, TRUE, FALSE, readyName.c_str()));
    kx::unique_handle stop(::CreateEventW(nullptr, TRUE, FALSE, stopName.c_str()));
    kx::unique_handle holder = kxtest::SpawnHelper(L"VdsAcrossProcesses.DISABLED_MutexHolder", readyName + L"|" + stopName);
    ASSERT_TRUE(holder);
    ASSERT_EQ(::WaitForSingleObject(ready.get(), 60000), WAIT_OBJECT_0);
    // An empty list needs no lock: answered at once although the mutex is held.
    EXPECT_EQ(kd::CheckDiskSignatureConflict({}), 1u);
    // A real check waits 10 s for the holder and gives up: 0 without asking the service.
    EXPECT_EQ(kd::CheckDiskSignatureConflict({L"1234567890"}), 0u);
    EXPECT_EQ(fake().loads, 0);
    EXPECT_TRUE(log_.Contains(L"Failed to get ownership of mutex lock for checking disk signature."));
    ::SetEvent(stop.get());
    ASSERT_EQ(::WaitForSingleObject(holder.get(), 60000), WAIT_OBJECT_0);
    // Once released, the check runs.
    EXPECT_EQ(kd::CheckDiskSignatureConflict({L"1234567890"}), 1u);
    EXPECT_EQ(fake().loads, 1);
}

TEST_F(Vds, CloudDiskIsLocatedBySizeSignatureOrGuid) {
    GUID gpt{}, absent{};
    ::CLSIDFromString(L"{A1B2C3D4-0000-1111-2222-333344445555}", &gpt);
    ::CLSIDFromString(L"{B0B0B0B0-0000-1111-2222-333344445555}", &absent);
    constexpr uint64_t k100G = 107374182400ull;
    struct Case {
        const char* name;
        kd::CloudDiskQuery q;
        DWORD rc;
        const wchar_t* path;
        uint32_t style;
        int offlineCalls;
    };
    const std::vector<Case> cases = {
        {"raw among the unallocated", {k100G, 0, 0, {}, true}, 0, L"\\\\?\\PhysicalDrive7", 0, 1},
        {"MBR by signature, off line on the third try", {k100G, 1, 0x5EED0001, {}, false}, 0,
         L"\\\\?\\PhysicalDrive9", 1, 3},
        {"GPT by GUID, the removable twin skipped", {k100G, 2, 0, gpt, false}, 0, L"\\\\?\\PhysicalDrive11", 2, 1},
        {"GPT of another size", {k100G, 2, 0, absent, false}, kNoCode, L"", 0, 0},
        {"raw, but only allocated disks searched", {k100G, 0, 0, {}, false}, kNoCode, L"", 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        kxtest::LogCursor log;
        pause_.pauses.clear();
        fake_ = std::make_unique<FakeVds>(Fixture("cloud.txt"));
        fake_->Install(&pause_);
        kd::LocatedCloudDisk out;
        EXPECT_EQ(kd::LocateCloudDisk(c.q, &out), c.rc);
        EXPECT_EQ(out.devicePath, c.path);
        EXPECT_EQ(fake().offlineCalls, c.offlineCalls);
        if (c.rc == 0) {
            EXPECT_EQ(out.partitionStyle, c.style);
            EXPECT_EQ(out.diskNumber, static_cast<uint32_t>(std::stoul(std::wstring(c.path).substr(17))));
            EXPECT_TRUE(log.Contains(std::wstring(L"Offline the disk ") + c.path + L"."));
            EXPECT_EQ(log.Matching(L"acquired disk changes round").size(), 1u);
            EXPECT_EQ(pause_.pauses, std::vector<DWORD>(c.offlineCalls - 1, 1000));
        } else {
            EXPECT_EQ(pause_.pauses, std::vector<DWORD>(120, 1000));
            EXPECT_EQ(log.Matching(L"acquired disk changes round").size(), 120u);
            EXPECT_TRUE(log.Contains(L"acquired disk changes round 120."));
            EXPECT_TRUE(log.Contains(L"Can't locate the new created disk with size 107374182400 after 120 seconds."));
        }
        EXPECT_EQ(OutstandingReferences(), 0);
    }
    EXPECT_TRUE(log_.Contains(L"Locate the new created disk \\\\?\\PhysicalDrive7 with size 107374182400."));
    EXPECT_TRUE(log_.Contains(L"Locate the disk \\\\?\\PhysicalDrive9 with same signature 1592590337."));
    EXPECT_TRUE(log_.Contains(
        L"Locate the disk \\\\?\\PhysicalDrive11 with same signature {A1B2C3D4-0000-1111-2222-333344445555}."));
}

}  // namespace
