// kxha guest inject-service: the helper service put into an offline guest
// through the library's export, with the files it placed and the keys and
// values it changed in the system and software hives.
#include <windows.h>

#include <vector>

#include "common/dir_list.h"
#include "common/unique_resource.h"
#include "commands.h"
#include "guest_fixup.h"
#include "output.h"

namespace kxha {

namespace {

std::vector<char> FileBytes(const std::wstring& path, bool* present) {
    std::vector<char> data;
    kx::unique_hfile f(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    *present = static_cast<bool>(f);
    char buf[65536];
    DWORD n = 0;
    while (f && ::ReadFile(f.get(), buf, sizeof buf, &n, nullptr) && n > 0) data.insert(data.end(), buf, buf + n);
    return data;
}

struct PlacedFile {
    std::wstring name;
    bool present = false;
    std::vector<char> bytes;
};

// The source's top-level files and what the guest holds under their names.
std::vector<PlacedFile> Placed(const std::wstring& source, const std::wstring& folder) {
    std::vector<PlacedFile> files;
    (void)kx::ListDirectory(source + L"\\*", [&](const WIN32_FIND_DATAW& fd) {
        if (kx::IsFolder(fd)) return;
        PlacedFile p;
        p.name = fd.cFileName;
        p.bytes = FileBytes(folder + L"\\" + p.name, &p.present);
        files.push_back(std::move(p));
    });
    return files;
}

}  // namespace

int GuestInjectService(const std::vector<std::wstring>& pos) {
    FixupPlan plan;
    plan.windows = pos[1];
    plan.helperSource = pos[2];
    plan.repair = false;
    const std::wstring folder = plan.windows + L"\\System32\\qlnvmhelpersvc";
    const std::vector<PlacedFile> before = Placed(plan.helperSource, folder);
    const FixupResult r = RunGuestFixup(plan);
    if (!r.failedStep.empty()) return ReportFixup(r);
    const std::vector<PlacedFile> after = Placed(plan.helperSource, folder);
    std::wstring o = L"files in " + folder + L":\n";
    for (size_t i = 0; i < after.size() && i < before.size(); ++i) {
        const wchar_t* mark = !before[i].present ? L"+ " : before[i].bytes != after[i].bytes ? L"* " : L"  ";
        o += L"  " + std::wstring(mark) + after[i].name + L" (" + Num(after[i].bytes.size()) + L" bytes)" +
             (mark[0] == L' ' ? L" unchanged" : L"") + L"\n";
    }
    Out(o + L"\n");
    return ReportFixup(r);
}

}  // namespace kxha
