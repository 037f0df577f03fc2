// Kestrix HA: high-availability functions of the backup product.
// Every export is a synchronous call that returns a 32-bit result code
// (0 for success, a Win32 code, an HRESULT, or 0xFFFFFFFF).
#pragma once

#include "KestrixHA/api.h"
#include "KestrixHA/foundation.h"
#include "KestrixHA/bitmap.h"
#include "KestrixHA/bitmap_catalogue.h"
#include "KestrixHA/session.h"
#include "KestrixHA/guest.h"
#include "KestrixHA/guest_switches.h"
#include "KestrixHA/guest_boot.h"
#include "KestrixHA/guest_drivers.h"
#include "KestrixHA/guest_cd.h"
#include "KestrixHA/guest_service.h"
#include "KestrixHA/guest_script.h"
#include "KestrixHA/hyperv.h"
#include "KestrixHA/host.h"
#include "KestrixHA/hyperv_disk.h"
#include "KestrixHA/iso.h"
#include "KestrixHA/vss.h"
#include "KestrixHA/vmware.h"
#include "KestrixHA/disk_vds.h"
#include "KestrixHA/disk_checks.h"
#include "KestrixHA/iscsi.h"
