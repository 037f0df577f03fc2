// Snapshot deletion on a VM whose session folders and disk files are real
// files, some held open while the deletion runs.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "fake_hyperv.h"
#include "hyperv/pending_delete.h"
#include "hyperv/snapshot_delete.h"
#include "kx_test.h"

using kxtest::FakeHyperV;
using kxtest::ScratchDir;
namespace h = kx::hyperv;

namespace {

constexpr const wchar_t* kVm = L"{5C0FFEE0-3333-4E6F-9A22-00DD00EE00FF}";
const std::wstring kZero = L"_00000000-0000-0000-0000-000000000000";

// Holds files open (read, no delete sharing) until the end of its scope.
class Holder {
public:
    explicit Holder(const std::vector<std::wstring>& files) {
        for (const auto& f : files) {
            held_.emplace_back(
                ::CreateFileW(f.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
            ready = ready && held_.back();
        }
    }
    void Release() { held_.clear(); }
    bool ready = true;

private:
    std::vector<kx::unique_hfile> held_;
};

struct Vm {
    ScratchDir d;
    std::wstring data = d / L"vmdata", vstore = d / L"dest\\VStore", vhds = d / L"vmdata\\Virtual Hard Disks";
    std::wstring S(int n) const { return vstore + L"\\S000000000" + std::to_wstring(n); }
    std::wstring Pair(int session, const wchar_t* disk, const wchar_t* ext) const {
        return S(session) + L"\\" + disk + kZero + L".a" + ext;
    }
    std::unique_ptr<FakeHyperV> hv;

    Vm() {
        kxtest::MakeDirs(data);
        kxtest::MakeDirs(vhds);
        for (int s : {1, 2, 3, 4}) {
            kxtest::MakeDirs(S(s) + L"\\sub");
            kxtest::WriteText(S(s) + L"\\BackupInfo.XML", "<BackupInfo/>");
            kxtest::WriteText(S(s) + L"\\sub\\block.ctf", "ctf");
        }
        const wchar_t* ext[] = {L"", L"vhd", L"vhdx", L"vhd", L"vhd"};
        for (int s : {1, 2, 3, 4}) {
            kxtest::WriteText(S(s) + L"\\disk0000000001." + ext[s], "base");
            kxtest::WriteText(Pair(s, L"disk0000000001", ext[s]), "diff");
        }
        kxtest::WriteText(S(4) + L"\\disk0000000002.vhd", "base");
        kxtest::WriteText(Pair(4, L"disk0000000002", L"vhd"), "diff");
        kxtest::WriteText(vhds + L"\\disk9.vhdx", "base");
        kxtest::WriteText(vhds + L"\\disk9_7A5C0E1D-4B3A-4F2E-9D8C-112233445566.avhdx", "hyper-v's own");
        kxtest::WriteText(vhds + L"\\disk9" + kZero + L".avhdx", "diff");
        hv = std::make_unique<FakeHyperV>(std::wstring(L"vm ") + kVm + L" Standby\ndata " + data + L"\ndisk " +
                                          Pair(3, L"disk0000000001", L"vhd") + L"\nsnapshot {A}\nsdisk " +
                                          Pair(1, L"disk0000000001", L"vhd") + L"\nsdisk C:\\iso\\tools.iso\n"
                                          L"snapshot {B}\nsdisk " + Pair(2, L"disk0000000001", L"vhdx") +
                                          L"\nsnapshot {D}\nsdisk " + Pair(4, L"disk0000000001", L"vhd") +
                                          L"\nsnapshot {E}\nsdisk " + Pair(4, L"disk0000000002", L"vhd") +
                                          L"\nsnapshot {F}\nsdisk " + vhds +
                                          L"\\disk9_7A5C0E1D-4B3A-4F2E-9D8C-112233445566.avhdx\nsnapshot {G}\nsdisk " +
                                          vhds + L"\\disk9" + kZero + L".avhdx\n");
    }

    // Begin, Hyper-V's deletion, End.
    DWORD Delete(const wchar_t* snapshot) {
        SnapshotDeleteHandle* handle = nullptr;
        if (DWORD rc = h::BeginDeleteSnapshot_HyperV(kVm, snapshot, &handle)) return rc;
        hv->DeleteSnapshot(kVm, snapshot);
        return h::EndDeleteSnapshot_HyperV(handle, true);
    }
    h::PendingDelContext Record() const { return {data, kVm}; }
};

}  // namespace

TEST(SnapshotDelete, ExactlyTheSnapshotsOwnFilesGoAndWhatIsHeldOpenWaitsInTheRecord) {
    Vm vm;
    // A: its session folder and disk pair go, whole.
    ASSERT_EQ(vm.Delete(L"{A}"), 0u);
    EXPECT_FALSE(kxtest::Exists(vm.S(1)));
    for (int s : {2, 3, 4}) EXPECT_TRUE(kxtest::Exists(vm.S(s) + L"\\sub\\block.ctf"));

    // D: its pair goes; the folder stays because snapshot E still runs from it.
    ASSERT_EQ(vm.Delete(L"{D}"), 0u);
    EXPECT_FALSE(kxtest::Exists(vm.S(4) + L"\\disk0000000001.vhd"));
    EXPECT_FALSE(kxtest::Exists(vm.Pair(4, L"disk0000000001", L"vhd")));
    EXPECT_TRUE(kxtest::Exists(vm.S(4) + L"\\disk0000000002.vhd"));
    EXPECT_TRUE(kxtest::Exists(vm.S(4) + L"\\BackupInfo.XML"));

    // G: the base disk9.vhdx carries snapshot F's own differencing disk, so
    // the pair stays, and nothing is recorded for it.
    ASSERT_EQ(vm.Delete(L"{G}"), 0u);
    EXPECT_TRUE(kxtest::Exists(vm.vhds + L"\\disk9.vhdx"));
    EXPECT_TRUE(kxtest::Exists(vm.vhds + L"\\disk9" + kZero + L".avhdx"));

    std::vector<std::wstring> folders;
    std::vector<h::DiskPair> pairs;
    {
        // B while another process holds its differencing disk open.
        Holder holder({vm.Pair(2, L"disk0000000001", L"vhdx")});
        ASSERT_TRUE(holder.ready);
        ASSERT_EQ(vm.Delete(L"{B}"), 0u);
        EXPECT_TRUE(kxtest::Exists(vm.Pair(2, L"disk0000000001", L"vhdx")));
        ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(vm.Record(), folders), 0u);
        ASSERT_EQ(h::_ReadPendingDelPair(vm.Record(), pairs), 0u);
        EXPECT_EQ(folders, std::vector<std::wstring>{vm.S(2)});
        EXPECT_EQ(pairs, (std::vector<h::DiskPair>{{vm.S(2) + L"\\disk0000000001.vhdx", vm.Pair(2, L"disk0000000001", L"vhdx")}}));

        // A deletion while it is still held keeps the record as it is.
        ASSERT_EQ(vm.Delete(L"{F}"), 0u);
        ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(vm.Record(), folders), 0u);
        EXPECT_EQ(folders.size(), 1u);
    }
    // Released: the next deletion replays the record first, then E's own
    // files go, and with them the folder nobody uses now.
    ASSERT_EQ(vm.Delete(L"{E}"), 0u);
    EXPECT_FALSE(kxtest::Exists(vm.S(2)));
    EXPECT_FALSE(kxtest::Exists(vm.S(4)));
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(vm.Record(), folders), 0u);
    ASSERT_EQ(h::_ReadPendingDelPair(vm.Record(), pairs), 0u);
    EXPECT_TRUE(folders.empty());
    EXPECT_TRUE(pairs.empty());
    // The running state's files were never touched; F gone, G's pair is free now.
    EXPECT_TRUE(kxtest::Exists(vm.Pair(3, L"disk0000000001", L"vhd")));
    EXPECT_TRUE(kxtest::Exists(vm.S(3) + L"\\disk0000000001.vhd"));
    EXPECT_TRUE(kxtest::Exists(vm.vhds + L"\\disk9.vhdx"));
}

