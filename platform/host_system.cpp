#include "platform/host_system.h"

#include <windns.h>

#include <atomic>

#include "common/unique_resource.h"

namespace kx::platform {

namespace {
inline void free_records(DNS_RECORDW* list) noexcept { ::DnsFree(list, DnsFreeRecordList); }
using unique_dns_records = unique_any<detail::traits<DNS_RECORDW*, free_records>>;

HostSystem g_real;
std::atomic<HostSystem*> g_current{nullptr};
}  // namespace

LONG HostSystem::QueryA(const std::wstring& name, DWORD options, std::vector<DWORD>* addresses) {
    unique_dns_records records;
    const DNS_STATUS status = ::DnsQuery_W(name.c_str(), DNS_TYPE_A, options, nullptr,
                                           reinterpret_cast<DNS_RECORD**>(records.put()), nullptr);
    if (status != 0) return status;
    for (const DNS_RECORDW* r = records.get(); r; r = r->pNext) addresses->push_back(r->Data.A.IpAddress);
    return 0;
}

BOOL HostSystem::RequestRestart(UINT flags, DWORD reason) { return ::ExitWindowsEx(flags, reason); }

HostSystem& CurrentHostSystem() {
    HostSystem* s = g_current.load();
    return s ? *s : g_real;
}

namespace testing {
void SetHostSystem(HostSystem* system) noexcept { g_current.store(system); }
}  // namespace testing

}  // namespace kx::platform
