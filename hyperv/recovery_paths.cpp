#include "hyperv/recovery_paths.h"

#include <cwchar>

#include "common/wstring_format.h"
#include "hyperv/disk_chain.h"
#include "log/call_frame.h"
#include "platform/hyperv_ops.h"

namespace kx::hyperv {

namespace {

// The lines of one path export: its Init and root-path failures.
struct PathLines {
    log::fmt::Format<DWORD> initFailed;
    log::fmt::Format<DWORD> rootFailed;
};

DWORD SessionFilePath(const wchar_t* vmGuid, const wchar_t* file, const PathLines& lines, std::wstring& path) {
    path.clear();
    CDrVolCbImp cb;
    if (DWORD rc = cb.Init(vmGuid, nullptr)) {
        Log(0, lines.initFailed, rc);
        return rc;
    }
    std::wstring dir;
    if (DWORD rc = cb.GetRootPath(dir)) {
        Log(0, lines.rootFailed, rc);
        return rc;
    }
    path = JoinPath(dir, file);
    return 0;
}

// The buffer convention of the path exports.
DWORD HandOut(const std::wstring& path, wchar_t* buffer, DWORD* chars) {
    const DWORD needed = static_cast<DWORD>(path.size() + 1);
    if (!chars) return ERROR_INVALID_PARAMETER;
    if (!buffer || *chars < needed) {
        *chars = needed;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    wmemcpy(buffer, path.c_str(), needed);
    return 0;
}

}  // namespace

DWORD GetDrInfoLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid, wchar_t* buffer,
                                              DWORD* chars) {
    return RunExport<kGetDrInfoLocalCopyPathForSnapNow_HyperV>(
        [&](auto&) -> DWORD {
            std::wstring path;
            DWORD rc = SessionFilePath(vmGuid, kAdrConfigureNow,
                                       {L"GetDrInfoLocalCopyPathForSnapNow_HyperV, cb Init failed, rc = %d",
                                        L"GetDrInfoLocalCopyPathForSnapNow_HyperV, Get root path failed, rc = %d"},
                                       path);
            if (rc == 0) rc = HandOut(path, buffer, chars);
            if (rc && rc != ERROR_INSUFFICIENT_BUFFER)
                Log(0, L"GetDrInfoLocalCopyPathForSnapNow_HyperV failed, rc = %d", rc);
            Log(2, L"GetAdrLocalCopyPath_HyperV end, path = %s, rc = %d", path.c_str(), rc);
            return rc;
        },
        OrNull(vmName), OrNull(vmGuid));
}

DWORD GetAdrInfoCLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid, wchar_t* buffer,
                                                DWORD* chars) {
    return RunExport<kGetAdrInfoCLocalCopyPathForSnapNow_HyperV>(
        [&](auto&) -> DWORD {
            std::wstring path;
            DWORD rc =
                SessionFilePath(vmGuid, kAdrInfoC,
                                {L"GetAdrInfoCLocalCopyPathForSnapNow_HyperVInner, cb Init failed, rc = %d",
                                 L"GetAdrInfoCLocalCopyPathForSnapNow_HyperVInner, Get root path failed, rc = %d"},
                                path);
            if (rc == 0) rc = HandOut(path, buffer, chars);
            // The outer failure line has always carried this text.
            if (rc && rc != ERROR_INSUFFICIENT_BUFFER) Log(0, L"GetDrInfoLocalCopyPathForSnapNow_VMware failed, rc = %d", rc);
            Log(2, L"GetAdrInfoCLocalCopyPathForSnapNow_HyperV end, path = %s, rc = %d", path.c_str(), rc);
            return rc;
        },
        OrNull(vmName), OrNull(vmGuid));
}

DWORD GetDrInfoLocalCopyPathsForSnapNow_HyperV(const wchar_t* vmGuid, std::vector<std::wstring>& paths) {
    paths.clear();
    CDrVolCbImp cb;
    if (DWORD rc = cb.Init(vmGuid, nullptr)) {
        Log(0, L"GetDrInfoLocalCopyPathsForSnapNow_HyperV, cb Init failed, rc = %d", rc);
        return rc;
    }
    std::vector<std::wstring> folders;
    if (DWORD rc = cb.GetImageFolders(folders)) return rc;
    for (const auto& folder : folders) paths.push_back(JoinPath(folder, kAdrConfigureNow));
    return 0;
}

std::wstring GuestDrInfoToolCommandLine(const wchar_t* vmName, const wchar_t* vmGuid, const wchar_t* folder) {
    std::wstring dir = folder ? folder : L"";
    if (!dir.empty() && (dir.back() == L'\\' || dir.back() == L'/')) dir.pop_back();
    std::wstring line = std::wstring(kGuestDrInfoTool) + L" 1 ";
    for (int i = 0; i < 6; ++i) line += L"\"\" ";
    line += std::wstring(vmGuid ? vmGuid : L"") + L" ";
    line += L"\"" + std::wstring(vmName ? vmName : L"") + L"\" ";
    line += L"\"" + dir + L"\" ";
    return line;
}

namespace {

DWORD CopyAdrConfig(const wchar_t* vmName, const wchar_t* vmGuid, const wchar_t* folder, std::wstring& source) {
    Log(2, L" Create process to get vm dr info and store it under folder %s.", OrNull(folder));
    DWORD exitCode = 0;
    if (DWORD rc = platform::RunHiddenAndWait(GuestDrInfoToolCommandLine(vmName, vmGuid, folder), &exitCode)) {
        Log(0, L"The execution of GuestDrInfoTool.exe returns %d", rc);
        return rc;
    }
    Log(2, L"The execution of GuestDrInfoTool.exe returns %d", exitCode);
    if (exitCode) return exitCode;
    const std::wstring dir = folder ? folder : L"";
    source = dir + (!dir.empty() && (dir.back() == L'\\' || dir.back() == L'/') ? L"" : L"\\") + kAdrConfigure;
    std::vector<std::wstring> targets;
    if (DWORD rc = GetDrInfoLocalCopyPathsForSnapNow_HyperV(vmGuid, targets)) {
        Log(0, L"GetDrInfoLocalCopyPathForSnapNow_HyperV failed, rc = %d", rc);
        return rc;
    }
    DWORD result = 0;
    for (const auto& target : targets) {
        Log(2, L"Copy file from %s to %s.", source.c_str(), target.c_str());
        if (!::CopyFileW(source.c_str(), target.c_str(), FALSE)) {
            result = LastErrorOr();
            Log(0, L"Copy file from %s to %s failed, rc = %d", source.c_str(), target.c_str(), result);
        }
    }
    return result;
}

}  // namespace

DWORD GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                    const wchar_t* folder) {
    return RunExport<kGetIVMAdrConfigLocalCopyPathForSnapNow_HyperV>(
        [&](auto&) -> DWORD {
            std::wstring source;
            const DWORD rc = !vmGuid || !folder ? kE_INVALIDARG : CopyAdrConfig(vmName, vmGuid, folder, source);
            Log(2, L"GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV end, path = %s, rc = %d", source.c_str(), rc);
            return rc;
        },
        OrNull(vmName), OrNull(vmGuid));
}

}  // namespace kx::hyperv
