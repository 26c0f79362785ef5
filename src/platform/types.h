// The Windows types and constants that the seam (os.h) and the library use: Windows' own headers on Windows, the same
// names declared by us elsewhere, so that the simulated machine runs anywhere.
#pragma once

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// setupapi.h and the HID headers rely on windows.h.
#include <setupapi.h>
extern "C" {
#include <hidsdi.h>
}
#else

#include <cstdint>

using BOOL = int;
using BOOLEAN = unsigned char;
using WORD = std::uint16_t;
using USHORT = std::uint16_t;
using DWORD = std::uint32_t;
using ULONG = std::uint32_t;
using NTSTATUS = std::int32_t;
using USAGE = USHORT;
using ULONG_PTR = std::uintptr_t;
using WCHAR = wchar_t;
using SHORT = std::int16_t;
using HANDLE = void*;
using HWND = void*;
using HMODULE = void*;
using HDEVINFO = void*;
using FARPROC = std::intptr_t (*)();

constexpr BOOL FALSE = 0;
constexpr BOOL TRUE = 1;

inline const HANDLE INVALID_HANDLE_VALUE = reinterpret_cast<HANDLE>(~std::uintptr_t{0});

constexpr DWORD INFINITE = 0xFFFFFFFFU;
constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;
constexpr DWORD WAIT_OBJECT_0 = 0;
constexpr DWORD WAIT_ABANDONED = 0x80;
constexpr DWORD WAIT_TIMEOUT = 0x102;
constexpr DWORD WAIT_FAILED = 0xFFFFFFFFU;

constexpr unsigned CREATE_SUSPENDED = 0x4;

constexpr DWORD GENERIC_READ = 0x80000000U;
constexpr DWORD GENERIC_WRITE = 0x40000000U;
constexpr DWORD FILE_SHARE_READ = 0x1;
constexpr DWORD FILE_SHARE_WRITE = 0x2;
constexpr DWORD OPEN_EXISTING = 3;

constexpr DWORD FILE_READ_DATA = 0x1;
constexpr DWORD ERROR_INVALID_FUNCTION = 1;
constexpr DWORD ERROR_FILE_NOT_FOUND = 2;
constexpr DWORD ERROR_ACCESS_DENIED = 5;
constexpr DWORD ERROR_INVALID_HANDLE = 6;
constexpr DWORD ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr DWORD ERROR_INVALID_DATA = 13;
constexpr DWORD ERROR_GEN_FAILURE = 31;
constexpr DWORD ERROR_SHARING_VIOLATION = 32;
constexpr DWORD ERROR_INVALID_PARAMETER = 87;
constexpr DWORD ERROR_INSUFFICIENT_BUFFER = 122;
constexpr DWORD ERROR_MOD_NOT_FOUND = 126;
constexpr DWORD ERROR_PROC_NOT_FOUND = 127;
constexpr DWORD ERROR_NO_MORE_ITEMS = 259;
constexpr DWORD ERROR_NOT_OWNER = 288;
constexpr DWORD ERROR_OPERATION_ABORTED = 995;
constexpr DWORD ERROR_DEVICE_NOT_CONNECTED = 1167;
constexpr DWORD ERROR_NOT_FOUND = 1168;
constexpr DWORD ERROR_INVALID_THREAD_ID = 1444;
constexpr DWORD ERROR_NO_SYSTEM_RESOURCES = 1450;
constexpr DWORD ERROR_INVALID_USER_BUFFER = 1784;
constexpr DWORD SPDRP_HARDWAREID = 1;
constexpr DWORD KEYEVENTF_KEYUP = 0x2;

constexpr DWORD DIGCF_PRESENT = 0x2;
constexpr DWORD DIGCF_DEVICEINTERFACE = 0x10;

constexpr NTSTATUS HIDP_STATUS_SUCCESS = 0x00110000;

struct SECURITY_ATTRIBUTES;
struct OVERLAPPED;

struct GUID {
  std::uint32_t Data1;
  std::uint16_t Data2;
  std::uint16_t Data3;
  std::uint8_t Data4[8];
};

struct SP_DEVINFO_DATA {
  DWORD cbSize;
  GUID ClassGuid;
  DWORD DevInst;
  ULONG_PTR Reserved;
};

struct COMMTIMEOUTS {
  DWORD ReadIntervalTimeout;  // ms, as all of them
  DWORD ReadTotalTimeoutMultiplier;
  DWORD ReadTotalTimeoutConstant;
  DWORD WriteTotalTimeoutMultiplier;
  DWORD WriteTotalTimeoutConstant;
};

struct SP_DEVICE_INTERFACE_DATA {
  DWORD cbSize;
  GUID InterfaceClassGuid;
  DWORD Flags;
  ULONG_PTR Reserved;
};

struct SP_DEVICE_INTERFACE_DETAIL_DATA_W {
  DWORD cbSize;
  WCHAR DevicePath[1];  // as long as the text; the structure is over-allocated
};

struct HIDD_ATTRIBUTES {
  ULONG Size;
  USHORT VendorID;
  USHORT ProductID;
  USHORT VersionNumber;
};

struct HIDP_PREPARSED_DATA;
using PHIDP_PREPARSED_DATA = HIDP_PREPARSED_DATA*;

struct HIDP_CAPS {
  USAGE Usage;
  USAGE UsagePage;
  USHORT InputReportByteLength;   // bytes, with the report id
  USHORT OutputReportByteLength;  // bytes, with the report id
  USHORT FeatureReportByteLength;
  USHORT Reserved[17];
  USHORT NumberLinkCollectionNodes;
  USHORT NumberInputButtonCaps;
  USHORT NumberInputValueCaps;
  USHORT NumberInputDataIndices;
  USHORT NumberOutputButtonCaps;
  USHORT NumberOutputValueCaps;
  USHORT NumberOutputDataIndices;
  USHORT NumberFeatureButtonCaps;
  USHORT NumberFeatureValueCaps;
  USHORT NumberFeatureDataIndices;
};

#endif
