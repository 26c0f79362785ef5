// What the library exports: whole classes.
#pragma once

// VOXDEVICE_BUILDING: the library itself is compiled. VOXDEVICE_STATIC: it is linked into the program.
#if !defined(_WIN32) || (defined(VOXDEVICE_STATIC) && !defined(VOXDEVICE_BUILDING))
#define VOXDEVICE_API
#elif defined(VOXDEVICE_BUILDING)
#define VOXDEVICE_API __declspec(dllexport)
#else
#define VOXDEVICE_API __declspec(dllimport)
#endif
