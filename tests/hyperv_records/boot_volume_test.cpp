// The boot volume repair of a VM on the fake Hyper-V host, over real disk
// images: those tests/hyperv/chs_images.py makes at build time (sfdisk,
// mkntfs, qemu-img), whose expect.txt gives each image's boot volume offset
// as the script read it from the partition table. The oracle for the repair
// is the repair of another copy at that offset: the export must find the
// same disk and volume on its own, through the VM's disk chain.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "common/result_codes.h"
#include "common/wstring_format.h"
#include "fake_hyperv.h"
#include "hyperv/adjust_boot_cfg.h"
#include "hyperv/boot_volume.h"
#include "kx_test.h"
#include "platform/vdisk.h"
#include "platform/vhdx/vhdx_disk.h"
#include "platform/vhdx_reader.h"
#include "platform/win32_positioned_file.h"

using kxtest::FakeHyperV;
using kxtest::LogCursor;
using kxtest::ScratchDir;
namespace h = kx::hyperv;

namespace {

constexpr const wchar_t* kVm = L"{0B7A3E10-2222-4D5C-8E11-00AA00BB00CC}";

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }
std::wstring Made(const std::string& file) { return Wide(std::string("Z:") + KX_CHS_MADE + "/" + file); }

// expect.txt: name|file|volume offset|... ; the file and offset by name.
std::map<std::string, std::pair<std::string, uint64_t>> Offsets() {
    std::map<std::string, std::pair<std::string, uint64_t>> all;
    std::ifstream in(std::string(KX_CHS_MADE) + "/expect.txt");
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string name, file, offset;
        std::getline(fields, name, '|');
        std::getline(fields, file, '|');
        std::getline(fields, offset, '|');
        all[name] = {file, std::stoull(offset)};
    }
    return all;
}

void Copy(const std::wstring& from, const std::wstring& to) {
    ASSERT_TRUE(::CopyFileW(from.c_str(), to.c_str(), FALSE)) << kxtest::Narrow(from) << " " << ::GetLastError();
    ::SetFileAttributesW(to.c_str(), FILE_ATTRIBUTE_NORMAL);
}

// `bytes` bytes at `offset` of the disk in a file, read through the ports.
std::vector<uint8_t> DiskBytes(const std::wstring& path, uint64_t offset, DWORD bytes) {
    std::vector<uint8_t> data(bytes);
    if (kx::EndsWithNoCase(path, L".vhd")) {
        std::unique_ptr<kx::vdisk::IVDisk> disk;
        EXPECT_EQ(kx::vdisk::OpenVDisk_HyperV(path.c_str(), false, &disk), 0u);
        if (disk) {
            EXPECT_EQ(disk->ReadSectors(offset / 512, bytes / 512, data.data()), 0u);
        }
        return data;
    }
    std::unique_ptr<kx::vdisk::IVhdxDisk> disk;
    EXPECT_EQ(kx::vdisk::OpenVhdxDisk(path.c_str(), false, &disk), 0u);
    DWORD done = 0;
    if (disk && disk->SetFilePosition(offset) == 0) {
        EXPECT_EQ(disk->Read(data.data(), bytes, &done), 0u);
    }
    return data;
}

// The MBR and the boot sector at `offset`.
std::vector<uint8_t> BootBytes(const std::wstring& path, uint64_t offset) {
    auto mbr = DiskBytes(path, 0, 512);
    const auto boot = DiskBytes(path, offset, 512);
    mbr.insert(mbr.end(), boot.begin(), boot.end());
    return mbr;
}

DWORD SignatureOf(const std::wstring& path) {
    const auto mbr = DiskBytes(path, 0, 512);
    DWORD sig = 0;
    memcpy(&sig, mbr.data() + 440, 4);
    return sig;
}

