// kxha disks' table and JSON over the library's own listing of the
// in-process disk service (a tool run cannot reach a service inside the
// DLL, so the view is checked here).
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "disk/vds_listing.h"
#include "disks_view.h"
#include "fake_vds.h"
#include "kx_test.h"

namespace {

struct Listing {
    std::vector<VdsDiskRecord> disks;
    std::vector<VdsVolumeRecord> volumes;
};

Listing ListHost() {
    kxtest::FakeVds fake(kxtest::Fixture("host.txt"));
    kxtest::RecordingPause pause;
    fake.Install(&pause);
    Listing l;
    EXPECT_EQ(kx::disk::GetOnlineDisksAndVolumes(l.disks, l.volumes), 0u);
    EXPECT_EQ(kxtest::OutstandingReferences(), 0);
    return l;
}

std::vector<std::wstring> Lines(const std::wstring& text) {
    std::vector<std::wstring> lines;
    size_t at = 0;
    for (size_t nl; (nl = text.find(L'\n', at)) != std::wstring::npos; at = nl + 1)
        lines.push_back(text.substr(at, nl - at));
    return lines;
}

TEST(DisksView, TableNamesExtentsByTheirVolumesLetter) {
    const Listing l = ListHost();
    const std::vector<std::wstring> lines = Lines(kxha::DisksTable(l.disks, l.volumes));
    const std::vector<std::wstring> want = {
        L"DISK  SIZE          STYLE  IDENTITY",
        L"0     64.0 GiB      MBR    0x1A2B3C4D  {1A2B3C4D-0000-0000-0000-000000000000}",
        L"      at 1048576         {6F1A0001-0000-4000-8000-0000000000B1}",
        L"      at 525336576       C:  {6F1A0002-0000-4000-8000-0000000000C1}",
        L"      at 68718428160     (free)",
        L"1     2048.0 GiB    GPT    {7C2D4E6F-1111-2222-3333-444455556666}",
        L"      at 135266304       E:  {6F1A0003-0000-4000-8000-0000000000E1}",
        L"2     10.0 GiB      MBR    0x0BADF00D  {0BADF00D-0000-0000-0000-000000000000}",
        L"      at 1048576         F:  {6F1A0005-0000-4000-8000-0000000000D1}",
        L"      at 5369757696      {6F1A0006-0000-4000-8000-0000000000D2}",
        L"",
        L"VOLUME                                  LETTER  FLAGS       DYNAMIC",
        L"{6F1A0001-0000-4000-8000-0000000000B1}  -       0x00000005  no",
        L"{6F1A0002-0000-4000-8000-0000000000C1}  C:      0x00000001  no",
        L"{6F1A0003-0000-4000-8000-0000000000E1}  E:      0x00000000  no",
        L"{6F1A0005-0000-4000-8000-0000000000D1}  F:      0x00000004  yes",
        L"{6F1A0006-0000-4000-8000-0000000000D2}  -       0x00000000  yes",
    };
    EXPECT_EQ(lines, want);
}

TEST(DisksView, JsonCarriesEveryField) {
    const Listing l = ListHost();
    const std::wstring json = kxha::DisksJson(l.disks, l.volumes);
    for (const wchar_t* part : {
             L"{\"disks\": [{\"number\": 0, \"size\": 68719476736, \"style\": \"MBR\", \"signature\": 439041101, "
             L"\"guid\": \"{1A2B3C4D-0000-0000-0000-000000000000}\", \"extents\": [{\"offset\": 1048576, "
             L"\"volume\": \"{6F1A0001-0000-4000-8000-0000000000B1}\"}, ",
             L"{\"number\": 1, \"size\": 2199023255552, \"style\": \"GPT\", \"signature\": 0, ",
             L"\"volumes\": [{\"guid\": \"{6F1A0001-0000-4000-8000-0000000000B1}\", \"letter\": \"\", \"flags\": 5, "
             L"\"dynamic\": false}, ",
             L"{\"guid\": \"{6F1A0006-0000-4000-8000-0000000000D2}\", \"letter\": \"\", \"flags\": 0, "
             L"\"dynamic\": true}]}\n"})
        EXPECT_NE(json.find(part), std::wstring::npos) << kxtest::Narrow(part);
}

}  // namespace
