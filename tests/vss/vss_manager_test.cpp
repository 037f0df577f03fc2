// The snapshot manager against the recording shadow-copy service: the
// protocol in order, a failure at every step, asynchronous steps that
// linger, fail, are cancelled or never end, and after every case no fake
// object and no snapshot property left.
#include <gtest/gtest.h>
#include <windows.h>

#include <vsserror.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fake_vss.h"
#include "hyperv/vss_manager.h"
#include "kx_test.h"

namespace {

using fakevss::AsyncScript;
using fakevss::End;
using fakevss::FakeVss;
using Calls = std::vector<std::wstring>;

const std::wstring kVolC = L"\\\\?\\Volume{0000000c-0000-0000-0000-000000000000}\\";
const std::wstring kVolD = L"\\\\?\\Volume{0000000d-0000-0000-0000-000000000000}\\";
const std::wstring kShadow = L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy";

const Calls kMakeTwo = {L"CreateVssBackupComponents", L"InitializeForBackup", L"SetContext", L"SetBackupState",
                        L"GatherWriterMetadata",      L"StartSnapshotSet",    L"IsVolumeSupported", L"AddToSnapshotSet",
                        L"IsVolumeSupported",         L"AddToSnapshotSet",    L"PrepareForBackup", L"DoSnapshotSet",
                        L"GetSnapshotProperties",     L"GetSnapshotProperties"};

std::string Text(const Calls& calls) {
    std::string out;
    for (const auto& c : calls) out += kxtest::Narrow(c) + " ";
    return out;
}

// A service with volumes C: and D: and a pause that only counts; checks at
// the end that the case left nothing behind.
class VssManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const wchar_t* p : {L"C:", L"C:\\", L"c:\\data\\vm", L"C:\\mnt"}) fake_.AddVolume(p, kVolC);
        fake_.AddVolume(L"D:\\", kVolD);
        ASSERT_EQ(0u, kx::hyperv::CreateVssManager(&mgr_));
    }
    void TearDown() override {
        if (mgr_) {
            EXPECT_EQ(0u, mgr_->Release());
        }
        EXPECT_EQ(0, fakevss::LiveObjects());
        EXPECT_EQ(0, fake_.propsLive);
        EXPECT_TRUE(fake_.violations.empty()) << kxtest::Narrow(fake_.violations.front());
    }
    DWORD MakeTwo() { return mgr_->CreateSnapshotSet({L"C:\\", L"D:\\"}); }

    FakeVss fake_;
    fakevss::CountingPause pause_;
    IVssMgr* mgr_ = nullptr;
};

TEST_F(VssManagerTest, SetOfNamedVolumesFollowsTheProtocolAndIsDeletedOnce) {
    struct Case {
        std::vector<std::wstring> names;
        std::vector<std::wstring> volumes;  // in the set, in order
    } cases[] = {
        {{L"C:"}, {kVolC}},
        {{L"D:\\", L"c:\\data\\vm", L"C:\\mnt"}, {kVolD, kVolC}},  // two names of C: share one snapshot
    };
    for (const Case& c : cases) {
        fake_.calls.clear();
        ASSERT_EQ(0u, mgr_->CreateSnapshotSet(c.names));
        EXPECT_EQ(c.volumes, fake_.added);
        if (c.volumes.size() == 2) {
            EXPECT_EQ(kMakeTwo, fake_.calls) << Text(fake_.calls);
        }
        std::vector<VssSnapshotInfo> snaps;
        ASSERT_EQ(0u, mgr_->GetSnapshots(snaps));
        ASSERT_EQ(c.volumes.size(), snaps.size());
        for (size_t i = 0; i < snaps.size(); ++i) {
            EXPECT_EQ(c.volumes[i], snaps[i].volume);
            EXPECT_EQ(kShadow + std::to_wstring(40 + i), snaps[i].shadowDevice);
            EXPECT_EQ(i + 1, snaps[i].snapshotId.Data1);
        }
        // Every name given finds its volume's device.
        for (const auto& name : c.names) {
            std::wstring device, volume;
            ASSERT_EQ(0u, mgr_->GetShadowDevicePath(name, device));
            ASSERT_EQ(0u, fake_.VolumeNameOf(name, volume));
            const size_t at = std::find(c.volumes.begin(), c.volumes.end(), volume) - c.volumes.begin();
            EXPECT_EQ(kShadow + std::to_wstring(40 + at), device);
        }
        EXPECT_EQ(0, fake_.propsLive) << "properties are freed once read";
        ASSERT_EQ(0u, mgr_->DeleteSnapshotSet());
        const Calls tail(fake_.calls.end() - 2, fake_.calls.end());
        EXPECT_EQ((Calls{L"BackupComplete", L"DeleteSnapshots"}), tail);
        EXPECT_EQ(0, fakevss::LiveObjects()) << "the components go with the set";
        EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr_->DeleteSnapshotSet());
    }
}