// The script gives every image one disk identifier: a VHD copy gets its own.
void SetVhdSignature(const std::wstring& path, DWORD signature) {
    std::unique_ptr<kx::vdisk::IVDisk> disk;
    ASSERT_EQ(kx::vdisk::OpenVDisk_HyperV(path.c_str(), true, &disk), 0u);
    uint8_t mbr[512];
    ASSERT_EQ(disk->ReadSectors(0, 1, mbr), 0u);
    memcpy(mbr + 440, &signature, 4);
    ASSERT_EQ(disk->WriteSectors(0, 1, mbr), 0u);
}

// A VM whose session folder holds copies of made images.
struct Vm {
    ScratchDir root;
    std::wstring s7 = root / L"VStore\\S0000000007";
    Vm() { kxtest::MakeDirs(s7); }
    std::wstring Place(const std::string& made, const std::wstring& as) {
        const std::wstring to = s7 + L"\\" + as;
        Copy(Made(made), to);
        return to;
    }
};

}  // namespace

// The running state's disks in list order: an ISO, a data disk without an
// active partition, then the boot disk. The first disk with an active entry
// is repaired exactly as a repair at the script's offset repairs it; the
// data disk is not written.
TEST(BootVolume, TheFirstDiskWithAnActivePartitionIsRepairedAtItsVolume) {
    const auto offsets = Offsets();
    for (const char* name : {"vhdx-128", "vhdx-255", "vhd-128", "vhd-255", "vhdx-start-beyond"}) {
        SCOPED_TRACE(name);
        ASSERT_TRUE(offsets.count(name));
        const auto& [file, offset] = offsets.at(name);
        const bool vhdx = file.find(".vhdx") != std::string::npos;
        Vm vm;
        const std::wstring data = vm.Place(vhdx ? "vhdx-no-active.vhdx" : "vhd-no-active.vhd",
                                           vhdx ? L"disk0000000001.vhdx" : L"data.vhd");
        const std::wstring boot = vm.Place(file, vhdx ? L"disk0000000002.vhdx" : L"boot.vhd");
        const std::wstring oracle = vm.Place(file, vhdx ? L"oracle.vhdx" : L"oracle.vhd");
        const auto dataBefore = kxtest::ReadBytes(data);
        const auto bootBefore = BootBytes(boot, offset);
        FakeHyperV hv(std::wstring(L"vm ") + kVm + L" IVM\ndisk C:\\iso\\tools.iso\ndisk " + data + L"\ndisk " + boot);
        LogCursor log;
        ASSERT_EQ(h::AdjustVolumeBootCode_HyperV(kVm, nullptr, 0), 0u);
        bool found = false;
        ASSERT_EQ(h::AdjustDiskVolumeCHS(oracle.c_str(), L"oracle", offset, &found), 0u);
        ASSERT_TRUE(found);
        EXPECT_EQ(BootBytes(boot, offset), BootBytes(oracle, offset));
        EXPECT_NE(BootBytes(boot, offset), bootBefore);  // each of these images needs a repair
        EXPECT_EQ(kxtest::ReadBytes(data), dataBefore);
        EXPECT_TRUE(log.Contains(L"at offset " + std::to_wstring(offset)));
    }
}