TEST(SnapshotDelete, NothingGoesWhenTheDeletionDidNotHappenOrTheSnapshotIsStillListed) {
    Vm vm;
    SnapshotDeleteHandle* handle = nullptr;
    ASSERT_EQ(h::BeginDeleteSnapshot_HyperV(kVm, L"{A}", &handle), 0u);
    EXPECT_EQ(h::EndDeleteSnapshot_HyperV(handle, false), 0u);
    ASSERT_EQ(h::BeginDeleteSnapshot_HyperV(kVm, L"{A}", &handle), 0u);
    EXPECT_EQ(h::EndDeleteSnapshot_HyperV(handle, true), static_cast<DWORD>(ERROR_BUSY));  // Hyper-V still lists it
    EXPECT_TRUE(kxtest::Exists(vm.S(1) + L"\\disk0000000001.vhd"));

    handle = reinterpret_cast<SnapshotDeleteHandle*>(1);
    EXPECT_EQ(h::BeginDeleteSnapshot_HyperV(kVm, L"{NOPE}", &handle), static_cast<DWORD>(ERROR_NOT_FOUND));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(h::BeginDeleteSnapshot_HyperV(L"{NOVM}", L"{A}", &handle), 0xFFFFFFFEu);
    EXPECT_EQ(h::BeginDeleteSnapshot_HyperV(nullptr, L"{A}", &handle), kx::kE_INVALIDARG);
    EXPECT_EQ(h::BeginDeleteSnapshot_HyperV(kVm, L"{A}", nullptr), kx::kE_INVALIDARG);
    EXPECT_EQ(h::EndDeleteSnapshot_HyperV(nullptr, true), kx::kE_INVALIDARG);

    // A recorded folder that the VM runs from again is kept by the replay;
    // one already gone leaves the record.
    ASSERT_EQ(h::_WritePendingDelFolderToCfgFile(vm.Record(), {vm.S(3), vm.d / L"long gone"}), 0u);
    ASSERT_EQ(h::_WritePendingDelPair(vm.Record(), {{vm.S(3) + L"\\disk0000000001.vhd", vm.Pair(3, L"disk0000000001", L"vhd")}}), 0u);
    ASSERT_EQ(h::BeginDeleteSnapshot_HyperV(kVm, L"{A}", &handle), 0u);
    EXPECT_EQ(h::EndDeleteSnapshot_HyperV(handle, false), 0u);
    std::vector<std::wstring> folders;
    std::vector<h::DiskPair> pairs;
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(vm.Record(), folders), 0u);
    ASSERT_EQ(h::_ReadPendingDelPair(vm.Record(), pairs), 0u);
    EXPECT_EQ(folders, std::vector<std::wstring>{vm.S(3)});
    EXPECT_EQ(pairs.size(), 1u);
    EXPECT_TRUE(kxtest::Exists(vm.Pair(3, L"disk0000000001", L"vhd")));
}