TEST_F(VssManagerTest, FailureAtEveryStepUndoesWhatWasMadeAndLeavesTheManagerUsable) {
    const size_t start = 5;  // StartSnapshotSet's place in kMakeTwo
    const size_t snapshot = 11;  // DoSnapshotSet's
    for (size_t step = 0; step < kMakeTwo.size(); ++step) {
        const std::wstring name = kMakeTwo[step];
        if (step > 0 && kMakeTwo[step - 1] == name) continue;
        if (step >= 2 && kMakeTwo[step - 2] == name) continue;  // the second volume's calls: failed with the first
        SCOPED_TRACE(kxtest::Narrow(name));
        const HRESULT code = static_cast<HRESULT>(0x80042300 + step);  // any code: passed on unchanged
        fake_.calls.clear();
        fake_.script.fail = {{name, code}};
        ASSERT_EQ(static_cast<DWORD>(code), MakeTwo());

        Calls want(kMakeTwo.begin(), kMakeTwo.begin() + static_cast<long>(step) + 1);
        if (step > snapshot) want.push_back(L"DeleteSnapshots");
        if (step > start) want.push_back(L"AbortBackup");
        EXPECT_EQ(want, fake_.calls) << Text(fake_.calls);
        EXPECT_EQ(0, fakevss::LiveObjects());
        EXPECT_EQ(0, fake_.propsLive);
        GUID id;
        EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr_->GetSnapshotSetId(&id));

        fake_.script.fail.clear();
        ASSERT_EQ(0u, MakeTwo()) << "a new set after the failure";
        ASSERT_EQ(0u, mgr_->DeleteSnapshotSet());
    }
}

TEST_F(VssManagerTest, AsynchronousStepsThatLingerFailAreCancelledOrNeverEnd) {
    const HRESULT veto = VSS_E_WRITERERROR_TIMEOUT;
    struct Case {
        const wchar_t* step;
        AsyncScript script;
        HRESULT want;
        bool deletes;  // DeleteSnapshots is called (part of the set may exist)
    } cases[] = {
        {L"GatherWriterMetadata", {2, End::Failed, veto}, veto, false},
        {L"GatherWriterMetadata", {0, End::Never}, kx::hyperv::kVssStepTimedOut, false},
        {L"PrepareForBackup", {3, End::Cancelled}, kx::hyperv::kVssStepCancelled, false},
        {L"DoSnapshotSet", {4, End::Failed, VSS_E_FLUSH_WRITES_TIMEOUT}, VSS_E_FLUSH_WRITES_TIMEOUT, true},
        {L"DoSnapshotSet", {0, End::Cancelled}, kx::hyperv::kVssStepCancelled, true},
        {L"DoSnapshotSet", {0, End::Never}, kx::hyperv::kVssStepTimedOut, true},
        {L"DoSnapshotSet", {5, End::Finished}, S_OK, true},  // deleted by the test
        {L"BackupComplete", {7, End::Finished}, S_OK, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kxtest::Narrow(c.step) + " " + std::to_string(static_cast<int>(c.script.end)));
        fake_.calls.clear();
        fake_.script.async = {{c.step, c.script}};
        pause_.total = 0;
        ASSERT_EQ(static_cast<DWORD>(c.want), MakeTwo());
        if (SUCCEEDED(c.want)) {
            ASSERT_EQ(0u, mgr_->DeleteSnapshotSet());
        }
        const bool started = FAILED(c.want) && std::wstring(c.step) != L"GatherWriterMetadata";
        const bool never = c.script.end == End::Never;
        auto has = [&](const std::wstring& call) {
            return std::count(fake_.calls.begin(), fake_.calls.end(), call) == 1;
        };
        EXPECT_EQ(started, has(L"AbortBackup")) << Text(fake_.calls);
        EXPECT_EQ(c.deletes, has(L"DeleteSnapshots")) << Text(fake_.calls);
        EXPECT_EQ(never, has(std::wstring(L"Cancel:") + c.step));
        // Pauses are the seam's: a step that never ends is given up at the
        // documented limit, one that lingers is waited for one poll a time.
        EXPECT_EQ(never ? kx::hyperv::kVssStepLimitMs : c.script.pending * kx::hyperv::kVssPollMs, pause_.total);
        EXPECT_EQ(0, fakevss::LiveObjects());
    }
}