// A snapshot's disks and a boot disk named by its signature, as the
// recovery core names it.
TEST(BootVolume, ASnapshotsBootDiskNamedBySignature) {
    const auto offsets = Offsets();
    const auto& [file, offset] = offsets.at("vhd-128");
    Vm vm;
    const std::wstring data = vm.Place("vhd-no-active.vhd", L"data.vhd");
    const std::wstring boot = vm.Place(file, L"boot.vhd");
    const std::wstring oracle = vm.Place(file, L"oracle.vhd");
    // A running state whose disk is not the snapshot's: it must stay as it is.
    const std::wstring now = vm.Place("vhdx-128.vhdx", L"disk0000000009.vhdx");
    const auto nowBefore = kxtest::ReadBytes(now);
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" IVM\ndisk " + now + L"\nsnapshot {S}\nsdisk " + data + L"\nsdisk " +
                  boot);
    SetVhdSignature(data, 0x0DA7A0DA);
    const DWORD dataSig = SignatureOf(data), bootSig = SignatureOf(boot);
    EXPECT_EQ(dataSig, 0x0DA7A0DAu);
    ASSERT_NE(dataSig, bootSig);
    const auto dataBefore = kxtest::ReadBytes(data), bootBefore = kxtest::ReadBytes(boot);

    EXPECT_EQ(h::AdjustVolumeBootCode_HyperV(kVm, L"{S}", dataSig), h::kNoVmOrImage);  // no active partition
    EXPECT_EQ(h::AdjustVolumeBootCode_HyperV(kVm, L"{S}", bootSig ^ dataSig ^ 0x5A5A5A5A), 0xFFFFFFFFu);
    EXPECT_EQ(kxtest::ReadBytes(boot), bootBefore);
    ASSERT_EQ(h::AdjustVolumeBootCode_HyperV(kVm, L"{S}", bootSig), 0u);
    bool found = false;
    ASSERT_EQ(h::AdjustDiskVolumeCHS(oracle.c_str(), L"oracle", offset, &found), 0u);
    EXPECT_EQ(BootBytes(boot, offset), BootBytes(oracle, offset));
    EXPECT_EQ(kxtest::ReadBytes(data), dataBefore);
    EXPECT_EQ(kxtest::ReadBytes(now), nowBefore);
}

