// The system's shadow-copy service, loaded from vssapi.dll at first use.
#include "platform/vss.h"

#include <vector>

#include "common/proc_address.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "log/debug_log.h"

namespace kx::platform {
namespace {

using CreateComponentsFn = HRESULT(WINAPI*)(IVssBackupComponents**);
using FreePropertiesFn = void(WINAPI*)(VSS_SNAPSHOT_PROP*);

// The module stays loaded while the process lives: objects it made may
// outlive any one caller.
struct VssModule {
    unique_hmodule module;
    CreateComponentsFn create = nullptr;
    FreePropertiesFn freeProps = nullptr;
    DWORD loadError = 0;

    VssModule() {
        module.reset(::LoadLibraryW(L"vssapi.dll"));
        if (!module) {
            loadError = ::GetLastError();
            Log(0, L"VSS: vssapi.dll can't be loaded, rc = [%d]", loadError);
            return;
        }
        create = ProcAddress<CreateComponentsFn>(module.get(), "CreateVssBackupComponentsInternal");
        freeProps = ProcAddress<FreePropertiesFn>(module.get(), "VssFreeSnapshotPropertiesInternal");
        if (!create) {
            loadError = ERROR_PROC_NOT_FOUND;
            Log(0, L"VSS: vssapi.dll has no CreateVssBackupComponentsInternal");
        }
    }
};

VssModule& Module() {
    static VssModule module;
    return module;
}

void FreeString(VSS_PWSZ& s) noexcept {
    ::CoTaskMemFree(s);
    s = nullptr;
}

class SystemVss final : public VssApi {
public:
    HRESULT CreateBackupComponents(IVssBackupComponents** components) override {
        if (!components) return E_POINTER;
        *components = nullptr;
        VssModule& m = Module();
        if (!m.create) return HRESULT_FROM_WIN32(m.loadError);
        return m.create(components);
    }

    void FreeSnapshotProperties(VSS_SNAPSHOT_PROP* prop) override {
        if (!prop) return;
        VssModule& m = Module();
        if (m.freeProps) {
            m.freeProps(prop);
            return;
        }
        // The strings are the service's task allocations.
        FreeString(prop->m_pwszSnapshotDeviceObject);
        FreeString(prop->m_pwszOriginalVolumeName);
        FreeString(prop->m_pwszOriginatingMachine);
        FreeString(prop->m_pwszServiceMachine);
        FreeString(prop->m_pwszExposedName);
        FreeString(prop->m_pwszExposedPath);
    }

    DWORD VolumeNameOf(const std::wstring& path, std::wstring& volumeName) override {
        return SystemVolumeNameOf(path, volumeName);
    }
};

SystemVss g_system;
VssApi* g_api = &g_system;

}  // namespace

VssApi& Vss() { return *g_api; }
void SetVssApi(VssApi* api) { g_api = api ? api : &g_system; }

DWORD SystemVolumeNameOf(const std::wstring& path, std::wstring& volumeName) {
    volumeName.clear();
    if (path.empty()) return ERROR_INVALID_PARAMETER;
    // A drive without its backslash ("C:") names the drive's root, not the
    // drive's current folder.
    std::wstring query = path;
    if (query.size() == 2 && query[1] == L':') query += L'\\';
    std::wstring mountPoint;
    bool byName = false;
    // A volume name, or a path under one ("\\?\Volume{GUID}\data"): its
    // root is the mount point to ask about.
    constexpr wchar_t kVolumePrefix[] = L"\\\\?\\Volume{";
    constexpr size_t kVolumeRootLength = 49;  // the prefix, 36 GUID characters, "}\"
    if (_wcsnicmp(query.c_str(), kVolumePrefix, wcslen(kVolumePrefix)) == 0 && query.size() >= kVolumeRootLength - 1) {
        mountPoint = query.substr(0, kVolumeRootLength - 1);
        mountPoint.replace(0, wcslen(kVolumePrefix), kVolumePrefix);
        byName = true;
    } else {
        std::vector<wchar_t> mount(query.size() + MAX_PATH + 1);
        if (!::GetVolumePathNameW(query.c_str(), mount.data(), static_cast<DWORD>(mount.size()))) {
            const DWORD rc = LastErrorOr(ERROR_INVALID_NAME);
            Log(0, L"VSS: GetVolumePathNameW(%s) failed, rc = [%d]", path.c_str(), rc);
            return rc;
        }
        mountPoint = mount.data();
    }
    if (mountPoint.empty() || mountPoint.back() != L'\\') mountPoint += L'\\';
    wchar_t name[MAX_PATH] = {};
    if (byName) {
        // A volume name stands for itself once the system knows the volume
        // (some systems don't answer the mount-point question for one).
        wchar_t paths[MAX_PATH] = {};
        DWORD needed = 0;
        if (::GetVolumeNameForVolumeMountPointW(mountPoint.c_str(), name, MAX_PATH) ||
            ::GetVolumePathNamesForVolumeNameW(mountPoint.c_str(), paths, MAX_PATH, &needed) ||
            ::GetLastError() == ERROR_MORE_DATA) {
            volumeName = name[0] ? name : mountPoint.c_str();
            return 0;
        }
        const DWORD rc = LastErrorOr(ERROR_INVALID_NAME);
        Log(0, L"VSS: volume %s is unknown, rc = [%d]", mountPoint.c_str(), rc);
        return rc;
    }
    if (!::GetVolumeNameForVolumeMountPointW(mountPoint.c_str(), name, MAX_PATH)) {
        const DWORD rc = LastErrorOr(ERROR_INVALID_NAME);
        Log(0, L"VSS: GetVolumeNameForVolumeMountPointW(%s) failed, rc = [%d]", mountPoint.c_str(), rc);
        return rc;
    }
    volumeName = name;
    return 0;
}

}  // namespace kx::platform
