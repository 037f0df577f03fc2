// The VMware Tools state through the real service control manager: a
// stand-in service program is installed under the tools' service name,
// started and stopped, and removed at the end (also when a check fails).
#include <gtest/gtest.h>

#include <algorithm>

#include "../kxha/kxha_run.h"
#include "common/unique_resource.h"
#include "host/vmware_support.h"
#include "kx_test.h"

namespace h = kx::host;

namespace {

using kx::unique_sc_handle;

DWORD StateOf(SC_HANDLE service) {
    SERVICE_STATUS s{};
    return ::QueryServiceStatus(service, &s) ? s.dwCurrentState : 0;
}

// Waits (bounded, not timed) until the service reaches `state`.
bool WaitFor(SC_HANDLE service, DWORD state) {
    for (int i = 0; i < 600; ++i) {
        if (StateOf(service) == state) return true;
        ::Sleep(50);
    }
    return false;
}

void Remove(SC_HANDLE scm) {
    unique_sc_handle old(::OpenServiceW(scm, h::kVmToolsService, SERVICE_ALL_ACCESS));
    if (!old) return;
    SERVICE_STATUS s{};
    if (::ControlService(old.get(), SERVICE_CONTROL_STOP, &s)) WaitFor(old.get(), SERVICE_STOPPED);
    ::DeleteService(old.get());
}

// The stand-in service, removed when the test ends.
struct StandInService {
    unique_sc_handle scm{::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)};
    unique_sc_handle service;
    StandInService() {
        std::string exe = std::string("Z:") + KX_VMWARE_BIN + "/service/kx_dummy_service.exe";
        std::replace(exe.begin(), exe.end(), '/', '\\');
        const std::wstring path = L"\"" + std::wstring(exe.begin(), exe.end()) + L"\"";
        service.reset(::CreateServiceW(scm.get(), h::kVmToolsService, L"VMware Tools stand-in", SERVICE_ALL_ACCESS,
                                       SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_IGNORE,
                                       path.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
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
    {
        unique_sc_handle scm(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        ASSERT_TRUE(scm);
        Remove(scm.get());  // left by a run that was killed
    }
    EXPECT_EQ(Status(), 0u);
    EXPECT_TRUE(kxhatest::Has(kxhatest::Kxha(L"vmware tools-status"), "STATUS   not installed\n"));
    {
        StandInService svc;
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