TEST(BootVolume, FailuresAreCodesAndLeaveTheDisksAlone) {
    const auto offsets = Offsets();
    Vm vm;
    const std::wstring boot = vm.Place(offsets.at("vhdx-128").first, L"disk0000000002.vhdx");
    const std::wstring plain = vm.Place("vhdx-no-active.vhdx", L"disk0000000003.vhdx");
    const std::wstring gone = vm.s7 + L"\\missing.vhdx";
    FakeHyperV hv(std::wstring(L"vm ") + kVm + L" IVM\ndisk " + gone + L"\ndisk " + boot + L"\nsnapshot {S}\nsdisk " +
                  gone + L"\nsdisk " + plain + L"\nvm {B} plain\ndisk " + plain + L"\ndisk C:\\x.iso\n");
    const auto before = kxtest::ReadBytes(boot);
    {
        // The VM is running: its disk is open for writing elsewhere.
        kx::unique_hfile running(::CreateFileW(boot.c_str(), GENERIC_READ | GENERIC_WRITE,
                                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(running);
        EXPECT_EQ(h::AdjustVolumeBootCode_HyperV(kVm, nullptr, 0), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    }
    EXPECT_EQ(kxtest::ReadBytes(boot), before);
    const struct {
        const char* what;
        const wchar_t* vm;
        const wchar_t* snapshot;
        DWORD result;
        const wchar_t* line;
    } cases[] = {
        {"null vm", nullptr, nullptr, kx::kE_INVALIDARG, L"AdjustVolumeBootCode_HyperV() failed due to invalid parameter"},
        {"unknown vm", L"{NONE}", nullptr, h::kNoVmOrImage, L"CDrVolCbImp::Init, GetVmByGuid failed"},
        {"unknown snapshot", kVm, L"{T}", static_cast<DWORD>(ERROR_NOT_FOUND), L"GetSnapshotByGuid failed"},
        // The unreadable disk may have been the boot disk: its code, not "none".
        {"missing disk, none active", kVm, L"{S}", static_cast<DWORD>(ERROR_FILE_NOT_FOUND),
         L"failed to read the MBR of"},
        {"no active partition", L"{B}", nullptr, h::kNoVmOrImage, L"found no active partition on the disks of VM {B}"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        LogCursor log;
        EXPECT_EQ(h::AdjustVolumeBootCode_HyperV(c.vm, c.snapshot, 0), c.result);
        EXPECT_TRUE(log.Contains(c.line));
    }
    EXPECT_EQ(kxtest::ReadBytes(boot), before);
    // A missing disk before the boot disk is passed over.
    EXPECT_EQ(h::AdjustVolumeBootCode_HyperV(kVm, nullptr, 0), 0u);
    EXPECT_NE(kxtest::ReadBytes(boot), before);
}

// The volume of the first active entry, in the disk's own sector size; a
// sector without the boot signature, or a first active entry at sector 0,
// has none.
TEST(BootVolume, TheFirstActiveEntryInLogicalSectors) {
    ScratchDir d;
    struct Entry {
        uint8_t status;
        uint32_t lba;
    };
    const struct {
        const char* what;
        uint32_t logical;  // 0: a VHD
        std::vector<Entry> entries;
        bool bootSignature;
        int entry;
        uint64_t offset;
    } cases[] = {
        {"vhd, second entry", 0, {{0, 63}, {0x80, 2048}}, true, 1, 2048ull * 512},
        {"vhd, two active", 0, {{0x80, 100}, {0x80, 4096}}, true, 0, 100ull * 512},
        {"vhd, first active at 0", 0, {{0x80, 0}, {0x80, 4096}}, true, -1, 0},
        {"vhd, no boot signature", 0, {{0x80, 2048}}, false, -1, 0},
        {"vhd, status 0x81 is not active", 0, {{0x81, 2048}}, true, -1, 0},
        {"vhdx 512", 512, {{0, 1}, {0, 2}, {0, 3}, {0x80, 4096}}, true, 3, 4096ull * 512},
        {"vhdx 4096", 4096, {{0x80, 256}}, true, 0, 256ull * 4096},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        uint8_t mbr[512] = {};
        for (size_t i = 0; i < c.entries.size(); ++i) {
            mbr[0x1BE + 16 * i] = c.entries[i].status;
            memcpy(mbr + 0x1BE + 16 * i + 8, &c.entries[i].lba, 4);
            mbr[0x1BE + 16 * i + 4] = 7;
            const uint32_t count = 8192;
            memcpy(mbr + 0x1BE + 16 * i + 12, &count, 4);
        }
        if (c.bootSignature) mbr[510] = 0x55, mbr[511] = 0xAA;
        const std::wstring path = d / (L"d" + std::to_wstring(n++) + (c.logical ? L".vhdx" : L".vhd"));
        if (!c.logical) {
            std::unique_ptr<kx::vdisk::IVDisk> disk;
            ASSERT_EQ(kx::vdisk::CreateVhd(path.c_str(), kx::vdisk::kTypeDynamic, 8ull << 20, nullptr, &disk), 0u);
            ASSERT_EQ(disk->WriteSectors(0, 1, mbr), 0u);
        } else {
            kx::vdisk::Win32FileSystem fs(FILE_SHARE_READ);
            kx::vhdx::CreateParams params;
            params.size = 8u << 20;
            params.blockSize = 1u << 20;
            params.logicalSectorSize = c.logical;
            std::unique_ptr<kx::vhdx::VhdxDisk> disk;
            ASSERT_EQ(kx::vhdx::VhdxDisk::Create(fs, kx::vdisk::ToU16(path), params, &disk), 0u);
            ASSERT_EQ(disk->Write(0, sizeof mbr, mbr), 0u);
        }
        h::BootVolume v;
        ASSERT_EQ(h::FindActiveVolume(path, &v), 0u);
        EXPECT_EQ(v.entry, c.entry);
        EXPECT_EQ(v.offset, c.offset);
        if (c.entry >= 0) {
            EXPECT_EQ(v.disk, path);
        }
    }
    h::BootVolume v;
    EXPECT_EQ(h::FindActiveVolume(d / L"none.vhd", &v), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    kxtest::WriteText(d / L"text.vhdx", std::string(1 << 20, 'x'));
    EXPECT_NE(h::FindActiveVolume(d / L"text.vhdx", &v), 0u);
    EXPECT_EQ(v.entry, -1);
}
