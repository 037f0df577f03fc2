// Exported shadow-copy snapshot manager.
#include "KestrixHA/vss.h"
#include "hyperv/vss_manager.h"

KXHA_API DWORD MVCM_CreateVssMgr(IVssMgr** mgr) { return kx::hyperv::CreateVssManager(mgr); }
