// What the disk layer needs of the system outside the service's own
// objects: starting the service through its loader, and writing a first
// partition table to a raw disk. Behind one small interface with the real
// one as default, so that a test can put an in-process service in place.
#pragma once

#include <windows.h>

#include <string>

#include "platform/vds/vds_interfaces.h"

namespace kx::vds {

class VdsSystem {
public:
    virtual ~VdsSystem() = default;
    // The service of this machine, through the loader class started as a
    // local server. CO_E_SERVER_EXEC_FAILURE while the service is starting.
    virtual HRESULT LoadService(IVdsService** service) = 0;

    enum class LayoutStep { kOpen, kLayout };
    // Gives the raw disk `devicePath` an empty MBR partition table with
    // `signature` (four unused entries). On failure returns the error and
    // the step that failed.
    virtual DWORD WriteEmptyMbr(const std::wstring& devicePath, DWORD signature, LayoutStep* failed) = 0;
};

VdsSystem& System();
// Puts `system` in place (null puts the real one back). For tests.
void SetSystem(VdsSystem* system);

}  // namespace kx::vds
