#include "platform/vds/vds_system.h"

#include <winioctl.h>

#include <cstddef>
#include <vector>

#include "common/result_codes.h"
#include "common/unique_resource.h"

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
        *failed = LayoutStep::kOpen;
        unique_hfile disk(::CreateFileW(devicePath.c_str(), GENERIC_READ | GENERIC_WRITE,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
        if (!disk) return LastErrorOr();
        *failed = LayoutStep::kLayout;
        DWORD bytes = 0;
        CREATE_DISK create{};
        create.PartitionStyle = PARTITION_STYLE_MBR;
        create.Mbr.Signature = signature;
        if (!::DeviceIoControl(disk.get(), IOCTL_DISK_CREATE_DISK, &create, sizeof(create), nullptr, 0, &bytes,
                               nullptr))
            return LastErrorOr();
        constexpr DWORD kEntries = 4;
        std::vector<BYTE> buffer(offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry) +
                                 kEntries * sizeof(PARTITION_INFORMATION_EX));
        auto* layout = reinterpret_cast<DRIVE_LAYOUT_INFORMATION_EX*>(buffer.data());
        layout->PartitionStyle = PARTITION_STYLE_MBR;
        layout->PartitionCount = kEntries;
        layout->Mbr.Signature = signature;
        for (DWORD i = 0; i < kEntries; ++i) {
            layout->PartitionEntry[i].PartitionStyle = PARTITION_STYLE_MBR;
            layout->PartitionEntry[i].RewritePartition = TRUE;
        }
        if (!::DeviceIoControl(disk.get(), IOCTL_DISK_SET_DRIVE_LAYOUT_EX, layout,
                               static_cast<DWORD>(buffer.size()), nullptr, 0, &bytes, nullptr))
            return LastErrorOr();
        ::DeviceIoControl(disk.get(), IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0, &bytes, nullptr);
        return ERROR_SUCCESS;
    }
};

RealSystem g_real;
VdsSystem* g_system = &g_real;

}  // namespace

VdsSystem& System() { return *g_system; }
void SetSystem(VdsSystem* system) { g_system = system ? system : &g_real; }

}  // namespace kx::vds
