// The default Hyper-V operations, over the host's Hyper-V WMI provider
// (root\virtualization\v2) through the library's WMI client.
#pragma once

#include "platform/hyperv_ops.h"

namespace kx::platform {

HyperVOps& WmiHyperVOps();

}  // namespace kx::platform
