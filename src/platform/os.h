// The seam: every operating-system call that the library makes, under its Win32 name, with its Win32 arguments and
// results. platform/windows forwards each to the real API, sim implements each on the simulated machine; the linker
// chooses. A function enters this header when the library calls it, not before.
//
// The simulated machine ends a thread (TerminateThread) at the call of this header in which it waits, or at its next
// one. Code above this seam ends none of its threads so but one that is stuck in the client's code (see Worker.h).
#pragma once

#include <cstdint>

#include "platform/audio_types.h"
#include "platform/types.h"

namespace os {

// ---- Threads and waiting --------------------------------------------------------------------------------------------

// The C runtime's thread start. The result is a HANDLE as an integer, 0 on failure; the caller closes it.
std::uintptr_t _beginthreadex(void* security, unsigned stackSize, unsigned (*start)(void*), void* argument,
                              unsigned flags, unsigned* threadId);
DWORD ResumeThread(HANDLE thread);
BOOL TerminateThread(HANDLE thread, DWORD exitCode);
DWORD GetCurrentThreadId();
// Makes the read or write in which another thread is blocked fail (ERROR_OPERATION_ABORTED). FALSE when it is in none,
// or in one whose driver does not let go of it.
BOOL CancelSynchronousIo(HANDLE thread);
// A value of each thread's own, null in a new thread.
DWORD TlsAlloc();
void* TlsGetValue(DWORD index);
BOOL TlsSetValue(DWORD index, void* value);

HANDLE CreateEventW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState, const WCHAR* name);
BOOL SetEvent(HANDLE event);
BOOL ResetEvent(HANDLE event);
// A mutex may be taken again by its owner; one whose owner has ended goes to the next taker (WAIT_ABANDONED).
HANDLE CreateMutexW(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const WCHAR* name);
BOOL ReleaseMutex(HANDLE mutex);
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
// waitAll must be FALSE: no caller needs more, and the simulated machine offers no more.
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds);
void Sleep(DWORD milliseconds);
BOOL CloseHandle(HANDLE handle);

BOOL SetThreadPriority(HANDLE thread, int priority);
HANDLE CreateEventExW(SECURITY_ATTRIBUTES* attributes, const WCHAR* name, DWORD flags, DWORD access);
HANDLE CreateWaitableTimerW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, const WCHAR* name);
// due: negative, relative, in 100 ns; period in milliseconds.
BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine, void* argument,
                      BOOL resume);
BOOL CancelWaitableTimer(HANDLE timer);

// ---- Thread messages ------------------------------------------------------------------------------------------------

// A thread has a message queue from its first call of one of these two on; messages posted before are lost.
BOOL GetMessageW(MSG* message, HWND window, UINT first, UINT last);
BOOL PeekMessageW(MSG* message, HWND window, UINT first, UINT last, UINT remove);
BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wParam, LPARAM lParam);

// ---- Time -----------------------------------------------------------------------------------------------------------

DWORD GetTickCount();                        // milliseconds since start-up; wraps after 2^32
std::int64_t _time64(std::int64_t* result);  // seconds since 1970

// ---- Files ----------------------------------------------------------------------------------------------------------

HANDLE CreateFileW(const WCHAR* path, DWORD access, DWORD shareMode, SECURITY_ATTRIBUTES* attributes,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile);
BOOL ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead, OVERLAPPED* overlapped);
BOOL WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten, OVERLAPPED* overlapped);

BOOL GetCommTimeouts(HANDLE file, COMMTIMEOUTS* timeouts);
BOOL SetCommTimeouts(HANDLE file, COMMTIMEOUTS* timeouts);
DWORD GetLastError();

// ---- Device setup and HID -------------------------------------------------------------------------------------------

HDEVINFO SetupDiGetClassDevsW(const GUID* classGuid, const WCHAR* enumerator, HWND parent, DWORD flags);
BOOL SetupDiEnumDeviceInterfaces(HDEVINFO list, SP_DEVINFO_DATA* device, const GUID* interfaceClass, DWORD index,
                                 SP_DEVICE_INTERFACE_DATA* result);
BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO list, SP_DEVICE_INTERFACE_DATA* deviceInterface,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD detailSize, DWORD* requiredSize,
                                      SP_DEVINFO_DATA* device);
BOOL SetupDiEnumDeviceInfo(HDEVINFO list, DWORD index, SP_DEVINFO_DATA* device);
BOOL SetupDiGetDeviceRegistryPropertyA(HDEVINFO list, SP_DEVINFO_DATA* device, DWORD property, DWORD* type,
                                       std::uint8_t* buffer, DWORD size, DWORD* requiredSize);
BOOL SetupDiDestroyDeviceInfoList(HDEVINFO list);

void HidD_GetHidGuid(GUID* result);
BOOLEAN HidD_GetAttributes(HANDLE device, HIDD_ATTRIBUTES* attributes);
BOOLEAN HidD_GetPreparsedData(HANDLE device, PHIDP_PREPARSED_DATA* preparsed);
BOOLEAN HidD_FreePreparsedData(PHIDP_PREPARSED_DATA preparsed);
// How many input reports the class driver keeps for a handle: 2 to 512, 32 unless it is told.
BOOLEAN HidD_SetNumInputBuffers(HANDLE device, ULONG count);
NTSTATUS HidP_GetCaps(PHIDP_PREPARSED_DATA preparsed, HIDP_CAPS* caps);

// ---- Libraries ------------------------------------------------------------------------------------------------------

HMODULE LoadLibraryW(const WCHAR* fileName);
FARPROC GetProcAddress(HMODULE library, const char* name);

// ---- Keyboard -------------------------------------------------------------------------------------------------------

// The high bit: the key is down; the low bit: it has been pressed since the last call.
SHORT GetAsyncKeyState(int virtualKey);
void keybd_event(std::uint8_t virtualKey, std::uint8_t scanCode, DWORD flags, ULONG_PTR extraInformation);

// ---- Wave-in and mixers ---------------------------------------------------------------------------------------------

UINT waveInGetNumDevs();
MMRESULT waveInGetDevCapsW(UINT_PTR device, WAVEINCAPSW* caps, UINT size);
MMRESULT waveInOpen(HWAVEIN* handle, UINT device, const WAVEFORMATEX* format, DWORD_PTR callback, DWORD_PTR instance,
                    DWORD flags);
MMRESULT waveInClose(HWAVEIN handle);
MMRESULT waveInPrepareHeader(HWAVEIN handle, WAVEHDR* header, UINT size);
MMRESULT waveInUnprepareHeader(HWAVEIN handle, WAVEHDR* header, UINT size);
MMRESULT waveInAddBuffer(HWAVEIN handle, WAVEHDR* header, UINT size);
MMRESULT waveInStart(HWAVEIN handle);
MMRESULT waveInStop(HWAVEIN handle);
MMRESULT waveInReset(HWAVEIN handle);

UINT mixerGetNumDevs();
MMRESULT mixerOpen(HMIXER* handle, UINT mixer, DWORD_PTR callback, DWORD_PTR instance, DWORD flags);
MMRESULT mixerClose(HMIXER handle);
MMRESULT mixerGetLineInfoW(HMIXEROBJ mixer, MIXERLINEW* line, DWORD flags);
MMRESULT mixerGetLineControlsW(HMIXEROBJ mixer, MIXERLINECONTROLSW* controls, DWORD flags);
MMRESULT mixerGetControlDetailsW(HMIXEROBJ mixer, MIXERCONTROLDETAILS* details, DWORD flags);
MMRESULT mixerSetControlDetails(HMIXEROBJ mixer, MIXERCONTROLDETAILS* details, DWORD flags);

// ---- COM and Core Audio ---------------------------------------------------------------------------------------------

HRESULT CoInitialize(void* reserved);
void CoUninitialize();
HRESULT CoCreateInstance(const GUID& classId, IUnknown* outer, DWORD context, const GUID& iid, void** object);
void CoTaskMemFree(void* memory);
HRESULT PropVariantClear(PROPVARIANT* value);
HANDLE AvSetMmThreadCharacteristicsW(const WCHAR* task, DWORD* taskIndex);
BOOL AvRevertMmThreadCharacteristics(HANDLE task);

}  // namespace os
