// kxha iso create: an ISO image (ISO 9660 + Joliet) of one folder through
// CreateIsoImage. The folder becomes a top-level folder of the image. While
// the image is written, a progress line follows the image file's growth
// (on a terminal, or always with --progress).
#include <windows.h>
#include <objbase.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "KestrixHA/iso.h"
#include "commands.h"
#include "common/unique_resource.h"
#include "output.h"

namespace kxha {

namespace {

struct TreeSize {
    unsigned long long bytes = 0;
    unsigned long files = 0, folders = 0;
};

void Measure(const std::wstring& folder, TreeSize& size) {
    WIN32_FIND_DATAW fd;
    kx::unique_hfind find(::FindFirstFileW((folder + L"\\*").c_str(), &fd));
    if (!find) return;
    do {
        const std::wstring name = fd.cFileName;
        if (name == L"." || name == L"..") continue;
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            ++size.folders;
            if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT)) Measure(folder + L"\\" + name, size);
        } else {
            ++size.files;
            size.bytes += (static_cast<unsigned long long>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow;
        }
    } while (::FindNextFileW(find.get(), &fd));
}

unsigned long long FileBytes(const std::wstring& path) {
    WIN32_FILE_ATTRIBUTE_DATA a{};
    if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &a)) return 0;
    return (static_cast<unsigned long long>(a.nFileSizeHigh) << 32) | a.nFileSizeLow;
}

std::wstring MiB(unsigned long long bytes) { return Num((bytes + (1 << 19)) >> 20) + L" MiB"; }

// Shows "writing <image>: N MiB of about M MiB (P%)" until stopped, from
// the second second on.
class ImageProgress {
public:
    ImageProgress(const std::wstring& image, unsigned long long expected, bool show) {
        if (!show) return;
        thread_ = std::thread([=, this] {
            for (int tick = 0; !stop_; ++tick) {
                ::Sleep(250);
                if (tick < 4 || stop_) continue;
                const unsigned long long now = FileBytes(image);
                const unsigned pct = expected ? static_cast<unsigned>(std::min(100ull, now * 100 / expected)) : 0;
                Out(L"\rwriting image: " + MiB(now) + L" of about " + MiB(expected) + L" (" + Num(pct) + L"%)   ");
                shown_ = true;
            }
        });
    }
    ~ImageProgress() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        if (shown_) Out(L"\r" + std::wstring(70, L' ') + L"\r");
    }

private:
    std::atomic<bool> stop_{false};
    std::atomic<bool> shown_{false};
    std::thread thread_;
};

int Create(const Args& args) {
    const std::vector<std::wstring> pos = Positionals(args, {L"--volume"});
    if (pos.size() != 3) {
        Err(L"usage: kxha iso create <folder> <image> [--volume NAME] [--progress]\n");
        return 2;
    }
    const std::wstring& folder = pos[1];
    const std::wstring& image = pos[2];
    const std::wstring volume = Option(args, L"--volume");
    const DWORD a = ::GetFileAttributesW(folder.c_str());
    if (a == INVALID_FILE_ATTRIBUTES || !(a & FILE_ATTRIBUTE_DIRECTORY))
        return Fail(L"CreateIsoImage", ERROR_PATH_NOT_FOUND, (L"no folder " + folder).c_str());
    TreeSize size;
    Measure(folder, size);
    ::DeleteFileW(image.c_str());

    const HRESULT com = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    DWORD rc;
    {
        ImageProgress progress(image, size.bytes + 2048ull * (size.files + size.folders + 32),
                               StdoutIsTerminal() || HasFlag(args, L"--progress"));
        rc = CreateIsoImage(folder, volume, image);
    }
    if (SUCCEEDED(com)) ::CoUninitialize();
    if (rc) return Fail(L"CreateIsoImage", rc);
    if (::GetFileAttributesW(image.c_str()) == INVALID_FILE_ATTRIBUTES)
        return Fail(L"CreateIsoImage", ERROR_WRITE_FAULT,
                    (L"no image was written to " + image + L"; the debug log ('kxha log') has the reason").c_str());
    Out(image + L": " + Num(FileBytes(image)) + L" bytes, " + Num(size.files) + L" files and " +
        Num(size.folders + 1) + L" folders" + (volume.empty() ? L"" : L", volume " + volume) + L"\n");
    return 0;
}

}  // namespace

int CmdIso(const Args& args) {
    if (!args.empty() && args[0] == L"create") return Create(args);
    Err(std::wstring(L"usage: ") + kIsoUsage + L"\n");
    return 2;
}

}  // namespace kxha
