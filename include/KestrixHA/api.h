#pragma once

#include <windows.h>

#if defined(KXHA_BUILDING_DLL)
#define KXHA_API extern "C"
#define KXHA_CLASS __declspec(dllexport)
#else
#define KXHA_API extern "C" __declspec(dllimport)
#define KXHA_CLASS __declspec(dllimport)
#endif
