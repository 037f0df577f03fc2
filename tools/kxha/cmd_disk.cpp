// kxha disk: what a VHD or VHDX file holds (read through the disk libraries,
// never written), and the geometry repair for Hyper-V through the DLL with
// the fields it changed.
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <memory>
#include <vector>

#include "KestrixHA/hyperv_disk.h"
#include "commands.h"
#include "output.h"
#include "platform/vhd/vhd_disk.h"
#include "platform/vhdx/vhdx_disk.h"
#include "platform/win32_positioned_file.h"

namespace kxha {

namespace {

namespace vhd = kx::vhd;
namespace vhdx = kx::vhdx;
using kx::vdisk::ToWide;
using kx::vdisk::Win32FileSystem;

// One disk file, either format, opened read-only (others may go on writing).
struct DiskView {
    std::wstring format;  // "VHD" or "VHDX"
    std::unique_ptr<vhd::VhdDisk> vhd;
    std::unique_ptr<vhdx::VhdxDisk> vhdx;

    uint64_t Size() const { return vhd ? vhd->Size() : vhdx->Size(); }
    uint32_t SectorSize() const { return vhd ? vhd::kSectorSize : vhdx->LogicalSectorSize(); }
    // `bytes` (whole sectors) at a sector-aligned `offset`.
    DWORD Read(uint64_t offset, uint32_t bytes, uint8_t* out) {
        if (vhdx) return vhdx->Read(offset, bytes, out);
        return vhd->Read(offset / vhd::kSectorSize, bytes / vhd::kSectorSize, out);
    }
};

constexpr DWORD kShare = FILE_SHARE_READ | FILE_SHARE_WRITE;

DWORD OpenView(const std::wstring& path, DiskView* view) {
    std::unique_ptr<vhd::PositionedFile> file;
    if (DWORD rc = Win32FileSystem::OpenFile(path, GENERIC_READ, kShare, OPEN_EXISTING, &file)) return rc;
    char magic[8] = {};
    const bool isVhdx = file->ReadAt(0, magic, sizeof magic) == 0 && std::memcmp(magic, "vhdxfile", 8) == 0;
    Win32FileSystem fs(kShare);
    const std::u16string p = kx::vdisk::ToU16(path);
    view->format = isVhdx ? L"VHDX" : L"VHD";
    return isVhdx ? vhdx::VhdxDisk::Open(std::move(file), p, false, fs, &view->vhdx)
                  : vhd::VhdDisk::Open(std::move(file), p, false, fs, &view->vhd);
}

uint32_t Le16(const uint8_t* p) { return p[0] | (p[1] << 8); }
uint32_t Le32(const uint8_t* p) { return Le16(p) | (Le16(p + 2) << 16); }

// A CHS address as the entry stores it.
struct Chs {
    uint32_t cylinder, head, sector;
};
Chs Unpack(const uint8_t* p) { return {p[2] | ((p[1] & 0xC0u) << 2), p[0], p[1] & 0x3Fu}; }
std::wstring Text(const Chs& c) { return Num(c.cylinder) + L"/" + Num(c.head) + L"/" + Num(c.sector); }
std::wstring Json(const Chs& c) {
    return L"{\"cylinder\": " + Num(c.cylinder) + L", \"head\": " + Num(c.head) + L", \"sector\": " + Num(c.sector) + L"}";
}

// The MBR's active entry and the geometry fields of its boot sector.
struct BootState {
    DWORD rc = 0;          // reading them
    uint32_t signature = 0;
    int entry = -1;        // index of the active entry, -1 for none
    uint8_t raw[16] = {};  // the entry's bytes
    bool bootRead = false;
    uint32_t sectorsPerTrack = 0, heads = 0, hidden = 0;

