// kxha bitmap ...: preparing, listing, checking and removing session bitmaps,
// and reading a bitmap file or a disk's union bitmap.
#include <cwchar>

#include "KestrixHA.h"
#include "bitmap_scan.h"
#include "commands.h"
#include "output.h"
#include "owners.h"
#include "progress.h"

namespace kxha {

namespace {

int NeedArgs(const std::vector<std::wstring>& pos, size_t n, const wchar_t* usage) {
    if (pos.size() >= n) return 0;
    Err(std::wstring(L"usage: ") + usage + L"\n");
    return 2;
}

std::wstring ExtentsText(const BitmapScan& s, size_t max) {
    std::wstring o;
    for (size_t i = 0; i < s.extents.size() && i < max; ++i)
        o += L"  sectors " + Num(s.extents[i].first) + L"-" + Num(s.extents[i].first + s.extents[i].count - 1) +
             L" (" + Num(s.extents[i].count) + L")\n";
    if (s.extents.size() > max) o += L"  ... " + Num(s.extents.size() - max) + L" more extents\n";
    return o;
}

std::wstring ExtentsJson(const BitmapScan& s, size_t max) {
    std::wstring o = L"[";
    for (size_t i = 0; i < s.extents.size() && i < max; ++i)
        o += (i ? L", [" : L"[") + Num(s.extents[i].first) + L", " + Num(s.extents[i].count) + L"]";
    return o + L"]";
}

std::wstring MiB(unsigned long long sectors) {
    wchar_t b[32];
    _snwprintf(b, 32, L"%.1f", static_cast<double>(sectors) * 512.0 / 1048576.0);
    return b;
}

int Create(const Args& args, bool json) {
    const auto pos = Positionals(args, {L"--bitmap-root"});
    if (int rc = NeedArgs(pos, 1, L"kxha bitmap create <destination> [--bitmap-root DIR] [--regen]")) return rc;
    const std::wstring bitmapRoot = Option(args, L"--bitmap-root");
    DWORD rc;
    {
        LogProgress progress;
        if (HasFlag(args, L"--regen"))
            rc = CreateSessionBitmapEx(pos[0].c_str(), bitmapRoot.empty() ? nullptr : bitmapRoot.c_str(), 0, 0, 1, 0);
        else
            rc = CreateBitmap4BackupDest(pos[0].c_str(), 0, bitmapRoot.empty() ? nullptr : bitmapRoot.c_str());
    }
    if (rc) return Fail(L"preparing bitmaps of " + pos[0], rc);
    std::vector<std::wstring> sessions;
    GetBitmapList4BackupDest((bitmapRoot.empty() ? pos[0] : bitmapRoot).c_str(), sessions);
    if (json)
        Out(L"{\"destination\": " + JsonString(pos[0]) + L", \"prepared\": " + JsonList(sessions) + L"}\n");
    else
        Out(L"Prepared sessions of " + pos[0] + L": " + Num(sessions.size()) + L"\n");
    return 0;
}

int List(const Args& args, bool json) {
    const auto pos = Positionals(args, {});
    if (int rc = NeedArgs(pos, 1, L"kxha bitmap list <path>")) return rc;
    std::vector<std::wstring> sessions;
    if (DWORD rc = GetSessionBitmapList(pos[0].c_str(), sessions)) return Fail(L"GetSessionBitmapList", rc);
    if (json) {
        Out(L"{\"sessions\": " + JsonList(sessions) + L"}\n");
    } else {
        for (auto& s : sessions) Out(s + L"\n");
        if (sessions.empty()) Out(L"(no prepared sessions)\n");
    }
    return 0;
}

int Disks(const Args& args, bool json) {
    const auto pos = Positionals(args, {});
    if (int rc = NeedArgs(pos, 2, L"kxha bitmap disks <path> <session>")) return rc;
    std::vector<std::wstring> files;
    if (DWORD rc = GetBitmapDiskList(pos[0].c_str(), pos[1].c_str(), files)) return Fail(L"GetBitmapDiskList", rc);
    if (json) {
        Out(L"{\"bitmaps\": " + JsonList(files) + L"}\n");
    } else {
        for (auto& f : files) Out(f + L"\n");
        if (files.empty()) Out(L"(no bitmap files)\n");
    }
    return 0;
}

int Check(const Args& args, bool json) {
    const auto pos = Positionals(args, {});
    if (int rc = NeedArgs(pos, 2, L"kxha bitmap check <root> <session>")) return rc;
    SessionBitmapCheck c{};
    if (DWORD rc = CheckSessionBitmap(pos[0].c_str(), pos[1].c_str(), &c)) return Fail(L"CheckSessionBitmap", rc);
    if (json) {
        Out(L"{\"session\": " + std::wstring(c.sessionExists ? L"true" : L"false") + L", \"bitmap\": " +
            (c.bitmapExists ? L"true" : L"false") + L", \"match\": " + (c.match ? L"true" : L"false") + L"}\n");
    } else {
        Out(L"session folder: " + std::wstring(c.sessionExists ? L"yes" : L"no") + L"\nbitmap folder:  " +
            (c.bitmapExists ? L"yes" : L"no") + L"\nmatch:          " + (c.match ? L"yes" : L"no") + L"\n");
    }
    return c.match ? 0 : 1;
}

int Delete(const Args& args, bool json) {
    const auto pos = Positionals(args, {});
    if (int rc = NeedArgs(pos, 1, L"kxha bitmap delete <path> [session]")) return rc;
    const wchar_t* session = pos.size() > 1 ? pos[1].c_str() : nullptr;
    if (DWORD rc = DeleteSessionBitmap(pos[0].c_str(), session)) return Fail(L"DeleteSessionBitmap", rc);
    if (json)
        Out(L"{\"deleted_up_to\": " + JsonString(session ? session : L"all") + L"}\n");
    else
        Out(std::wstring(L"Removed prepared sessions up to ") + (session ? session : L"the newest") + L"\n");
    return 0;
}

int Obsolete(const Args& args, bool json) {
    const auto pos = Positionals(args, {});
    if (int rc = NeedArgs(pos, 3, L"kxha bitmap obsolete <path> <begin session> <end session>")) return rc;
    if (DWORD rc = DetectAndRemoveObsolteBitmap(pos[0].c_str(), pos[1].c_str(), pos[2].c_str()))
        return Fail(L"DetectAndRemoveObsolteBitmap", rc);
    if (json)
        Out(L"{\"result\": 0}\n");
    else
        Out(L"Checked sessions after " + pos[1] + L" up to " + pos[2] + L"\n");
    return 0;
}

int Show(const Args& args, bool json) {
    const auto pos = Positionals(args, {L"--max-extents"});
    if (int rc = NeedArgs(pos, 1, L"kxha bitmap show <file> [--max-extents N]")) return rc;
    const size_t max = wcstoul(Option(args, L"--max-extents", L"20").c_str(), nullptr, 10);
    // The reader's bare failure: a file too short for a bitmap's header, or
    // whose header claims more sectors than the file holds.
    const wchar_t* notBitmap = L"not a session bitmap file";
    BitmapReader r;
    if (DWORD rc = ReadDiskBitmap(pos[0].c_str(), Put(r)))
        return Fail(L"ReadDiskBitmap(" + pos[0] + L")", rc, rc == kNoCode ? notBitmap : nullptr);
    bool full = false;
    CheckIfIsFullZekBeforeMerged(pos[0].c_str(), &full);
    BitmapScan s;
    if (DWORD rc = ScanBitmap(r.get(), &s)) return Fail(L"reading " + pos[0], rc, rc == kNoCode ? notBitmap : nullptr);
    if (json) {
        Out(L"{\"file\": " + JsonString(pos[0]) + L", \"differencing\": " + (full ? L"false" : L"true") +
            L", \"total_sectors\": " + Num(s.totalSectors) + L", \"set_sectors\": " + Num(s.setSectors) +
            L", \"extents\": " + Num(s.extents.size()) + L", \"first_extents\": " + ExtentsJson(s, max) + L"}\n");
    } else {
        Out(L"Bitmap file:   " + pos[0] + L"\nDisk:          " + (full ? L"full image" : L"differencing") +
            L"\nTotal sectors: " + Num(s.totalSectors) + L" (" + MiB(s.totalSectors) + L" MiB)\nSet sectors:   " +
            Num(s.setSectors) + L" (" + MiB(s.setSectors) + L" MiB)\nExtents:       " + Num(s.extents.size()) +
            L"\n" + ExtentsText(s, max));
    }
    return 0;
}

int Union(const Args& args, bool json) {
    const auto pos = Positionals(args, {L"--max-extents"});
    if (int rc = NeedArgs(pos, 2, L"kxha bitmap union <disk file> <lowest session>")) return rc;
    const size_t max = wcstoul(Option(args, L"--max-extents", L"10").c_str(), nullptr, 10);
    const wchar_t* lowest = pos[1].c_str();
    if (*lowest == L'S' || *lowest == L's') ++lowest;
    BitmapReader r;
    if (DWORD rc = GetBitmapReader_IncsFromFull(pos[0].c_str(), wcstoul(lowest, nullptr, 10), nullptr, Put(r)))
        return Fail(L"GetBitmapReader_IncsFromFull(" + pos[0] + L")", rc);
    BitmapScan s;
    if (DWORD rc = ScanBitmap(r.get(), &s)) return Fail(L"reading the union bitmap", rc);
    if (json) {
        Out(L"{\"disk\": " + JsonString(pos[0]) + L", \"total_sectors\": " + Num(s.totalSectors) +
            L", \"changed_sectors\": " + Num(s.setSectors) + L", \"bytes_to_copy\": " + Num(s.setSectors * 512) +
            L", \"extents\": " + Num(s.extents.size()) + L", \"first_extents\": " + ExtentsJson(s, max) + L"}\n");
    } else {
        Out(L"Disk:            " + pos[0] + L"\nChanged sectors: " + Num(s.setSectors) + L" of " + Num(s.totalSectors) +
            L"\nTo copy:         " + MiB(s.setSectors) + L" MiB of " + MiB(s.totalSectors) + L" MiB\nExtents:         " +
            Num(s.extents.size()) + L"\n" + ExtentsText(s, max));
    }
    return 0;
}

struct Sub {
    const wchar_t* name;
    const wchar_t* usage;
    int (*run)(const Args&, bool);
};

const Sub kSubs[] = {
    {L"create", L"create <destination> [--bitmap-root DIR] [--regen]   prepare bitmaps of new sessions", Create},
    {L"list", L"list <path>                      prepared sessions of every destination of a path", List},
    {L"disks", L"disks <path> <session>           bitmap files of a prepared session", Disks},
    {L"check", L"check <root> <session>           does the prepared session match its session folder", Check},
    {L"delete", L"delete <path> [session]          remove prepared sessions up to and including session", Delete},
    {L"obsolete", L"obsolete <path> <begin> <end>    remove bitmaps made obsolete by a full session", Obsolete},
    {L"show", L"show <file> [--max-extents N]    header, set sectors and extents of a bitmap file", Show},
    {L"union", L"union <disk file> <lowest session>   changed sectors of a disk across sessions", Union},
};

}  // namespace

std::wstring BitmapUsage() {
    std::wstring u = L"kxha bitmap <subcommand> ... [--json]\n\nsubcommands:\n";
    for (const auto& s : kSubs) u += std::wstring(L"  ") + s.usage + L"\n";
    return u;
}

int CmdBitmap(const Args& args) {
    if (args.empty()) {
        Err(L"usage: " + BitmapUsage());
        return 2;
    }
    const Args rest(args.begin() + 1, args.end());
    for (const auto& s : kSubs)
        if (args[0] == s.name) return s.run(rest, HasFlag(rest, L"--json"));
    Err(L"kxha bitmap: unknown subcommand '" + args[0] + L"'\n" + BitmapUsage());
    return 2;
}

}  // namespace kxha