TEST(CleanUselessVirtualDisk, RemovesUnusedDiskFilesOnlyAndKeepsWhatIsHeld) {
    Vm vm;
    const std::wstring dir = vm.vhds;
    kxtest::WriteText(dir + L"\\old.vhd", "x");
    kxtest::WriteText(dir + L"\\old" + kZero + L".avhd", "x");
    kxtest::WriteText(dir + L"\\held.avhd", "x");
    kxtest::WriteText(dir + L"\\notes.txt", "x");
    kxtest::WriteText(dir + L"\\copy.vhd.bak", "x");
    kxtest::MakeDirs(dir + L"\\sub.vhd");
    kxtest::WriteText(dir + L"\\sub.vhd\\inner.vhd", "x");
    Holder holder({dir + L"\\held.avhd"});
    ASSERT_TRUE(holder.ready);
    // disk9.vhdx and its two differencing disks are used by snapshots F and G.
    EXPECT_EQ(h::CleanUselessVirtualDisk(kVm, dir.c_str()), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    for (const wchar_t* gone : {L"old.vhd", L"old_00000000-0000-0000-0000-000000000000.avhd"})
        EXPECT_FALSE(kxtest::Exists(dir + L"\\" + gone));
    for (const wchar_t* kept : {L"held.avhd", L"notes.txt", L"copy.vhd.bak", L"sub.vhd\\inner.vhd", L"disk9.vhdx",
                                    L"disk9_7A5C0E1D-4B3A-4F2E-9D8C-112233445566.avhdx"})
        EXPECT_TRUE(kxtest::Exists(dir + L"\\" + kept)) << kxtest::Narrow(kept);
    EXPECT_TRUE(kxtest::Exists(dir + L"\\disk9" + kZero + L".avhdx"));
    holder.Release();
    EXPECT_EQ(h::CleanUselessVirtualDisk(kVm, dir.c_str()), 0u);
    EXPECT_FALSE(kxtest::Exists(dir + L"\\held.avhd"));
    EXPECT_EQ(h::CleanUselessVirtualDisk(kVm, nullptr), kx::kE_INVALIDARG);
}

TEST(SnapshotDelete, BaseDiskNamesFollowTheDifferencingDisksName) {
    const struct {
        std::wstring in, base;
    } cases[] = {
        {L"C:\\v\\disk" + kZero + L".avhd", L"C:\\v\\disk.vhd"},
        {L"C:\\v\\a_b_7A5C0E1D-4B3A-4F2E-9D8C-112233445566.AVHDX", L"C:\\v\\a_b.vhdx"},
        {L"C:\\v\\disk-7A5C0E1D-4B3A-4F2E-9D8C-112233445566.avhdx", L""},  // no "_"
        {L"C:\\v\\disk_7A5C0E1D-4B3A-4F2E-9D8C-11223344556G.avhdx", L""},  // not a GUID
        {L"C:\\v\\disk.vhd", L""},
        {L"x.avhd", L""},
    };
    for (const auto& c : cases) EXPECT_EQ(h::BaseDiskOf(c.in), c.base) << kxtest::Narrow(c.in);
}
