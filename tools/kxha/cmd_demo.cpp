// kxha demo [folder]: builds the demo destination and runs one
// virtual-standby cycle over it through the exports, checking every disk's
// union bitmap against the writes the demo made; then repairs the demo
// guest for Hyper-V and checks what changed (demo_guest.cpp).
#include <cwchar>

#include "KestrixHA.h"
#include "bitmap_scan.h"
#include "commands.h"
#include "demo.h"
#include "output.h"
#include "owners.h"
#include "progress.h"

namespace kxha {

namespace {

struct DiskResult {
    std::wstring file;
    unsigned chainFrom = 0, chainTo = 0;
    unsigned long long sectors = 0, changed = 0, mismatched = 0;
};

std::wstring Fixed(double v) {
    wchar_t b[32];
    _snwprintf(b, 32, L"%.1f", v);
    return b;
}

std::wstring Pad(const std::wstring& s, size_t width) { return s.size() >= width ? s : s + std::wstring(width - s.size(), L' '); }
std::wstring PadLeft(const std::wstring& s, size_t width) { return s.size() >= width ? s : std::wstring(width - s.size(), L' ') + s; }

bool FolderIsFreshOrEmpty(const std::wstring& folder) {
    const DWORD attr = ::GetFileAttributesW(folder.c_str());
    if (attr == INVALID_FILE_ATTRIBUTES) return true;
    if (!(attr & FILE_ATTRIBUTE_DIRECTORY)) return false;
    std::vector<std::wstring> entries;
    GetFileListByPattern((folder + L"\\*").c_str(), entries);
    return entries.empty();
}

// The bitmap stage: a destination of six sessions, its bitmaps prepared, a
// range locked and every disk's union checked against the demo's writes.
int BitmapStage(const std::wstring& folder, bool json, bool progress, std::wstring* jsonFields) {
    const std::wstring root = folder + L"\\destination";

    // 1. The destination: six sessions of three disks.
    demo::Destination dest(root);
    if (DWORD rc = demo::BuildDestination(&dest, progress)) return Fail(L"writing the demo destination", rc);
    if (!json) Out(L"Demo destination: " + root + L"\n  sessions S0000000001 (full) to S0000000005, S0000000006 still Active\n");

    // 2. Prepare the bitmaps of the new sessions.
    DWORD rc;
    {
        LogProgress watch;
        rc = CreateBitmap4BackupDest(root.c_str(), 0, nullptr);
    }
    if (rc) return Fail(L"CreateBitmap4BackupDest", rc);
    std::vector<std::wstring> prepared;
    GetBitmapList4BackupDest(root.c_str(), prepared);
    if (!json) Out(L"Prepared sessions: " + Num(prepared.size()) + L" (the Active one is skipped)\n");

    // 3. Lock the range being converted.
    const unsigned lowest = dest.fullSession + 1, newest = dest.lastFinished;
    SessionLock lock;
    if ((rc = HA_LockZekSessions(root.c_str(), static_cast<int>(lowest), static_cast<int>(newest), Put(lock), 0)))
        return Fail(L"HA_LockZekSessions", rc);

    // 4. Each disk's union over the range, against the writes the demo made.
    std::vector<DiskResult> results;
    bool allMatch = true;
    for (const auto& disk : dest.sessions.disks()) {
        DiskResult r;
        r.file = disk.file;
        r.sectors = disk.sectors;
        r.chainTo = newest;
        r.chainFrom = std::max(lowest, disk.firstSession);
        const std::wstring path = root + L"\\VStore\\" + SessionName(newest) + L"\\" + disk.file;
        BitmapReader reader;
        if ((rc = GetBitmapReader_IncsFromFull(path.c_str(), lowest, nullptr, Put(reader))))
            return Fail(L"GetBitmapReader_IncsFromFull(" + path + L")", rc);
        BitmapScan scan;
        if ((rc = ScanBitmap(reader.get(), &scan, true))) return Fail(L"reading the union bitmap of " + disk.file, rc);
        const kx::fixture::SectorBits expected = dest.sessions.Union(disk, r.chainFrom, r.chainTo);
        for (size_t i = 0; i < expected.size(); ++i) {
            const BYTE got = i < scan.bits.size() ? scan.bits[i] : 0;
            for (BYTE x = got ^ expected[i]; x; x &= x - 1) ++r.mismatched;
        }
        r.changed = scan.setSectors;
        allMatch = allMatch && r.mismatched == 0 && scan.totalSectors == disk.sectors;
        results.push_back(r);
    }

    // 5. Unlock, drop the converted bitmaps and mark the last converted session.
    lock.reset();
    if ((rc = DeleteSessionBitmap(root.c_str(), SessionName(newest).c_str()))) return Fail(L"DeleteSessionBitmap", rc);
    // A second run finds nothing new: the last converted session is the newest finished one.
    if ((rc = CreateBitmap4BackupDest(root.c_str(), 0, nullptr))) return Fail(L"CreateBitmap4BackupDest (again)", rc);
    std::vector<std::wstring> left;
    GetBitmapList4BackupDest(root.c_str(), left);

    wchar_t logFile[1024] = {};
    DWORD chars = 1024;
    KxGetDebugLogFile(logFile, &chars);

    if (json) {
        std::wstring o = L"\"destination\": " + JsonString(root) + L", \"prepared\": " + Num(prepared.size()) +
                         L", \"prepared_after_conversion\": " + Num(left.size()) + L", \"disks\": [";
        for (size_t i = 0; i < results.size(); ++i) {
            const auto& r = results[i];
            o += (i ? L", " : L"") + std::wstring(L"{\"disk\": ") + JsonString(r.file) + L", \"chain\": [" +
                 Num(r.chainFrom) + L", " + Num(r.chainTo) + L"], \"sectors\": " + Num(r.sectors) +
                 L", \"changed_sectors\": " + Num(r.changed) + L", \"mismatched_sectors\": " + Num(r.mismatched) + L"}";
        }
        *jsonFields = o + L"], \"match\": " + (allMatch ? L"true" : L"false") + L", \"log\": " + JsonString(logFile);
    } else {
        Out(L"\n" + Pad(L"disk", 20) + Pad(L"sessions in chain", 26) + PadLeft(L"changed sectors", 16) +
            PadLeft(L"MiB to copy", 13) + PadLeft(L"of MiB", 9) + L"  check\n");
        for (const auto& r : results) {
            const std::wstring chain = SessionName(r.chainFrom) + L".." + Num(r.chainTo) + L" (" +
                                       Num(r.chainTo - r.chainFrom + 1) + L")";
            Out(Pad(r.file, 20) + Pad(chain, 26) + PadLeft(Num(r.changed), 16) +
                PadLeft(Fixed(r.changed * 512.0 / 1048576.0), 13) + PadLeft(Fixed(r.sectors * 512.0 / 1048576.0), 9) +
                (r.mismatched ? L"  MISMATCH (" + Num(r.mismatched) + L" sectors)" : L"  ok") + L"\n");
        }
        Out(L"\nAfter the conversion: " + Num(left.size()) + L" prepared sessions left, last converted " +
            SessionName(newest) + L"\nDebug log: " + logFile + L"\n");
    }
    if (!allMatch) {
        Err(L"kxha demo: the union bitmaps differ from the demo's writes\n");
        return 1;
    }
    return 0;
}

}  // namespace

int CmdDemo(const Args& args) {
    const bool json = HasFlag(args, L"--json");
    const bool progress = !json && StdoutIsTerminal();
    auto pos = Positionals(args, {L"--guest-data"});
    std::wstring folder;
    if (!pos.empty()) {
        folder = pos[0];
    } else {
        wchar_t tmp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, tmp);
        folder = std::wstring(tmp) + L"kxha-demo-" + Num(::GetCurrentProcessId());
    }
    while (folder.size() > 3 && folder.back() == L'\\') folder.pop_back();
    if (!FolderIsFreshOrEmpty(folder)) {
        Err(L"kxha demo: " + folder + L" is not empty; give a new folder\n");
        return 2;
    }
    ::CreateDirectoryW(folder.c_str(), nullptr);

    std::wstring bitmaps, guest;
    int rc = HasFlag(args, L"--guest-only") ? 0 : BitmapStage(folder, json, progress, &bitmaps);
    if (rc == 0) rc = demo::GuestStage(folder, Option(args, L"--guest-data", demo::DefaultGuestData()), json, &guest);
    if (json && !(bitmaps.empty() && guest.empty()))
        Out(L"{" + bitmaps + (bitmaps.empty() || guest.empty() ? L"" : L", ") + guest + L"}\n");
    return rc;
}

}  // namespace kxha
