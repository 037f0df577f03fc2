// From a VM's disks back to its backup session, mark files, the size of the
// destinations on a volume and the recovery-information copies, on
// destinations made of real folders and disk files, with the VMs and
// snapshots of a fake Hyper-V host.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "fake_hyperv.h"
#include "hyperv/disk_chain.h"
#include "hyperv/mark_files.h"
#include "hyperv/recovery_paths.h"
#include "hyperv/snapshot_delete.h"
#include "kx_test.h"
#include "platform/vdisk.h"
#include "platform/vhdx/vhdx_disk.h"
#include "platform/win32_positioned_file.h"

using kxtest::FakeHyperV;
using kxtest::LogCursor;
using kxtest::ScratchDir;
namespace h = kx::hyperv;

namespace {

constexpr const wchar_t* kVm = L"{0B7A3E10-2222-4D5C-8E11-00AA00BB00CC}";

void Ini(const std::wstring& file, const wchar_t* section, const wchar_t* key, const std::wstring& value) {
    ASSERT_TRUE(::WritePrivateProfileStringW(section, key, value.c_str(), file.c_str()));
}

// A destination root with BackupDev.sig and the given session folders.
void MakeDest(const std::wstring& root, std::initializer_list<const wchar_t*> sessions) {
    kxtest::MakeDirs(root);
    kxtest::WriteText(root + L"\\BackupDev.sig", "sig");
    for (const wchar_t* s : sessions) kxtest::MakeDirs(root + L"\\VStore\\" + s);
}

// head is the header of leaf1 and leaf2; plain stands alone.
struct Destinations {
    ScratchDir d;
    std::wstring head = d / L"head", leaf1 = d / L"leaf1", leaf2 = d / L"leaf2", plain = d / L"plain";
    Destinations() {
        MakeDest(head, {L"S0000000007"});
        MakeDest(leaf1, {L"S0000000007"});
        MakeDest(leaf2, {L"S0000000008"});
        MakeDest(plain, {L"S0000000003"});
        Ini(head + L"\\header_root.ini", L"LEAF COUNT", L"Count", L"2");
        Ini(head + L"\\header_root.ini", L"LEAF LOCATION", L"Leaf0", leaf1);
        Ini(head + L"\\header_root.ini", L"LEAF LOCATION", L"Leaf1", leaf2);
        for (const auto& leaf : {leaf1, leaf2}) Ini(leaf + L"\\leaf_root.ini", L"HEADER LOCATION", L"Header", head);
    }
};

// A dynamic VHD whose first sector carries `signature` at byte 440.
void MakeVhd(const std::wstring& path, DWORD signature) {
    std::unique_ptr<kx::vdisk::IVDisk> disk;
    ASSERT_EQ(kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDynamic, 8ull << 20, nullptr, &disk), 0u);
    BYTE sector[512] = {};
    memcpy(sector + 440, &signature, 4);
    sector[510] = 0x55;
    sector[511] = 0xAA;
    ASSERT_EQ(disk->WriteSectors(0, 1, sector), 0u);
}

// A small dynamic VHDX disk, made by the VHDX library.
void MakeVhdx(const std::wstring& path) {
    kx::vdisk::Win32FileSystem fs(FILE_SHARE_READ);
    kx::vhdx::CreateParams params;
    params.size = 4u << 20;
    params.blockSize = 1u << 20;
    std::unique_ptr<kx::vhdx::VhdxDisk> disk;
    ASSERT_EQ(kx::vhdx::VhdxDisk::Create(fs, kx::vdisk::ToU16(path), params, &disk), 0u);
}

std::wstring RootPathOf(const wchar_t* snapshot, DWORD* rc) {
    h::CDrVolCbImp cb;
    std::wstring dir;
    *rc = cb.Init(kVm, snapshot);
    if (*rc == 0) *rc = cb.GetRootPath(dir);
    return dir;
}

}  // namespace

