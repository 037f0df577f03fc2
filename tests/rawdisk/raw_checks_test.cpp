// The disk checks over image files served as the host's disks: partition
// tables written by sfdisk (disk_images.py, at build time), sparse disks of
// exactly 2 TiB and 2 TiB + 512 bytes, each step of the SetupAPI walk and of
// the signature read made to fail, and new tables written into copies that
// the check step after this program reads back with sfdisk. Every case
// checks that the devices and device information sets it opened were closed.
#include <gtest/gtest.h>

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>

#include "disk/raw_checks.h"
#include "disk/raw_layout.h"
#include "image_disks.h"
#include "kx_test.h"
#include "tests/host/fake_wbem.h"

namespace {

using kxtest::LogCursor;
using rawtest::Faults;
using rawtest::ImageDisk;
using rawtest::ImageDisks;
namespace d = kx::disk;

constexpr int64_t kTiB = 1LL << 40;
constexpr int64_t kMiB = 1LL << 20;

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }
std::wstring Made(const std::string& file) { return Wide(std::string("Z:") + KX_RAWDISK_MADE + "/" + file); }
std::wstring Out(const std::string& file) { return Wide(std::string("Z:") + KX_RAWDISK_OUT + "/" + file); }

std::vector<std::vector<std::string>> Rows(const char* list) {
    std::vector<std::vector<std::string>> rows;
    std::ifstream in(std::string(KX_RAWDISK_MADE) + "/" + list);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> fields;
        std::istringstream s(line);
        for (std::string f; std::getline(s, f, '|');) fields.push_back(f);
        rows.push_back(fields);
    }
    return rows;
}

// disks.txt: name|file|size|sector size|value at byte 440.
struct MadeDisk {
    std::wstring file;
    int64_t size = 0;
    DWORD at440 = 0;
};
const std::map<std::string, MadeDisk>& MadeDisks() {
    static const std::map<std::string, MadeDisk> disks = [] {
        std::map<std::string, MadeDisk> m;
        for (const auto& f : Rows("disks.txt")) m[f[0]] = {Made(f[1]), std::stoll(f[2]), static_cast<DWORD>(std::stoul(f[4]))};
        return m;
    }();
    return disks;
}

ImageDisk Disk(const std::string& name, DWORD sector = 512) { return {MadeDisks().at(name).file, sector}; }

std::vector<ImageDisk> Disks(std::initializer_list<const char*> names) {
    std::vector<ImageDisk> list;
    for (const char* n : names) list.push_back(Disk(n));
    return list;
}

class RawDiskTest : public ::testing::Test {
protected:
    ImageDisks& Serve(std::vector<ImageDisk> list) { return disks_.emplace(std::move(list)); }
    void TearDown() override {
        if (!disks_) return;
        EXPECT_EQ(disks_->opens, disks_->closes) << "devices left open";
        EXPECT_EQ(disks_->setsOpened, disks_->setsClosed) << "device information sets left open";
        disks_.reset();
    }
    std::optional<ImageDisks> disks_;
};

// ---- sizes against the 2 TiB limit --------------------------------------------

TEST_F(RawDiskTest, SizesAgainstTheLimit) {
    struct Case {
        const char* name;
        std::vector<const char*> disks;
        bool larger;
        size_t opensForLarger;  // the check stops at the first larger disk
        int64_t max;
        DWORD maxRc;
    };
    const Case cases[] = {
        {"small disks", {"mbr_a", "gpt_a", "raw"}, false, 3, 64 * kMiB, 0},
        {"exactly 2 TiB is not larger", {"exact2t", "mbr_a"}, false, 2, 2 * kTiB, 0},
        {"2 TiB + 512 is larger", {"mbr_a", "over2t", "exact2t"}, true, 2, 2 * kTiB + 512, 0},
        {"no disks", {}, false, 0, 0, ERROR_NO_MORE_ITEMS},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::vector<ImageDisk> list;
        for (const char* n : c.disks) list.push_back(Disk(n));
        ImageDisks& disks = Serve(list);
        LogCursor log;
        bool larger = !c.larger;
        EXPECT_EQ(d::CheckIfExistDiskLargerThan2T(&larger), 0u);
        EXPECT_EQ(larger, c.larger);
        EXPECT_EQ(disks.opened.size(), c.opensForLarger);
        if (c.larger) {
            EXPECT_TRUE(log.Contains(L"Have disk > 2T, name = " + disks.InterfacePath(1) + L", size = 0x20000000200"));
        } else {
            EXPECT_TRUE(log.Contains(L"No More disks, cnt = " + std::to_wstring(c.disks.size())));
        }
        int64_t max = -1;
        EXPECT_EQ(d::getMaxDiskSize(&max), c.maxRc);
        EXPECT_EQ(max, c.max);
        TearDown();
    }
}

