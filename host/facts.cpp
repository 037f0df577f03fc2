// What the host is: processors, memory, architecture, the Hyper-V role and
// the Windows version; and the restart of the host.
#include "host/host_config.h"
#include "host/host_wmi.h"
#include "log/call_frame.h"
#include "platform/host_system.h"
#include "platform/host_util.h"

namespace kx::host {

using wmi::WmiObject;
using wmi::WmiService;

DWORD GetHostProcessorCount(DWORD* count) {
    return RunExport<kGetHostProcessorCount>([&](auto& frame) -> DWORD {
        if (!count) return frame.InvalidParameter();
        WmiService service;
        HRESULT hr = OpenHostSession(&service);
        WmiObject system;
        if (SUCCEEDED(hr)) system = FirstInstance(service, L"Win32_ComputerSystem", &hr);
        const DWORD rc = FAILED(hr) ? static_cast<DWORD>(hr) : system ? 0 : ERROR_NOT_FOUND;
        if (rc) {
            Log(0, L"fail to get processor count, ec=%u", rc);
            return rc;
        }
        const long packages = system.GetLongProperty(L"NumberOfProcessors", -1);
        const long logical = system.GetLongProperty(L"NumberOfLogicalProcessors", -1);
        // The caller gets the logical processors; the line names the packages.
        *count = static_cast<DWORD>(logical);
        return Finished(0, L"finish GetHostProcessorCount, count=%d", static_cast<int>(packages));
    });
}

DWORD GetHostPhysicalMemory(uint64_t* bytes) {
    return RunExport<kGetHostPhysicalMemory>([&](auto& frame) -> DWORD {
        if (!bytes) return frame.InvalidParameter();
        WmiService service;
        int64_t size = 0;
        HRESULT hr = OpenHostSession(&service);
        if (SUCCEEDED(hr)) {
            const WmiObject system = FirstInstance(service, L"Win32_ComputerSystem", &hr);
            // Text that is not a decimal number counts as 0.
            if (!hostutil::StringConverter<int64_t>::FromString(system.GetProperty(L"TotalPhysicalMemory"), &size))
                size = 0;
        }
        *bytes = static_cast<uint64_t>(size);
        return Finished(0, L"finish GetHostPhysicalMemory, size=%lld", static_cast<long long>(size));
    });
}

DWORD GetHostCPUArchitecture() {
    return RunExport<kGetHostCPUArchitecture>([&](auto&) -> DWORD {
        {
            // The session is opened and closed; nothing is asked of it.
            WmiService service;
            OpenHostSession(&service);
        }
        SYSTEM_INFO info{};
        ::GetSystemInfo(&info);
        return info.wProcessorArchitecture;
    });
}

DWORD IsHyperVRole() {
    return RunExport<kIsHyperVRole>([&](auto& frame) -> DWORD {
        WmiService service;
        bool installed = false;
        if (SUCCEEDED(OpenHostSession(&service))) {
            // Feature 20 is the Hyper-V role; client editions have no such class.
            wmi::WmiEnumerator e(service, L"Win32_ServerFeature");
            e.SetEqualFilter(L"ID", L"20");
            installed = SUCCEEDED(e.Start()) && static_cast<bool>(e.Next());
        }
        return Finished(installed ? 1 : 0, L"end IsHyperVRole, ret=%s", installed ? L"true" : L"false");
    });
}

BOOL HA_IsHostOSGreaterEqual(DWORD major, DWORD minor, WORD servicePackMajor, WORD servicePackMinor) {
    BOOL result = FALSE;
    RunExport<kHA_IsHostOSGreaterEqual>([&](auto&) -> DWORD {
        OSVERSIONINFOEXW v{};
        v.dwOSVersionInfoSize = sizeof(v);
        v.dwMajorVersion = major;
        v.dwMinorVersion = minor;
        v.wServicePackMajor = servicePackMajor;
        v.wServicePackMinor = servicePackMinor;
        ULONGLONG mask = 0;
        mask = ::VerSetConditionMask(mask, VER_MAJORVERSION, VER_GREATER_EQUAL);
        mask = ::VerSetConditionMask(mask, VER_MINORVERSION, VER_GREATER_EQUAL);
        mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
        mask = ::VerSetConditionMask(mask, VER_SERVICEPACKMINOR, VER_GREATER_EQUAL);
        result = ::VerifyVersionInfoW(
            &v, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR | VER_SERVICEPACKMINOR, mask);
        return 0;
    });
    return result;
}

DWORD RebootSystem(bool force) {
    return RunExport<kRebootSystem>(
        [&](auto& frame) -> DWORD {
            hostutil::TokenPrivilege privilege;
            if (DWORD rc = privilege.EnablePrivilege(SE_SHUTDOWN_NAME)) {
                Log(0, L"fail to enable privilege SE_SHUTDOWN_NAME, ec=%u", rc);
                return rc;
            }
            // Force closes only applications that hang (EWX_FORCEIFHUNG), never
            // all of them. A refused restart is logged, not reported.
            const UINT flags = EWX_REBOOT | (static_cast<UINT>(force) << 4);
            const BOOL done = platform::CurrentHostSystem().RequestRestart(flags, 0);
            return Finished(0, L"finish RebootSystem, ret=%u", static_cast<unsigned>(done));
        },
        force ? 1 : 0);
}

}  // namespace kx::host