TEST_F(VssManagerTest, RefusalsBeforeAndDuringTheSet) {
    struct Case {
        const char* what;
        std::vector<std::wstring> names;
        std::wstring refused;  // a volume IsVolumeSupported refuses
        bool noDevice;
        std::wstring queryFails;  // a step whose state can't be read
        DWORD want;
        Calls tail;  // the last calls
    } cases[] = {
        {"empty list", {}, L"", false, L"", 0x80070057, {}},
        {"empty name", {L"C:\\", L""}, L"", false, L"", 0x80070057, {}},
        {"unknown volume", {L"C:\\", L"Q:\\"}, L"", false, L"", 0x80070002, {}},
        {"volume refused", {L"C:\\", L"D:\\"}, kVolD, false, L"", static_cast<DWORD>(VSS_E_VOLUME_NOT_SUPPORTED),
         {L"AddToSnapshotSet", L"IsVolumeSupported", L"AbortBackup"}},
        {"no device", {L"D:\\"}, L"", true, L"", static_cast<DWORD>(VSS_E_UNEXPECTED),
         {L"GetSnapshotProperties", L"DeleteSnapshots", L"AbortBackup"}},
        {"state unreadable", {L"D:\\"}, L"", false, L"PrepareForBackup", static_cast<DWORD>(E_ACCESSDENIED),
         {L"AddToSnapshotSet", L"PrepareForBackup", L"AbortBackup"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        fake_.calls.clear();
        fake_.script = {};
        if (!c.refused.empty()) fake_.script.unsupported.insert(c.refused);
        fake_.script.noDevice = c.noDevice;
        if (!c.queryFails.empty()) fake_.script.fail[L"QueryStatus:" + c.queryFails] = E_ACCESSDENIED;
        EXPECT_EQ(c.want, mgr_->CreateSnapshotSet(c.names));
        if (c.tail.empty()) {
            EXPECT_TRUE(fake_.calls.empty()) << "nothing asked of the service";
        } else {
            ASSERT_GE(fake_.calls.size(), c.tail.size());
            EXPECT_EQ(c.tail, Calls(fake_.calls.end() - static_cast<long>(c.tail.size()), fake_.calls.end()));
        }
        EXPECT_EQ(0, fakevss::LiveObjects());
        EXPECT_EQ(0, fake_.propsLive);
    }
}

TEST_F(VssManagerTest, QuestionsWithoutASetAndASecondSet) {
    GUID id;
    std::wstring device = L"x";
    std::vector<VssSnapshotInfo> snaps;
    EXPECT_EQ(0x80004003u, mgr_->GetSnapshotSetId(nullptr));
    EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr_->GetSnapshotSetId(&id));
    EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr_->GetSnapshots(snaps));
    EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr_->GetShadowDevicePath(L"C:\\", device));
    EXPECT_TRUE(device.empty());
    ASSERT_EQ(0u, mgr_->CreateSnapshotSet({L"C:"}));
    EXPECT_EQ(0u, mgr_->GetSnapshotSetId(&id));
    EXPECT_EQ(0x5e75e700u, id.Data1);
    EXPECT_EQ(static_cast<DWORD>(VSS_E_OBJECT_NOT_FOUND), mgr_->GetShadowDevicePath(L"D:\\", device));
    EXPECT_EQ(0x80070002u, mgr_->GetShadowDevicePath(L"Q:\\", device));
    fake_.calls.clear();
    EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr_->CreateSnapshotSet({L"D:\\"}));
    EXPECT_TRUE(fake_.calls.empty());
    EXPECT_EQ(0u, mgr_->GetSnapshots(snaps));
    EXPECT_EQ(1u, snaps.size()) << "the first set is untouched";
}

