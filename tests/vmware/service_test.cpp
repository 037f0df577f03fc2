// The VMware Tools state through the real service control manager: a
// stand-in service program is installed under the tools' service name,
// started, stopped and removed (also when a check fails).
#include <gtest/gtest.h>

#include <algorithm>

#include "../kxha/kxha_run.h"
#include "host/vmware_support.h"

namespace h = kx::host;
using kx::unique_sc_handle;

namespace {

// Waits (bounded by a count, not timed) until the service reaches `state`.
bool WaitFor(SC_HANDLE service, DWORD state) {
    SERVICE_STATUS s{};
    for (int i = 0; i < 600 && ::QueryServiceStatus(service, &s); ++i, ::Sleep(50))
        if (s.dwCurrentState == state) return true;
    return false;
}

// Stops and deletes the service if it exists.
void Remove(SC_HANDLE scm) {
    unique_sc_handle old(::OpenServiceW(scm, h::kVmToolsService, SERVICE_ALL_ACCESS));
    SERVICE_STATUS s{};
    if (old && ::ControlService(old.get(), SERVICE_CONTROL_STOP, &s)) WaitFor(old.get(), SERVICE_STOPPED);
    if (old) ::DeleteService(old.get());
}

struct StandInService {
    unique_sc_handle scm{::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    unique_sc_handle service;
    explicit StandInService(bool install) {
        Remove(scm.get());  // left by a run that was killed
        std::string exe = std::string("\"Z:") + KX_VMWARE_BIN + "/service/kx_dummy_service.exe\"";
        std::replace(exe.begin(), exe.end(), '/', '\\');
        if (install)
            service.reset(::CreateServiceW(scm.get(), h::kVmToolsService, L"VMware Tools stand-in", SERVICE_ALL_ACCESS,
                                           SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                           std::wstring(exe.begin(), exe.end()).c_str(), nullptr, nullptr, nullptr,
                                           nullptr, nullptr));
    }
    ~StandInService() {
        service.reset();
        Remove(scm.get());
    }
};

DWORD Status() {
    DWORD status = 99;
    EXPECT_EQ(h::CheckVMToolStatus(&status), 0u);
    return status;
}

}  // namespace

TEST(VmTools, NotInstalledStoppedRunningAndRemoved) {
    StandInService(false);
    EXPECT_EQ(Status(), 0u);
    EXPECT_TRUE(kxhatest::Has(kxhatest::Kxha(L"vmware tools-status"), "STATUS   not installed\n"));
    {
        StandInService svc(true);
        ASSERT_TRUE(svc.service) << ::GetLastError();
        EXPECT_EQ(Status(), DWORD{SERVICE_STOPPED});
        EXPECT_EQ(kxhatest::Kxha(L"vmware tools-status --json").out,
                  "{\"service\": \"VMTools\", \"state\": 1, \"status\": \"stopped\"}\n");
        ASSERT_TRUE(::StartServiceW(svc.service.get(), 0, nullptr)) << ::GetLastError();
        ASSERT_TRUE(WaitFor(svc.service.get(), SERVICE_RUNNING));
        EXPECT_EQ(Status(), DWORD{SERVICE_RUNNING});
        EXPECT_TRUE(kxhatest::Has(kxhatest::Kxha(L"vmware tools-status"), "STATUS   running\n"));
        SERVICE_STATUS s{};
        ASSERT_TRUE(::ControlService(svc.service.get(), SERVICE_CONTROL_STOP, &s));
        ASSERT_TRUE(WaitFor(svc.service.get(), SERVICE_STOPPED));
        EXPECT_EQ(Status(), DWORD{SERVICE_STOPPED});
    }
    EXPECT_EQ(Status(), 0u);
    kxtest::LogCursor log;
    EXPECT_EQ(h::CheckVMToolStatus(nullptr), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_TRUE(log.Contains(L"CheckVMToolStatus() failed due to invalid parameter"));
}