TEST_F(RawDiskTest, SizesThatCannotBeReadAreSkippedAndTheLastErrorIsKept) {
    struct Case {
        const char* name;
        std::vector<std::pair<int, DWORD>> openFaults;  // disk index -> error
        DWORD lengthFault;
        DWORD rc;
        int64_t max;
    };
    const Case cases[] = {
        {"every open fails", {{0, ERROR_ACCESS_DENIED}, {1, ERROR_SHARING_VIOLATION}, {2, ERROR_NOT_READY}}, 0,
         ERROR_NOT_READY, 0},
        {"every length query fails", {}, ERROR_IO_DEVICE, ERROR_IO_DEVICE, 0},
        {"one disk readable", {{0, ERROR_ACCESS_DENIED}, {2, ERROR_NOT_READY}}, 0, 0, 48 * kMiB},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ImageDisks& disks = Serve(Disks({"mbr_a", "gpt_a", "raw"}));
        for (auto [disk, error] : c.openFaults) disks.faults.openPath[disks.InterfacePath(disk)] = error;
        if (c.lengthFault) disks.faults.control[IOCTL_DISK_GET_LENGTH_INFO] = c.lengthFault;
        LogCursor log;
        int64_t max = -1;
        EXPECT_EQ(d::getMaxDiskSize(&max), c.rc);
        EXPECT_EQ(max, c.max);
        bool larger = true;
        EXPECT_EQ(d::CheckIfExistDiskLargerThan2T(&larger), 0u) << "the walk itself was complete";
        EXPECT_FALSE(larger);
        for (auto [disk, error] : c.openFaults) {
            wchar_t line[400];
            swprintf(line, 400, L"GetDiskSize, create disk failed, disk = %ls, rc = 0x%X", disks.InterfacePath(disk).c_str(),
                     error);
            EXPECT_TRUE(log.Contains(line)) << kxtest::Narrow(line);
        }
        if (c.lengthFault) {
            EXPECT_EQ(log.Matching(L"GetDiskSize, devioctl failed").size(), 6u);
        }
        TearDown();
    }
}

// ---- the SetupAPI walk ---------------------------------------------------------