TEST_F(VssManagerTest, ReleaseGivesTheSetUpUnlessKept) {
    struct Case {
        const char* what;
        bool make;
        bool keep;
        Calls tail;
    } cases[] = {
        {"set deleted", true, false, {L"BackupComplete", L"DeleteSnapshots"}},
        {"set kept", true, true, {L"GetSnapshotProperties", L"BackupComplete"}},
        {"no set", false, false, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        IVssMgr* mgr = nullptr;
        ASSERT_EQ(0u, kx::hyperv::CreateVssManager(&mgr));
        fake_.calls.clear();
        if (c.make) {
            ASSERT_EQ(0u, mgr->CreateSnapshotSet({L"C:\\"}));
        }
        mgr->KeepSnapshotSet(c.keep);
        EXPECT_EQ(0u, mgr->Release());
        ASSERT_GE(fake_.calls.size(), c.tail.size());
        EXPECT_EQ(c.tail, Calls(fake_.calls.end() - static_cast<long>(c.tail.size()), fake_.calls.end()));
        EXPECT_EQ(0, fakevss::LiveObjects());
    }
}

TEST_F(VssManagerTest, FailedDeleteKeepsTheSetForTheNextTry) {
    ASSERT_EQ(0u, MakeTwo());
    fake_.calls.clear();
    fake_.script.fail[L"DeleteSnapshots"] = VSS_E_PROVIDER_VETO;
    fake_.script.async[L"BackupComplete"] = {0, End::Failed, VSS_E_WRITERERROR_RETRYABLE};
    EXPECT_EQ(static_cast<DWORD>(VSS_E_PROVIDER_VETO), mgr_->DeleteSnapshotSet());
    GUID id;
    EXPECT_EQ(0u, mgr_->GetSnapshotSetId(&id)) << "still recorded";
    EXPECT_EQ(1, fakevss::LiveObjects()) << "the components stay for the next try";
    fake_.script.fail.clear();
    EXPECT_EQ(0u, mgr_->Release());
    mgr_ = nullptr;
    // BackupComplete once (its failure does not stop the delete), the delete twice.
    EXPECT_EQ((Calls{L"BackupComplete", L"DeleteSnapshots", L"DeleteSnapshots"}), fake_.calls);
}

TEST_F(VssManagerTest, FailuresAreLoggedWithTheirNames) {
    kxtest::LogCursor log;
    fake_.script.fail[L"DoSnapshotSet"] = VSS_E_PROVIDER_VETO;
    EXPECT_EQ(static_cast<DWORD>(VSS_E_PROVIDER_VETO), MakeTwo());
    EXPECT_TRUE(log.Contains(L"DoSnapshotSet failed, hr = 0x80042306 (VSS_E_PROVIDER_VETO)"));
    EXPECT_TRUE(log.Contains(L"IVssMgr::CreateSnapshotSet() finished, hr = [0x80042306]"));
}

}  // namespace
