#include "platform/vds/vds_system.h"

#include "common/unique_resource.h"
#include "platform/disk_devices.h"

namespace kx::vds {

namespace {

class RealSystem final : public VdsSystem {
public:
    HRESULT LoadService(IVdsService** service) override {
        *service = nullptr;
        com_ptr<IVdsServiceLoader> loader;
        HRESULT hr = ::CoCreateInstance(kClsidVdsLoader, nullptr, CLSCTX_LOCAL_SERVER | CLSCTX_REMOTE_SERVER,
                                        kIidServiceLoader, reinterpret_cast<void**>(loader.put()));
        if (FAILED(hr)) return hr;
        return loader->LoadService(nullptr, service);
    }

    DWORD WriteEmptyMbr(const std::wstring& devicePath, DWORD signature, LayoutStep* failed) override {
        platform::TableStep step = platform::TableStep::kOpen;
        const DWORD rc = platform::WriteEmptyPartitionTable(devicePath, false, signature, GUID{}, &step);
        *failed = step == platform::TableStep::kOpen ? LayoutStep::kOpen : LayoutStep::kLayout;
        return rc;
    }
};

RealSystem g_real;
VdsSystem* g_system = &g_real;

}  // namespace

VdsSystem& System() { return *g_system; }
void SetSystem(VdsSystem* system) { g_system = system ? system : &g_real; }

}  // namespace kx::vds