    Chs Start() const { return Unpack(raw + 1); }
    Chs End() const { return Unpack(raw + 5); }
    uint32_t FirstLba() const { return Le32(raw + 8); }
    uint32_t Count() const { return Le32(raw + 12); }
};

// `volumeOffset`: where the boot sector is; by default the active entry's
// first sector.
BootState ReadBootState(DiskView& disk, const uint64_t* volumeOffset) {
    BootState s;
    std::vector<uint8_t> sector(disk.SectorSize());
    if ((s.rc = disk.Read(0, static_cast<uint32_t>(sector.size()), sector.data())) != 0) return s;
    s.signature = Le32(&sector[440]);
    for (int i = 0; i < 4 && s.entry < 0; ++i)
        if (sector[0x1BE + 16 * i] == 0x80) s.entry = i;
    if (s.entry < 0) return s;
    std::memcpy(s.raw, &sector[0x1BE + 16 * s.entry], 16);
    const uint64_t at = volumeOffset ? *volumeOffset : uint64_t(s.FirstLba()) * disk.SectorSize();
    const uint64_t aligned = at / disk.SectorSize() * disk.SectorSize();
    if (aligned + sector.size() > disk.Size() || disk.Read(aligned, static_cast<uint32_t>(sector.size()), sector.data()))
        return s;
    const uint8_t* boot = &sector[at - aligned];
    if (at - aligned + 0x20 > sector.size()) return s;
    s.bootRead = true;
    s.sectorsPerTrack = Le16(boot + 0x18);
    s.heads = Le16(boot + 0x1A);
    s.hidden = Le32(boot + 0x1C);
    return s;
}

const wchar_t* TypeName(uint32_t type) {
    switch (type) {
        case 2: return L"fixed";
        case 3: return L"dynamic";
        case 4: return L"differencing";
    }
    return L"unknown";
}

int DiskInfo(const std::wstring& path, bool json) {
    DiskView disk;
    if (DWORD rc = OpenView(path, &disk)) return Fail(L"open " + path, rc);
    uint32_t type, logical, physical, block;
    uint64_t cylinders;
    uint32_t heads, spt, bps;
    std::vector<std::wstring> chain;
    if (disk.vhd) {
        type = static_cast<uint32_t>(disk.vhd->Type());
        logical = physical = vhd::kSectorSize;
        block = type == 2 ? 0 : disk.vhd->BlockSize();
        const vhd::DiskGeometry g = disk.vhd->Geometry();
        cylinders = g.cylinders, heads = g.heads, spt = g.sectorsPerTrack, bps = g.bytesPerSector;
        for (const vhd::VhdDisk* p = disk.vhd->Parent(); p; p = p->Parent()) chain.push_back(ToWide(p->Path()));
    } else {
        type = static_cast<uint32_t>(disk.vhdx->Kind());
        logical = disk.vhdx->LogicalSectorSize(), physical = disk.vhdx->PhysicalSectorSize();
        block = disk.vhdx->BlockSize();
        const vhdx::Geometry g = disk.vhdx->GetGeometry();
        cylinders = g.cylinders, heads = g.heads, spt = g.sectorsPerTrack, bps = g.bytesPerSector;
        for (const vhdx::VhdxDisk* p = disk.vhdx->Parent(); p; p = p->Parent()) chain.push_back(ToWide(p->Path()));
    }
    const BootState s = ReadBootState(disk, nullptr);
    wchar_t signature[16];
    swprintf(signature, 16, L"0x%08X", s.signature);
    std::wstring o;
    if (json) {
        o = L"{\"path\": " + JsonString(path) + L", \"format\": " + JsonString(disk.format) + L", \"type\": " +
            JsonString(TypeName(type)) + L", \"virtual_size\": " + Num(disk.Size()) + L", \"geometry\": {\"cylinders\": " +
            Num(cylinders) + L", \"heads\": " + Num(heads) + L", \"sectors_per_track\": " + Num(spt) +
            L", \"bytes_per_sector\": " + Num(bps) + L"}, \"logical_sector_size\": " + Num(logical) +
            L", \"physical_sector_size\": " + Num(physical) + L", \"block_size\": " + Num(block) +
            L", \"parents\": " + JsonList(chain) + L", \"disk_signature\": " +
            (s.rc ? L"null" : JsonString(signature)) + L", \"active_partition\": ";
        if (s.entry < 0) {
            o += L"null";
        } else {
            o += L"{\"entry\": " + Num(s.entry + 1) + L", \"type\": " + Num(s.raw[4]) + L", \"first_lba\": " +
                 Num(s.FirstLba()) + L", \"sectors\": " + Num(s.Count()) + L", \"start_chs\": " + Json(s.Start()) +
                 L", \"end_chs\": " + Json(s.End()) + L", \"boot_sector\": ";
            o += s.bootRead ? L"{\"sectors_per_track\": " + Num(s.sectorsPerTrack) + L", \"heads\": " + Num(s.heads) +
                                  L", \"hidden_sectors\": " + Num(s.hidden) + L"}"
                            : L"null";
            o += L"}";
        }
        Out(o + L"}\n");
        return 0;
    }
    o = L"path:              " + path + L"\nformat:            " + disk.format + L" (" + TypeName(type) +
        L")\nvirtual size:      " + Num(disk.Size()) + L" bytes\ngeometry:          " + Num(cylinders) + L"/" +
        Num(heads) + L"/" + Num(spt) + L" (cylinders/heads/sectors per track), " + Num(bps) +
        L" bytes per sector\nsector size:       " + Num(logical) + L" logical, " + Num(physical) +
        L" physical\nblock size:        " + (block ? Num(block) + L" bytes" : std::wstring(L"none")) + L"\n";
    for (size_t i = 0; i < chain.size(); ++i) o += L"parent " + Num(i + 1) + L":          " + chain[i] + L"\n";
    o += L"disk signature:    " + (s.rc ? L"unreadable, rc = " + Num(s.rc) : std::wstring(signature)) + L"\n";
    if (s.entry < 0) {
        o += L"active partition:  none\n";
    } else {
        o += L"active partition:  entry " + Num(s.entry + 1) + L", type 0x" + [&] {
            wchar_t t[8];
            swprintf(t, 8, L"%02X", s.raw[4]);
            return std::wstring(t);
        }() + L", first LBA " + Num(s.FirstLba()) + L", " + Num(s.Count()) + L" sectors\n" +
             L"  CHS:             start " + Text(s.Start()) + L", end " + Text(s.End()) + L"\n";
        o += s.bootRead ? L"  boot sector:     " + Num(s.sectorsPerTrack) + L" sectors per track, " + Num(s.heads) +
                              L" heads, " + Num(s.hidden) + L" hidden sectors\n"
                        : L"  boot sector:     unreadable\n";
    }
    Out(o);
    return 0;
}

std::wstring Change(const wchar_t* what, const std::wstring& before, const std::wstring& after) {
    return before == after ? L"" : L"  " + std::wstring(what) + L": " + before + L" -> " + after + L"\n";
}

int DiskFixChs(const std::wstring& path, const std::wstring& offsetText, const std::wstring& volume) {
    const wchar_t* const what = L"AdjustDiskVolumeCHS";
    wchar_t* end = nullptr;
    const unsigned long long offset = std::wcstoull(offsetText.c_str(), &end, 0);
    if (offsetText.empty() || *end)
        return Fail(what, ERROR_INVALID_PARAMETER, (L"not a byte offset: " + offsetText).c_str());
    BootState before;
    {
        DiskView disk;
        if (OpenView(path, &disk) == 0) before = ReadBootState(disk, &offset);
    }
    bool found = false;
    CAdjustBootCfg_HyperV fix;
    if (DWORD rc = fix.AdjustDiskVolumeCHS(path.c_str(), volume.c_str(), offset, &found)) return Fail(what, rc);
    if (!found) {
        Out(L"no active partition in the MBR: nothing changed\n");
        return 0;
    }
    BootState after;
    {
        DiskView disk;
        if (DWORD rc = OpenView(path, &disk)) return Fail(L"open " + path, rc);
        after = ReadBootState(disk, &offset);
    }
    std::wstring boot = Change(L"sectors per track", Num(before.sectorsPerTrack), Num(after.sectorsPerTrack)) +
                        Change(L"heads", Num(before.heads), Num(after.heads)) +
                        Change(L"hidden sectors", Num(before.hidden), Num(after.hidden));
    std::wstring mbr = Change(L"start CHS", Text(before.Start()), Text(after.Start())) +
                       Change(L"end CHS", Text(before.End()), Text(after.End()));
    std::wstring o;
    if (!boot.empty()) o += L"boot sector at byte " + Num(offset) + L":\n" + boot;
    if (!mbr.empty()) o += L"MBR entry " + Num(after.entry + 1) + L" (active):\n" + mbr;
    Out(o.empty() ? L"nothing changed\n" : o);
    return 0;
}

}  // namespace

int CmdDisk(const Args& args) {
    const auto pos = Positionals(args, {L"--volume"});
    if (pos.size() == 2 && pos[0] == L"info") return DiskInfo(pos[1], HasFlag(args, L"--json"));
    if (pos.size() == 3 && pos[0] == L"fix-chs") return DiskFixChs(pos[1], pos[2], Option(args, L"--volume", L"C:"));
    Err(std::wstring(L"usage: ") + kDiskUsage + L"\n");
    return 2;
}

}  // namespace kxha
