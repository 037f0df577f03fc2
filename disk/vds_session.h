// A VDS session for one call: the COM guard, the service and whether it was
// initialised. Opened at the start of a call and closed at its end.
#pragma once

#include <windows.h>

#include <memory>

#include "disk/vds_objects.h"

namespace kx::disk {

enum class VdsStart {
    kFull,         // Initialize: also brings unallocated and foreign disks into use
    kServiceOnly,  // Initialize2
};

class VdsSession {
public:
    VdsSession() = default;
    ~VdsSession();
    VdsSession(const VdsSession&) = delete;
    VdsSession& operator=(const VdsSession&) = delete;

    // 0, or 0xFFFFFFFF when the service could not be started (seven rounds
    // 2 s apart while it is still starting) or failed otherwise.
    DWORD Open(VdsStart how);
    CVdsService& Service() { return *service_; }

private:
    Kestrix::CAutoCoInitialize com_;
    std::unique_ptr<CVdsService> service_;
    bool initialised_ = false;
};

// Makes the disk writable and takes it off line: up to ten tries, 1 s
// apart. 0 when the disk is off line, 0xFFFFFFFF otherwise.
DWORD TakeDiskOffline(const CVdsDisk& disk);

}  // namespace kx::disk
