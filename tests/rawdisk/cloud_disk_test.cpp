// GetDiskPathforCloudDisk end to end: the disk service (the tests' stand-in)
// shows the disks, the device seam serves image files as those disks. A raw
// disk of the wanted size gets the asked table written into its image, which
// the check step after this program reads back with sfdisk (cloud_mbr,
// cloud_gpt); a disk that already carries the identity is only reported.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/disk_checks.h"
#include "disk/cloud_disk_locate.h"
#include "fake_vds.h"
#include "image_disks.h"
#include "kx_test.h"

namespace {

using kxtest::FakeVds;
using kxtest::RecordingPause;
using rawtest::ImageDisk;
using rawtest::ImageDisks;

constexpr ULONGLONG k16MiB = 16ull << 20;

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }
std::wstring Made(const std::string& file) { return Wide(std::string("Z:") + KX_RAWDISK_MADE + "/" + file); }
std::wstring Out(const std::string& file) { return Wide(std::string("Z:") + KX_RAWDISK_OUT + "/" + file); }

// The host: its system disk (number 0) and the disk the platform attached.
std::string Host(const std::string& attached) {
    return "provider basic\npack basic0 provider=basic\n"
           "disk sys pack=basic0 number=0 size=67108864 style=mbr signature=0x1234ABCD\n" +
           attached + "\n";
}

CloudDiskLocateRequest Request(DWORD style, DWORD signature, const wchar_t* guid) {
    CloudDiskLocateRequest r{};
    r.cbSize = sizeof(r);
    r.partitionStyle = style;
    r.diskSize = k16MiB;
    r.signature = signature;
    r.unallocatedOnly = 1;
    if (guid) {
        EXPECT_EQ(::CLSIDFromString(guid, &r.diskGuid), S_OK);
    }
    wcscpy_s(r.diskPath, L"left over");
    return r;
}

// Image files behind disk numbers 0..7; only `seventh` is ever written.
std::vector<ImageDisk> Disks(const std::wstring& seventh) {
    std::vector<ImageDisk> disks(8, ImageDisk{Made("mbr_a.img")});
    disks[7] = {seventh};
    return disks;
}

TEST(CloudDisk, RawDiskGetsTheAskedTable) {
    struct Case {
        const char* image;  // named in the check step
        DWORD style;
        DWORD signature;
        const wchar_t* guid;
    };
    const Case cases[] = {
        {"cloud_mbr.img", 1, 0x5EED0101, nullptr},
        {"cloud_gpt.img", 2, 0, L"{C10D0D15-1111-4222-8333-0000000C0DE5}"},
    };
    ::CreateDirectoryW(Out("").c_str(), nullptr);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.image);
        const std::wstring copy = Out(c.image);
        ASSERT_TRUE(::CopyFileW(Made("raw.img").c_str(), copy.c_str(), FALSE));
        ImageDisks disks(Disks(copy));
        RecordingPause pause;
        FakeVds vds(Host("disk new pack=unallocated number=7 size=16777216"));
        vds.Install(&pause);
        CloudDiskLocateRequest r = Request(c.style, c.signature, c.guid);
        EXPECT_EQ(kx::disk::GetDiskPathforCloudDisk(&r), 0u);
        EXPECT_STREQ(r.diskPath, L"\\\\?\\PhysicalDrive7");
        EXPECT_EQ(vds.offlineCalls, 1) << "off line before the table is written";
        EXPECT_EQ(disks.opened, std::vector<std::wstring>{L"\\\\?\\PhysicalDrive7"});
        EXPECT_EQ(disks.opens, disks.closes);
        EXPECT_EQ(kxtest::OutstandingReferences(), 0);
    }
}

TEST(CloudDisk, InitialisedDisksAndRefusals) {
    const std::wstring untouched = Made("mbr_b.img");
    ImageDisks disks(Disks(untouched));
    RecordingPause pause;
    // An MBR disk with the signature asked for is reported as it is.
    {
        FakeVds vds(Host("disk mbr pack=basic0 number=7 size=16777216 style=mbr signature=0x5EED0202"));
        vds.Install(&pause);
        CloudDiskLocateRequest r = Request(1, 0x5EED0202, nullptr);
        r.unallocatedOnly = 0;
        EXPECT_EQ(kx::disk::GetDiskPathforCloudDisk(&r), 0u);
        EXPECT_STREQ(r.diskPath, L"\\\\?\\PhysicalDrive7");
        EXPECT_TRUE(disks.opened.empty()) << "an initialised disk is not written";
    }
    // The same disk asked for as GPT, or with another signature: nothing
    // in 120 rounds, and the path stays empty.
    for (const wchar_t* guid : {static_cast<const wchar_t*>(nullptr), L"{5EED0202-0000-0000-0000-000000000000}"}) {
        FakeVds vds(Host("disk mbr pack=basic0 number=7 size=16777216 style=mbr signature=0x5EED0202"));
        vds.Install(&pause);
        pause.pauses.clear();
        CloudDiskLocateRequest r = guid ? Request(2, 0, guid) : Request(1, 0x5EED0203, nullptr);
        r.unallocatedOnly = 0;
        EXPECT_EQ(kx::disk::GetDiskPathforCloudDisk(&r), 0xFFFFFFFFu);
        EXPECT_STREQ(r.diskPath, L"");
        EXPECT_EQ(pause.pauses, std::vector<DWORD>(120, 1000));
    }
    // Requests refused before the service is asked.
    FakeVds vds(Host(""));
    vds.Install(&pause);
    EXPECT_EQ(kx::disk::GetDiskPathforCloudDisk(nullptr), 87u);
    CloudDiskLocateRequest shortRecord = Request(1, 1, nullptr);
    shortRecord.cbSize -= 2;
    CloudDiskLocateRequest raw = Request(0, 0, nullptr);
    for (CloudDiskLocateRequest* r : {&shortRecord, &raw}) EXPECT_EQ(kx::disk::GetDiskPathforCloudDisk(r), 87u);
    EXPECT_EQ(vds.loads, 0);
    EXPECT_TRUE(disks.opened.empty());
    EXPECT_EQ(kxtest::OutstandingReferences(), 0);
}

}  // namespace