// The callback's slots as the recovery core calls them: with this compiler a
// pointer to a virtual member holds 1 + its byte offset in the table, after
// the destructor's two entries.
TEST(DrVolCallback, SlotsFollowTheDestructorInTheirOrder) {
    auto offset = [](auto member) {
        std::uintptr_t raw[2];
        static_assert(sizeof member == sizeof raw);
        memcpy(raw, &member, sizeof raw);
        return static_cast<int>(raw[0] - 1) / static_cast<int>(sizeof(void*));
    };
    EXPECT_EQ(offset(&h::IDrVolCallback::Release), 2);
    EXPECT_EQ(offset(&h::IDrVolCallback::GetDiskPathBySig), 3);
    EXPECT_EQ(offset(&h::IDrVolCallback::OnVolumeDone), 4);

    auto* cb = new h::CDrVolCbImp;
    h::IDrVolCallback* base = cb;
    std::wstring path;
    EXPECT_EQ(base->GetDiskPathBySig(1, path), kx::kE_INVALIDARG);  // no Init yet
    EXPECT_EQ(base->OnVolumeDone(L"C:", 0), 0u);
    base->Release();
}

TEST(DiskChain, TheSessionFolderComesFromTheFirstDiskFileAndMovesToTheHeader) {
    Destinations t;
    const std::wstring leafDisk = t.leaf1 + L"\\VStore\\S0000000007\\disk0000001234.vhdx";
    const std::wstring plainDisk = t.plain + L"\\VStore\\S0000000003\\disk0000000001.VHD";
    const struct {
        const char* what;
        std::wstring description;
        const wchar_t* snapshot;
        DWORD rc;
        std::wstring dir;
        const wchar_t* line;
    } cases[] = {
        {"leaf maps to header", L"disk " + leafDisk, nullptr, 0, t.head + L"\\VStore\\S0000000007",
         L"CDrVolCbImp::GetRootPath, the dir get is "},
        {"a plain root is its own header", L"disk " + plainDisk, nullptr, 0, t.plain + L"\\VStore\\S0000000003",
         L"CDrVolCbImp::GetRootPath, GetHeaderRoot failed, rc = "},
        {"only iso images", L"disk C:\\iso\\setup.iso\ndisk C:\\iso\\tools.ISO", nullptr, h::kNoVmOrImage, L"",
         L"CDrVolCbImp::GetRootPath, does not find vhd or avhd from images"},
        {"the first qualifying image wins",
         L"disk C:\\iso\\a.iso\ndisk " + t.leaf2 + L"\\VStore\\S0000000008\\d.AvHd\ndisk " + plainDisk, nullptr, 0,
         t.head + L"\\VStore\\S0000000008", nullptr},
        {"look-alike extensions do not qualify",
         L"disk C:\\x\\d.vhd.bak\ndisk C:\\x\\vhd\ndisk C:\\x\\d.vhdxx\ndisk " + plainDisk, nullptr, 0,
         t.plain + L"\\VStore\\S0000000003", nullptr},
        {"not a session folder", L"disk C:\\VMs\\disk.vhdx", nullptr, 0xFFFFFFFF, L"",
         L"CDrVolCbImp::GetRootPath, Get root and sessNo failed, dir = C:\\VMs"},
        {"empty disk list", L"", nullptr, h::kNoVmOrImage, L"", L"CDrVolCbImp::GetRootPath, GetDiskImages , empty vector"},
        {"failing disk list", L"fail disks 21", nullptr, 21, L"", L"CDrVolCbImp::GetRootPath, GetDiskImages by VM failed, rc = 21"},
        {"a snapshot's own disks", L"disk " + plainDisk + L"\nsnapshot {S1}\nsdisk " + leafDisk, L"{S1}", 0,
         t.head + L"\\VStore\\S0000000007", nullptr},
        {"an unknown snapshot", L"disk " + plainDisk, L"{NOPE}", ERROR_NOT_FOUND, L"",
         L"CDrVolCbImp::GetDiskPathBySig, GetSnapshotByGuid failed, rc = 1168, snap = {NOPE}"},
        {"a snapshot whose list fails", L"snapshot {S1}\nfail sdisks 5", L"{S1}", 5, L"",
         L"CDrVolCbImp::GetRootPath, GetDiskImages failed, rc = 5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        FakeHyperV hv(std::wstring(L"vm ") + kVm + L" Standby\n" + c.description);
        LogCursor log;
        DWORD rc = 0;
        EXPECT_EQ(RootPathOf(c.snapshot, &rc), c.dir);
        EXPECT_EQ(rc, c.rc);
        if (c.line) {
            EXPECT_TRUE(log.Contains(c.line));
        }
    }
}

TEST(DiskChain, InitNamesWhatIsMissing) {
    {
        FakeHyperV hv(L"fail open 5");
        LogCursor log;
        h::CDrVolCbImp cb;
        EXPECT_EQ(cb.Init(kVm, L""), h::kNoHyperVOperation);
        EXPECT_TRUE(log.Contains(L"CDrVolCbImp::Init, input CurrSnapshotID is empty, indicate snapshot NOW"));
        EXPECT_TRUE(log.Contains(L"CDrVolCbImp::Init, OpenHyperVOperation failed"));
    }
    FakeHyperV hv(L"vm {OTHER} x");
    LogCursor log;
    h::CDrVolCbImp cb;
    EXPECT_EQ(cb.Init(nullptr, nullptr), kx::kE_INVALIDARG);
    EXPECT_EQ(cb.Init(kVm, nullptr), h::kNoVmOrImage);
    EXPECT_TRUE(log.Contains(L"CDrVolCbImp::Init, GetVmByGuid failed"));
    std::wstring dir;
    EXPECT_EQ(cb.GetRootPath(dir), kx::kE_INVALIDARG);
    // Without the fake the host has no Hyper-V to ask.
    kx::platform::SetHyperVOps(nullptr);
    LogCursor none;
    h::CDrVolCbImp cb2;
    EXPECT_EQ(cb2.Init(kVm, nullptr), h::kNoHyperVOperation);
    EXPECT_TRUE(none.Contains(L"HyperVOps: the Hyper-V WMI provider is not available on this host"));
    kx::platform::SetHyperVOps(&hv);
}

TEST(DiskChain, DiskBySignatureReadsVhdSectorsAndVhdxNamesEvenWhileAWriterHoldsTheFile) {
    ScratchDir d;
    const std::wstring vhd = d / L"data.vhd", vhdx = d / L"disk0000000042.vhdx", noId = d / L"system.vhdx",
                       badNum = d / L"diskA.avhdx", notVhdx = d / L"disk0000000043.vhdx";
    MakeVhd(vhd, 0xA1B2C3D4);
    MakeVhdx(vhdx);
    MakeVhdx(noId);
    MakeVhdx(badNum);
    // Its first eight bytes say VHDX, nothing after them does: only a real
    // open tells it from a disk.
    std::string fakeId = "vhdxfile";
    fakeId.resize(1 << 20, '\0');
    kxtest::WriteText(notVhdx, fakeId);
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" s\ndisk C:\\x.iso\ndisk " + noId + L"\ndisk " + badNum + L"\ndisk " +
                  notVhdx + L"\ndisk " + vhd + L"\ndisk " + vhdx + L"\nsnapshot {S}\nsdisk " + vhdx);
    // A writer that lets others read and write: a read-only sharing open is
    // refused, the second try with write sharing gets in.
    kx::unique_hfile writer(::CreateFileW(vhd.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                          nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(writer);
    // A running VM holds its VHDX open for writing, letting others read.
    kx::unique_hfile running(::CreateFileW(vhdx.c_str(), GENERIC_READ | GENERIC_WRITE,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(running);
    h::CDrVolCbImp cb;
    ASSERT_EQ(cb.Init(kVm, nullptr), 0u);
    LogCursor log;
    std::wstring path;
    EXPECT_EQ(cb.GetDiskPathBySig(0xA1B2C3D4, path), 0u);
    EXPECT_EQ(path, vhd);
    EXPECT_TRUE(log.Contains(L"CDrVolCbImp::GetDiskPathBySig, try with share_rw"));
    EXPECT_TRUE(log.Contains(L"CDrVolCbImp::GetVHDXDiskIDGet disk ID failed, file = " + noId));
    EXPECT_TRUE(log.Contains(L"CDrVolCbImp::GetVHDXDiskIDGet disk ID failed2, file = " + badNum));
    EXPECT_TRUE(log.Contains(L"CDrVolCbImp::GetDiskPathBySig::Create IDiskImageVirtual failed, file = " + notVhdx));
    EXPECT_EQ(cb.GetDiskPathBySig(42, path), 0u);
    EXPECT_EQ(path, vhdx);
    EXPECT_EQ(cb.GetDiskPathBySig(43, path), 0xFFFFFFFFu);  // its file is not a VHDX file
    EXPECT_EQ(cb.GetDiskPathBySig(7, path), 0xFFFFFFFFu);
    EXPECT_TRUE(path.empty());

    h::CDrVolCbImp snap;
    ASSERT_EQ(snap.Init(kVm, L"{S}"), 0u);
    EXPECT_EQ(snap.GetDiskPathBySig(0xA1B2C3D4, path), 0xFFFFFFFFu);  // only the snapshot's disks count
    EXPECT_EQ(snap.GetDiskPathBySig(42, path), 0u);
}

TEST(RecoveryPaths, BufferProtocolAndTheBorrowedFailureLine) {
    Destinations t;
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" Standby\ndisk " + t.leaf1 +
                  L"\\VStore\\S0000000007\\disk0000000001.avhdx");
    const std::wstring folder = t.head + L"\\VStore\\S0000000007\\";
    const struct {
        const char* what;
        std::function<DWORD(wchar_t*, DWORD*)> call;
        std::wstring path;
    } exports[] = {
        {"AdrConfigure_now", [](wchar_t* b, DWORD* n) { return h::GetDrInfoLocalCopyPathForSnapNow_HyperV(L"n", kVm, b, n); },
         folder + L"AdrConfigure_now.xml"},
        {"AdrInfoC", [](wchar_t* b, DWORD* n) { return h::GetAdrInfoCLocalCopyPathForSnapNow_HyperV(L"n", kVm, b, n); },
         folder + L"AdrInfoC.drz"},
    };
    for (const auto& e : exports) {
        SCOPED_TRACE(e.what);
        const DWORD need = static_cast<DWORD>(e.path.size() + 1);
        for (DWORD given : {DWORD{0}, DWORD{1}, need - 1, need, need + 50}) {
            std::vector<wchar_t> buf(given + 1, L'#');
            DWORD n = given;
            const DWORD rc = e.call(buf.data(), &n);
            if (given < need) {
                EXPECT_EQ(rc, 122u);
                EXPECT_EQ(n, need);
                EXPECT_EQ(buf[0], L'#');  // nothing written
            } else {
                EXPECT_EQ(rc, 0u);
                EXPECT_EQ(n, given);
                EXPECT_EQ(std::wstring(buf.data()), e.path);
            }
        }
        DWORD n = 500;
        EXPECT_EQ(e.call(nullptr, &n), 122u);
        EXPECT_EQ(n, need);
    }
    LogCursor log;
    DWORD n = 10;
    EXPECT_EQ(h::GetAdrInfoCLocalCopyPathForSnapNow_HyperV(nullptr, L"{UNKNOWN}", nullptr, &n), h::kNoVmOrImage);
    EXPECT_TRUE(log.Contains(L"GetAdrInfoCLocalCopyPathForSnapNow_HyperV begin, vmname = NULL, vmguid = {UNKNOWN}"));
    EXPECT_TRUE(log.Contains(L"GetAdrInfoCLocalCopyPathForSnapNow_HyperVInner, cb Init failed, rc = -2"));
    EXPECT_TRUE(log.Contains(L"GetDrInfoLocalCopyPathForSnapNow_VMware failed, rc = -2"));
    EXPECT_TRUE(log.Contains(L"GetAdrInfoCLocalCopyPathForSnapNow_HyperV end, path = , rc = -2"));
    EXPECT_EQ(h::GetDrInfoLocalCopyPathForSnapNow_HyperV(L"n", nullptr, nullptr, &n), kx::kE_INVALIDARG);
    EXPECT_TRUE(log.Contains(L"GetAdrLocalCopyPath_HyperV end, path = , rc = -2147024809"));
}

TEST(MarkFiles, TheHeaderFirstThenEachDestinationInOrder) {
    Destinations t;
    const struct {
        const char* what;
        std::vector<std::wstring> marks;  // roots that hold the mark file
        std::wstring root;
        DWORD rc;
        std::wstring dir;
    } cases[] = {
        {"leaf given, mark in header", {t.head}, t.leaf2, 0, t.head},
        {"header given, mark in second leaf", {t.leaf2}, t.head, 0, t.leaf2},
        {"leaf given, mark in the other leaf", {t.leaf1}, t.leaf2, 0, t.leaf1},
        {"both leaves: list order", {t.leaf2, t.leaf1}, t.head, 0, t.leaf1},
        {"root without leaf_root.ini is searched itself", {t.plain}, t.plain + L"\\", 0, t.plain + L"\\"},
        {"nowhere", {t.plain}, t.leaf1, ERROR_FILE_NOT_FOUND, L""},
        {"empty root", {t.head}, L"", kx::kE_INVALIDARG, L""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        for (const auto& r : c.marks) kxtest::WriteText(r + L"\\tag.mark", "m");
        std::wstring dir = L"stale";
        EXPECT_EQ(h::GetDirOfMarkFile_HyperV(c.root, L"tag.mark", dir), c.rc);
        EXPECT_EQ(dir, c.dir);
        for (const auto& r : c.marks) ::DeleteFileW((r + L"\\tag.mark").c_str());
    }
}

TEST(MarkFiles, ByVmWalksSnapshotDestinationsThatCarryTheSignatureFile) {
    Destinations t;
    ScratchDir other;
    const std::wstring unsigned_ = other / L"nosig";
    kxtest::MakeDirs(unsigned_ + L"\\VStore\\S0000000001");
    kxtest::WriteText(unsigned_ + L"\\tag.mark", "m");  // tagged, but not a destination
    kxtest::WriteText(t.leaf2 + L"\\tag.mark", "m");
    const std::wstring vm = std::wstring(L"vm ") + kVm + L" Standby One\n";
    const std::wstring snaps = L"snapshot {A}\nsdisk C:\\x.iso\nsdisk " + unsigned_ +
                               L"\\VStore\\S0000000001\\d.vhd\nsnapshot {B}\nsdisk C:\\VMs\\loose.vhdx\nsdisk " + t.leaf1 +
                               L"\\VStore\\S0000000007\\disk0000000001_00000000-0000-0000-0000-000000000000.avhdx\n";
    {
        FakeHyperV hv(vm + snaps);
        LogCursor log;
        std::wstring dir;
        EXPECT_EQ(h::GetDirOfMarkFileByVm_HyperV(kVm, L"tag.mark", dir), 0u);
        EXPECT_EQ(dir, t.leaf2);
        EXPECT_TRUE(log.Contains(L"GetDirOfMarkFile_HyperV, does not exist backdev under root = " + unsigned_ +
                                 L", find next one"));
        EXPECT_TRUE(log.Contains(L"GetDirOfMarkFile_HyperV, Get root and sessNo failed, dir = C:\\VMs"));
        EXPECT_TRUE(log.Contains(L"GetDirOfMarkFileVm_HyperV end, rc = 0"));
        EXPECT_EQ(h::GetDirOfMarkFileByVm_HyperV(kVm, L"missing.mark", dir), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
        EXPECT_TRUE(dir.empty());
        EXPECT_EQ(h::GetDirOfMarkFileByVm_HyperV(L"{NOPE}", L"tag.mark", dir), 0xFFFFFFFEu);
        EXPECT_EQ(h::GetDirOfMarkFileByVm_HyperV(L"", L"tag.mark", dir), kx::kE_INVALIDARG);
    }
    {
        FakeHyperV hv(vm + snaps + L"fail snapshots 31\n");
        LogCursor log;
        std::wstring dir;
        EXPECT_EQ(h::GetDirOfMarkFileByVm_HyperV(kVm, L"tag.mark", dir), 31u);
        EXPECT_TRUE(log.Contains(L"GetDirOfMarkFile_HyperV, Get snapshot list failed, vm = Standby One, rc = 31"));
        EXPECT_TRUE(log.Contains(L"GetDirOfMarkFileVm_HyperV, Find file in sess roots failed, rc = 31"));
    }
    FakeHyperV hv(L"fail open 5");
    std::wstring dir;
    EXPECT_EQ(h::GetDirOfMarkFileByVm_HyperV(kVm, L"tag.mark", dir), 0xFFFFFFFFu);
}

namespace {
// A backup core whose answers a test chooses.
struct ScriptedCore final : kx::platform::DestinationCore {
    static inline DWORD initRc = 0, sizeRc = 0;
    static inline bool nullList = false;
    static inline std::wstring list;
    DWORD InitBackupDest(const std::wstring&) override { return initRc; }
    DWORD KbGetAllBackupDestinations(const wchar_t** block) override {
        *block = nullList ? nullptr : list.c_str();
        return 0;
    }
    DWORD KbGetFileSize(const std::wstring&, ULONGLONG* bytes) override {
        *bytes = 1000;
        return sizeRc;
    }
};
std::unique_ptr<kx::platform::DestinationCore> MakeScripted() { return std::make_unique<ScriptedCore>(); }
}  // namespace

TEST(OffcopySize, EveryRootOfTheDestinationOnTheSameVolumeCounts) {
    Destinations t;
    // Known bytes in each root, at any depth. A header with leaves stands
    // for its leaves: its own folder is not one of the collected roots.
    kxtest::WriteText(t.head + L"\\VStore\\S0000000007\\a.bin", std::string(1000, 'a'));
    kxtest::WriteText(t.leaf1 + L"\\VStore\\S0000000007\\b.bin", std::string(3000, 'b'));
    kxtest::WriteText(t.leaf2 + L"\\c.bin", std::string(5, 'c'));
    kxtest::WriteText(t.plain + L"\\p.bin", std::string(77, 'p'));  // another destination: not counted
    ULONGLONG expected = 3000 + 5;
    for (const auto& root : {t.leaf1, t.leaf2})
        for (const wchar_t* f : {L"\\BackupDev.sig", L"\\leaf_root.ini"}) expected += kxtest::ReadBytes(root + f).size();
    for (const auto& root : {t.leaf1, t.leaf2, t.head}) {
        ULONGLONG total = 1;
        EXPECT_EQ(h::GetOffcopySize_HyperV(root.c_str(), &total), 0u);
        EXPECT_EQ(total, expected);  // each leaf once, though it is listed twice
    }
    ULONGLONG total = 5;
    LogCursor log;
    EXPECT_EQ(h::GetOffcopySize_HyperV(nullptr, &total), kx::kE_INVALIDARG);
    EXPECT_TRUE(log.Contains(L"GetOffcopySize_HyperV end, input root = NULL, total_size = 0, rc = -2147024809"));

    // A leaf on another volume is left out (when the host has a second drive).
    wchar_t volume[MAX_PATH];
    if (::GetVolumePathNameW(L"Z:\\tmp", volume, MAX_PATH) && _wcsicmp(volume, L"C:\\") != 0 &&
        ::GetFileAttributesW(L"Z:\\tmp") != INVALID_FILE_ATTRIBUTES) {
        const std::wstring farRoot = L"Z:\\tmp\\kx-offcopy-" + std::to_wstring(::GetCurrentProcessId());
        MakeDest(farRoot, {});
        kxtest::WriteText(farRoot + L"\\big.bin", std::string(9999, 'z'));
        Ini(t.head + L"\\header_root.ini", L"LEAF COUNT", L"Count", L"3");
        Ini(t.head + L"\\header_root.ini", L"LEAF LOCATION", L"Leaf2", farRoot);
        EXPECT_EQ(h::GetOffcopySize_HyperV(t.head.c_str(), &total), 0u);
        EXPECT_EQ(total, expected);  // big.bin is on another volume
        ::DeleteFileW((farRoot + L"\\big.bin").c_str());
        ::DeleteFileW((farRoot + L"\\BackupDev.sig").c_str());
        ::RemoveDirectoryW(farRoot.c_str());
    }
}

TEST(OffcopySize, TheBackupCoresFailuresAndGaps) {
    Destinations t;
    kx::platform::SetDestinationCoreMaker(&MakeScripted);
    ULONGLONG total = 0;
    {
        LogCursor log;
        ScriptedCore::initRc = 1450;
        EXPECT_EQ(h::GetOffcopySize_HyperV(t.leaf1.c_str(), &total), 1450u);
        EXPECT_TRUE(log.Contains(L"GetOffcopySize_HyperV, Init backup dest failed, rc = 1450"));
        ScriptedCore::initRc = 0;
    }
    {
        LogCursor log;
        ScriptedCore::nullList = true;
        EXPECT_EQ(h::GetOffcopySize_HyperV(t.leaf1.c_str(), &total), 0u);
        EXPECT_EQ(total, 0u);
        EXPECT_TRUE(log.Contains(L"GetOffcopySize_HyperV::KbGetAllBackupDestiantion, get NULL destination"));
        ScriptedCore::nullList = false;
    }
    {
        // head (3 roots), plain (1 root), and a destination whose leaf list
        // is broken: skipped with its line.
        ScratchDir broken;
        Ini(broken.path() + L"\\header_root.ini", L"LEAF COUNT", L"Count", L"2");
        ScriptedCore::list = t.head + std::wstring(1, L'\0') + t.plain + std::wstring(1, L'\0') + broken.path() +
                             std::wstring(1, L'\0');
        LogCursor log;
        EXPECT_EQ(h::GetOffcopySize_HyperV(t.leaf1.c_str(), &total), 0u);
        EXPECT_EQ(total, 3000u);  // leaf1, leaf2, plain
        EXPECT_TRUE(log.Contains(L"GetOffcopySize_HyperV, GetLeafRoots failed, curr_root = " + broken.path()));
        ScriptedCore::sizeRc = 5;
        EXPECT_EQ(h::GetOffcopySize_HyperV(t.leaf1.c_str(), &total), 0u);
        EXPECT_EQ(total, 0u);
        ScriptedCore::sizeRc = 0;
    }
    kx::platform::SetDestinationCoreMaker(nullptr);
}

TEST(GuestDrInfoTool, RunsHiddenAndItsFileIsCopiedBesideEveryDisk) {
    Destinations t;
    ScratchDir out;
    const std::wstring s7 = t.leaf1 + L"\\VStore\\S0000000007", s8 = t.leaf2 + L"\\VStore\\S0000000008";
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" IVM one\ndisk " + s7 + L"\\disk0000000001.vhdx\ndisk C:\\a.iso\ndisk " +
                  s8 + L"\\disk0000000002.avhd\n");
    EXPECT_EQ(h::GuestDrInfoToolCommandLine(L"IVM one", kVm, L"C:\\out/"),
              std::wstring(L"GuestDrInfoTool.exe 1 \"\" \"\" \"\" \"\" \"\" \"\" ") + kVm + L" \"IVM one\" \"C:\\out\" ");
    LogCursor log;
    ASSERT_EQ(h::GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(L"IVM one", kVm, (out.path() + L"\\").c_str()), 0u);
    const auto cmd = kxtest::ReadBytes(out / L"cmdline.txt");
    EXPECT_EQ(std::wstring(reinterpret_cast<const wchar_t*>(cmd.data()), cmd.size() / 2),
              h::GuestDrInfoToolCommandLine(L"IVM one", kVm, out.path().c_str()));
    const auto written = kxtest::ReadBytes(out / L"AdrConfigure.xml");
    ASSERT_FALSE(written.empty());
    EXPECT_EQ(kxtest::ReadBytes(s7 + L"\\AdrConfigure_now.xml"), written);
    EXPECT_EQ(kxtest::ReadBytes(s8 + L"\\AdrConfigure_now.xml"), written);
    EXPECT_TRUE(log.Contains(L" Create process to get vm dr info and store it under folder " + out.path() + L"\\."));
    EXPECT_TRUE(log.Contains(L"The execution of GuestDrInfoTool.exe returns 0"));
    EXPECT_TRUE(log.Contains(L"GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV end, path = " + out.path() +
                             L"\\AdrConfigure.xml, rc = 0"));
}

TEST(GuestDrInfoTool, ItsExitCodeStopsTheCallAndAFailedCopyDoesNotStopTheOthers) {
    Destinations t;
    ScratchDir out;
    const std::wstring s7 = t.leaf1 + L"\\VStore\\S0000000007", gone = t.leaf2 + L"\\VStore\\S0000000009";
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" x\ndisk " + gone + L"\\d.vhd\ndisk " + s7 + L"\\d.vhdx\n");
    EXPECT_EQ(h::GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(L"exit:1450", kVm, out.path().c_str()), 1450u);
    EXPECT_FALSE(kxtest::Exists(s7 + L"\\AdrConfigure_now.xml"));

    LogCursor log;
    EXPECT_EQ(h::GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(L"x", kVm, out.path().c_str()),
              static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(log.Contains(L"Copy file from " + out.path() + L"\\AdrConfigure.xml to " + gone +
                             L"\\AdrConfigure_now.xml failed, rc = 3"));
    EXPECT_TRUE(kxtest::Exists(s7 + L"\\AdrConfigure_now.xml"));  // the later copy was made

    EXPECT_EQ(h::GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(L"x", L"{UNKNOWN}", out.path().c_str()), 0xFFFFFFFEu);
    EXPECT_TRUE(log.Contains(L"GetDrInfoLocalCopyPathsForSnapNow_HyperV, cb Init failed, rc = -2"));
}

// A host process calls these for months: no path may leave a handle behind.
TEST(HyperVHandles, AThousandCallsOfEachExportLeaveTheHandleCountAlone) {
    Destinations t;
    ScratchDir out, data;
    const std::wstring s7 = t.leaf1 + L"\\VStore\\S0000000007";
    MakeVhd(s7 + L"\\data.vhd", 0x1234);
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" x\ndata " + data.path() + L"\ndisk " + s7 + L"\\data.vhd\ndisk " + s7 +
                  L"\\disk0000000005.vhdx\nsnapshot {S}\nsdisk " + s7 + L"\\data.vhd\n");
    MakeVhdx(s7 + L"\\disk0000000005.vhdx");
    kxtest::WriteText(t.leaf2 + L"\\tag.mark", "m");
    auto handles = [] {
        DWORD n = 0;
        ::GetProcessHandleCount(::GetCurrentProcess(), &n);
        return n;
    };
    const struct {
        const char* what;
        int calls;
        std::function<void(int)> call;
    } exports[] = {
        {"mark file", 1000, [&](int) { std::wstring d; (void)h::GetDirOfMarkFile_HyperV(t.leaf1, L"tag.mark", d); }},
        {"mark file by vm", 1000, [&](int) { std::wstring d; (void)h::GetDirOfMarkFileByVm_HyperV(kVm, L"tag.mark", d); }},
        {"off-host size", 1000, [&](int) { ULONGLONG n; (void)h::GetOffcopySize_HyperV(t.head.c_str(), &n); }},
        {"paths", 1000, [&](int i) {
             wchar_t b[MAX_PATH];
             DWORD n = i % 2 ? MAX_PATH : 1;
             (void)h::GetDrInfoLocalCopyPathForSnapNow_HyperV(L"x", kVm, b, &n);
             (void)h::GetAdrInfoCLocalCopyPathForSnapNow_HyperV(L"x", i % 3 ? kVm : L"{NO}", b, &n);
         }},
        {"disk by signature", 1000, [&](int i) {
             h::CDrVolCbImp cb;
             std::wstring p;
             if (cb.Init(kVm, i % 2 ? L"{S}" : nullptr) == 0) (void)cb.GetDiskPathBySig(i % 2 ? 0x1234 : 5, p);
         }},
        {"snapshot deletion", 1000, [&](int i) {
             SnapshotDeleteHandle* dh = nullptr;
             if (h::BeginDeleteSnapshot_HyperV(kVm, i % 2 ? L"{S}" : L"{NO}", &dh) == 0)
                 (void)h::EndDeleteSnapshot_HyperV(dh, false);
             (void)h::CleanUselessVirtualDisk(kVm, out.path().c_str());
         }},
        // Each call starts a process (about 0.35 s under Wine): 100 of them,
        // the exit-code path leaving out the copies on most.
        {"guest information tool", 100, [&](int i) {
             (void)h::GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(i % 10 ? L"exit:3" : L"x", kVm, out.path().c_str());
         }},
    };
    for (const auto& e : exports) {
        SCOPED_TRACE(e.what);
        for (int i = 0; i < 20; ++i) e.call(i);  // first-use allocations (log, caches)
        const DWORD before = handles();
        for (int i = 0; i < e.calls; ++i) e.call(i);
        EXPECT_LE(handles(), before + 5);
    }
}

// What the provider adapter sends: a GUID in the provider's spelling,
// and no caller text that can leave its quotes.
TEST(HyperVProviderQueries, GuidsAreNormalisedAndQuotedTextCannotEscape) {
    namespace w = kx::platform::wmi_text;
    EXPECT_EQ(w::ProviderGuid(L"{0b7a3e10-2222-4d5c-8e11-00aa00bb00cc}"), L"0B7A3E10-2222-4D5C-8E11-00AA00BB00CC");
    EXPECT_EQ(w::VmQuery(L"{0b7a3e10-2222-4d5c-8e11-00aa00bb00cc}"),
              L"SELECT * FROM Msvm_ComputerSystem WHERE Name = '0B7A3E10-2222-4D5C-8E11-00AA00BB00CC'");
    EXPECT_EQ(w::SettingsQuery(L"X' OR '1'='1"),
              L"SELECT * FROM Msvm_VirtualSystemSettingData WHERE VirtualSystemIdentifier = 'X\\' OR \\'1\\'=\\'1'");
    EXPECT_EQ(w::DiskQuery(L"Microsoft:0B7A\\\"x"),
              L"ASSOCIATORS OF {Msvm_VirtualSystemSettingData.InstanceID=\"Microsoft:0B7A\\\\\\\"x\"} WHERE ResultClass = "
              L"Msvm_StorageAllocationSettingData");
}
