#pragma once

#include <windows.h>

#if defined(KXHA_BUILDING_DLL)
#define KXHA_API extern "C"
#else
#define KXHA_API extern "C" __declspec(dllimport)
#endif