TEST_F(RawDiskTest, EveryStepOfTheWalkFailing) {
    struct Case {
        const char* name;
        Faults faults;
        DWORD walkRc;
        std::vector<std::wstring> lines;
        bool larger;
        int64_t max;  // what the paths read before the failure give
    };
    auto enumAt = [](DWORD i, DWORD e) {
        Faults f;
        f.enumAt = i;
        f.enumError = e;
        return f;
    };
    Faults openSet, sizeQuery, sizeOk, detail;
    openSet.openSet = ERROR_ACCESS_DENIED;
    sizeQuery.sizeQuery = ERROR_INVALID_HANDLE;
    sizeOk.sizeQuerySucceeds = true;
    detail.detail = ERROR_INVALID_FUNCTION;
    const Case cases[] = {
        {"the set cannot be had", openSet, 5, {L"SetupDiGetClassDevs failed with error: 5"}, false, 0},
        {"the second interface", enumAt(1, ERROR_GEN_FAILURE), 31,
         {L"SetupDiEnumDeviceInterfaces failed with error: 31", L"GetDiskPaths failed, index = 1, rc = 0x1F"}, false,
         64 * kMiB},
        {"after the larger disk", enumAt(2, ERROR_GEN_FAILURE), 31, {L"GetDiskPaths failed, index = 2, rc = 0x1F"}, true,
         2 * kTiB + 512},
        {"the size query", sizeQuery, 6, {L"SetupDiGetDeviceInterfaceDetail failed with error: 6"}, false, 0},
        {"a size query that succeeds", sizeOk, 13, {L"SetupDiGetDeviceInterfaceDetail failed with error: 13"}, false, 0},
        {"the detail", detail, 1, {L"Error in SetupDiGetDeviceInterfaceDetail failed with error: 1"}, false, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ImageDisks& disks = Serve(Disks({"mbr_a", "over2t", "gpt_a"}));
        disks.faults = c.faults;
        LogCursor log;
        std::vector<std::wstring> paths;
        EXPECT_EQ(kx::platform::EnumerateDiskPaths(&paths), c.walkRc);
        for (const auto& line : c.lines) EXPECT_TRUE(log.Contains(line)) << kxtest::Narrow(line);
        EXPECT_FALSE(log.Contains(L"No More disks"));
        bool larger = !c.larger;
        EXPECT_EQ(d::CheckIfExistDiskLargerThan2T(&larger), c.larger ? 0u : c.walkRc);
        EXPECT_EQ(larger, c.larger);
        int64_t max = -1;
        EXPECT_EQ(d::getMaxDiskSize(&max), c.max ? 0u : c.walkRc);
        EXPECT_EQ(max, c.max);
        TearDown();
    }
}

// Wine lists no disk interfaces, and its C: volume names no disk extent
// (the answers are checked through the tool, tool_test.cpp): the real
// devices and sets are all closed.
TEST(RawDiskRealTest, WinesOwnDevicesAndNoHandleLeft) {
    auto calls = [] {
        bool larger = true;
        int64_t max = -1;
        DWORD signature = 0;
        d::CheckIfExistDiskLargerThan2T(&larger);
        d::getMaxDiskSize(&max);
        d::GetSystemDiskSignature(&signature);
    };
    calls();  // first-use allocations
    DWORD before = 0, after = 0;
    ::GetProcessHandleCount(::GetCurrentProcess(), &before);
    for (int i = 0; i < 5; ++i) calls();
    ::GetProcessHandleCount(::GetCurrentProcess(), &after);
    EXPECT_EQ(after, before);
}

// ---- the system disk's signature -----------------------------------------------

TEST_F(RawDiskTest, SystemDiskSignature) {
    struct Case {
        const char* name;
        std::vector<DWORD> volumeDisks;
        DWORD sector2;  // sector size of disk 2 (mbr_b)
        Faults faults;
        DWORD rc;
        const char* disk;  // whose byte 440 is expected
        std::wstring line;
    };
    auto faults = [](auto set) {
        Faults f;
        set(f);
        return f;
    };
    const std::wstring drive2 = L"\\\\.\\PHYSICALDRIVE2";
    const Case cases[] = {
        {"MBR disk", {2}, 512, {}, 0, "mbr_b", L"GetDiskSignature: The signature read for the disk " + drive2 + L" is 0xdeadbeef."},
        {"volume on three disks: the first extent's", {0, 2, 1}, 512, {}, 0, "mbr_a", L"is 0x1234abcd."},
        {"GPT disk: its protective MBR", {1}, 512, {}, 0, "gpt_a", L"is 0x0."},
        {"disk of 4096-byte sectors", {2}, 4096, {}, 0, "mbr_b", L"is 0xdeadbeef."},
        {"no Windows folder", {2}, 512, faults([](Faults& f) { f.windowsDir = ERROR_NOT_ENOUGH_MEMORY; }), 8, nullptr,
         L"GetActivePartition: Failed to get windows directory."},
        {"volume cannot be opened", {2}, 512,
         faults([](Faults& f) { f.openPath[L"\\\\.\\C:"] = ERROR_ACCESS_DENIED; }), 5, nullptr,
         L"GetDiskInfo: CreateFile for \\\\.\\C: failed with rc = 5."},
        {"extents refused", {2}, 512,
         faults([](Faults& f) { f.control[IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS] = ERROR_INVALID_FUNCTION; }), 1, nullptr,
         L"GetVolumeDiskExtents: DeviceIOControl IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, rc=1."},
        {"volume on no disk", {}, 512, {}, ERROR_NOT_FOUND, nullptr,
         L"GetDiskInfo: Failed to get the volume disk extents, rc = 1168."},
        {"disk cannot be opened", {2}, 512, faults([&](Faults& f) { f.openPath[drive2] = ERROR_ACCESS_DENIED; }), 5,
         nullptr, L"GetDiskSignature: CreateFile " + drive2 + L" Failed (0x5) "},
        {"read fails", {2}, 512, faults([](Faults& f) { f.read = ERROR_CRC; }), ERROR_CRC, nullptr,
         L"GetDiskSignature: Read Drive failed with Error: 23."},
        {"disk shorter than a sector", {3}, 512, {}, ERROR_HANDLE_EOF, nullptr,
         L"GetDiskSignature: Read Drive failed with Error: 38."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        fakewbem::FakeService wmi;
        {
            fakewbem::ConnectorScope scope(&wmi);
            ImageDisks& disks = Serve({Disk("mbr_a"), Disk("gpt_a"), Disk("mbr_b", c.sector2), Disk("short")});
            disks.faults = c.faults;
            disks.systemVolumeDisks = c.volumeDisks;
            LogCursor log;
            DWORD signature = 0x77;
            EXPECT_EQ(d::GetSystemDiskSignature(&signature), c.rc);
            EXPECT_EQ(signature, c.disk ? MadeDisks().at(c.disk).at440 : 0x77u);
            EXPECT_TRUE(log.Contains(c.line)) << kxtest::Narrow(c.line);
            EXPECT_EQ(scope.connections(), 1) << "one host session around the work";
            TearDown();
        }
        EXPECT_EQ(wmi.refs(), 1u) << "the session was released";
    }
}

// ---- new partition tables --------------------------------------------------------

GUID GuidOf(const std::string& text) {
    GUID g{};
    std::wstring braced = L"{" + Wide(text) + L"}";
    EXPECT_EQ(::CLSIDFromString(braced.c_str(), &g), S_OK) << text;
    return g;
}

// writes.txt: name|source|sector size|style|signature|GUID. The copies stay
// in the out folder for the check step.
TEST_F(RawDiskTest, NewTablesWrittenForTheCheckStep) {
    ::CreateDirectoryW(Out("").c_str(), nullptr);
    const auto writes = Rows("writes.txt");
    ASSERT_EQ(writes.size(), 3u);
    for (const auto& w : writes) {
        SCOPED_TRACE(w[0]);
        const std::wstring copy = Out(w[0] + ".img");
        ASSERT_TRUE(::CopyFileW(Made(w[1]).c_str(), copy.c_str(), FALSE));
        ImageDisks& disks = Serve({{copy, static_cast<DWORD>(std::stoul(w[2]))}});
        const uint32_t style = static_cast<uint32_t>(std::stoul(w[3]));
        const GUID guid = style == d::kStyleGpt ? GuidOf(w[5]) : GUID{};
        // The interface path, as the locate step has it.
        EXPECT_EQ(d::WriteNewPartitionTable(disks.InterfacePath(0), style, static_cast<uint32_t>(std::stoul(w[4])), guid),
                  0u);
        EXPECT_EQ(disks.opens, 1);
        TearDown();
    }
}

TEST_F(RawDiskTest, NewTableFailures) {
    const GUID kSomeGuid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    struct Case {
        const char* name;
        uint32_t style;
        Faults faults;
        bool heldExclusively;  // another handle holds the disk without sharing
        DWORD rc;
        const wchar_t* line;  // after "%s" of the path where it has one
    };
    auto control = [](DWORD code, DWORD error) {
        Faults f;
        f.control[code] = error;
        return f;
    };
    Faults open;
    open.openPath[L"\\\\.\\PHYSICALDRIVE0"] = ERROR_ACCESS_DENIED;
    const Case cases[] = {
        {"style 3", 3, {}, false, ERROR_INVALID_PARAMETER, nullptr},
        {"open refused", d::kStyleMbr, open, false, 5, L"Failed to open disk \\\\.\\PHYSICALDRIVE0, error 5"},
        {"disk in use", d::kStyleGpt, {}, true, ERROR_SHARING_VIOLATION,
         L"Failed to open disk \\\\.\\PHYSICALDRIVE0, error 32"},
        {"geometry refused", d::kStyleGpt, control(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, ERROR_NOT_READY), false, 21,
         L"Failed to get the geometry of disk \\\\.\\PHYSICALDRIVE0, error 21"},
        {"create refused", d::kStyleMbr, control(IOCTL_DISK_CREATE_DISK, ERROR_WRITE_PROTECT), false, 19,
         L"Failed to create disk, Error 19."},
        {"layout refused", d::kStyleGpt, control(IOCTL_DISK_SET_DRIVE_LAYOUT_EX, ERROR_INVALID_FUNCTION), false, 1,
         L"Failed to set disk layout for \\\\.\\PHYSICALDRIVE0."},
    };
    kxtest::ScratchDir dir;
    const std::wstring image = dir / L"raw.img";
    ASSERT_TRUE(::CopyFileW(MadeDisks().at("raw").file.c_str(), image.c_str(), FALSE));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ImageDisks& disks = Serve({{image, 512}});
        disks.faults = c.faults;
        kx::unique_hfile holder;
        if (c.heldExclusively)
            holder.reset(::CreateFileW(image.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
        LogCursor log;
        EXPECT_EQ(d::WriteNewPartitionTable(L"\\\\.\\PHYSICALDRIVE0", c.style, 0x1234, kSomeGuid), c.rc);
        if (c.line) {
            EXPECT_TRUE(log.Contains(c.line)) << kxtest::Narrow(c.line);
        }
        if (!c.line) {
            EXPECT_EQ(disks.opens, 0);
        }
        holder.reset();
        TearDown();
        // Nothing reached the disk before the create step.
        if (c.rc != 1) {
            const auto head = kxtest::ReadBytes(image);
            EXPECT_EQ(std::count(head.begin(), head.begin() + 4096, 0), 4096) << "disk changed";
        }
    }
    // An MBR needs no geometry: a disk that refuses to give it still gets one.
    ImageDisks& disks = Serve({{image, 512}});
    disks.faults = control(IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, ERROR_NOT_READY);
    EXPECT_EQ(d::WriteNewPartitionTable(L"\\\\.\\PHYSICALDRIVE0", d::kStyleMbr, 0x1234, kSomeGuid), 0u);
    TearDown();
    const auto head = kxtest::ReadBytes(image);
    EXPECT_TRUE(head[440] == 0x34 && head[441] == 0x12 && head[510] == 0x55 && head[511] == 0xAA);
}

}  // namespace
