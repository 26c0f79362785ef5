// The seam on Windows: each call is the system's own.
#include "platform/os.h"

// _beginthreadex is declared here.
#include <process.h>
// The scheduling service for multimedia.
#include <avrt.h>

#include <memory>
#include <new>

namespace os {
namespace {

// What a new thread runs. Windows starts threads with a calling convention of its own on 32 bits.
struct ThreadStart {
  unsigned (*function)(void*);
  void* argument;
};

unsigned __stdcall RunThread(void* argument) {
  const std::unique_ptr<ThreadStart> given(static_cast<ThreadStart*>(argument));
  const ThreadStart start = *given;
  return start.function(start.argument);
}

}  // namespace

// ---- Threads and waiting ----
std::uintptr_t _beginthreadex(void* security, unsigned stackSize, unsigned (*start)(void*), void* argument,
                              unsigned flags, unsigned* threadId) {
  std::unique_ptr<ThreadStart> given(new (std::nothrow) ThreadStart{start, argument});
  if (!given) return 0;
  const std::uintptr_t thread = ::_beginthreadex(security, stackSize, &RunThread, given.get(), flags, threadId);
  if (thread) (void)given.release();
  return thread;
}

DWORD ResumeThread(HANDLE thread) { return ::ResumeThread(thread); }
BOOL TerminateThread(HANDLE thread, DWORD exitCode) { return ::TerminateThread(thread, exitCode); }
DWORD GetCurrentThreadId() { return ::GetCurrentThreadId(); }
BOOL CancelSynchronousIo(HANDLE thread) { return ::CancelSynchronousIo(thread); }
DWORD TlsAlloc() { return ::TlsAlloc(); }
void* TlsGetValue(DWORD index) { return ::TlsGetValue(index); }
BOOL TlsSetValue(DWORD index, void* value) { return ::TlsSetValue(index, value); }
HANDLE CreateEventW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, BOOL initialState, const WCHAR* name) {
  return ::CreateEventW(attributes, manualReset, initialState, name);
}
BOOL SetEvent(HANDLE event) { return ::SetEvent(event); }
BOOL ResetEvent(HANDLE event) { return ::ResetEvent(event); }
HANDLE CreateMutexW(SECURITY_ATTRIBUTES* attributes, BOOL initialOwner, const WCHAR* name) {
  return ::CreateMutexW(attributes, initialOwner, name);
}
BOOL ReleaseMutex(HANDLE mutex) { return ::ReleaseMutex(mutex); }
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) { return ::WaitForSingleObject(handle, milliseconds); }
DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
  return ::WaitForMultipleObjects(count, handles, waitAll, milliseconds);
}
void Sleep(DWORD milliseconds) { ::Sleep(milliseconds); }
BOOL CloseHandle(HANDLE handle) { return ::CloseHandle(handle); }
BOOL SetThreadPriority(HANDLE thread, int priority) { return ::SetThreadPriority(thread, priority); }
HANDLE CreateEventExW(SECURITY_ATTRIBUTES* attributes, const WCHAR* name, DWORD flags, DWORD access) {
  return ::CreateEventExW(attributes, name, flags, access);
}
HANDLE CreateWaitableTimerW(SECURITY_ATTRIBUTES* attributes, BOOL manualReset, const WCHAR* name) {
  return ::CreateWaitableTimerW(attributes, manualReset, name);
}
BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine, void* argument,
                      BOOL resume) {
  return ::SetWaitableTimer(timer, due, period, routine, argument, resume);
}
BOOL CancelWaitableTimer(HANDLE timer) { return ::CancelWaitableTimer(timer); }

// ---- Thread messages ----
BOOL GetMessageW(MSG* message, HWND window, UINT first, UINT last) {
  return ::GetMessageW(message, window, first, last);
}
BOOL PeekMessageW(MSG* message, HWND window, UINT first, UINT last, UINT remove) {
  return ::PeekMessageW(message, window, first, last, remove);
}
BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wParam, LPARAM lParam) {
  return ::PostThreadMessageW(thread, message, wParam, lParam);
}

// ---- Time ----
DWORD GetTickCount() { return ::GetTickCount(); }
std::int64_t _time64(std::int64_t* result) { return ::_time64(result); }

// ---- Files ----
HANDLE CreateFileW(const WCHAR* path, DWORD access, DWORD shareMode, SECURITY_ATTRIBUTES* attributes,
                   DWORD creationDisposition, DWORD flagsAndAttributes, HANDLE templateFile) {
  return ::CreateFileW(path, access, shareMode, attributes, creationDisposition, flagsAndAttributes, templateFile);
}
BOOL ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead, OVERLAPPED* overlapped) {
  return ::ReadFile(file, buffer, bytesToRead, bytesRead, overlapped);
}
BOOL WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten, OVERLAPPED* overlapped) {
  return ::WriteFile(file, buffer, bytesToWrite, bytesWritten, overlapped);
}
BOOL GetCommTimeouts(HANDLE file, COMMTIMEOUTS* timeouts) { return ::GetCommTimeouts(file, timeouts); }
BOOL SetCommTimeouts(HANDLE file, COMMTIMEOUTS* timeouts) { return ::SetCommTimeouts(file, timeouts); }
DWORD GetLastError() { return ::GetLastError(); }

// ---- Device setup and HID ----
HDEVINFO SetupDiGetClassDevsW(const GUID* classGuid, const WCHAR* enumerator, HWND parent, DWORD flags) {
  return ::SetupDiGetClassDevsW(classGuid, enumerator, parent, flags);
}
BOOL SetupDiEnumDeviceInterfaces(HDEVINFO list, SP_DEVINFO_DATA* device, const GUID* interfaceClass, DWORD index,
                                 SP_DEVICE_INTERFACE_DATA* result) {
  return ::SetupDiEnumDeviceInterfaces(list, device, interfaceClass, index, result);
}
BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO list, SP_DEVICE_INTERFACE_DATA* deviceInterface,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD detailSize, DWORD* requiredSize,
                                      SP_DEVINFO_DATA* device) {
  return ::SetupDiGetDeviceInterfaceDetailW(list, deviceInterface, detail, detailSize, requiredSize, device);
}
BOOL SetupDiEnumDeviceInfo(HDEVINFO list, DWORD index, SP_DEVINFO_DATA* device) {
  return ::SetupDiEnumDeviceInfo(list, index, device);
}
BOOL SetupDiGetDeviceRegistryPropertyA(HDEVINFO list, SP_DEVINFO_DATA* device, DWORD property, DWORD* type,
                                       std::uint8_t* buffer, DWORD size, DWORD* requiredSize) {
  return ::SetupDiGetDeviceRegistryPropertyA(list, device, property, type, buffer, size, requiredSize);
}
BOOL SetupDiDestroyDeviceInfoList(HDEVINFO list) { return ::SetupDiDestroyDeviceInfoList(list); }
void HidD_GetHidGuid(GUID* result) { ::HidD_GetHidGuid(result); }
BOOLEAN HidD_GetAttributes(HANDLE device, HIDD_ATTRIBUTES* attributes) {
  return ::HidD_GetAttributes(device, attributes);
}
BOOLEAN HidD_GetPreparsedData(HANDLE device, PHIDP_PREPARSED_DATA* preparsed) {
  return ::HidD_GetPreparsedData(device, preparsed);
}
BOOLEAN HidD_SetNumInputBuffers(HANDLE device, ULONG count) { return ::HidD_SetNumInputBuffers(device, count); }
BOOLEAN HidD_FreePreparsedData(PHIDP_PREPARSED_DATA preparsed) { return ::HidD_FreePreparsedData(preparsed); }
NTSTATUS HidP_GetCaps(PHIDP_PREPARSED_DATA preparsed, HIDP_CAPS* caps) { return ::HidP_GetCaps(preparsed, caps); }

// ---- Libraries ----
HMODULE LoadLibraryW(const WCHAR* fileName) { return ::LoadLibraryW(fileName); }
FARPROC GetProcAddress(HMODULE library, const char* name) { return ::GetProcAddress(library, name); }

// ---- Keyboard ----
SHORT GetAsyncKeyState(int virtualKey) { return ::GetAsyncKeyState(virtualKey); }
void keybd_event(std::uint8_t virtualKey, std::uint8_t scanCode, DWORD flags, ULONG_PTR extraInformation) {
  ::keybd_event(virtualKey, scanCode, flags, extraInformation);
}

// ---- Wave-in and mixers ----
UINT waveInGetNumDevs() { return ::waveInGetNumDevs(); }
MMRESULT waveInGetDevCapsW(UINT_PTR device, WAVEINCAPSW* caps, UINT size) {
  return ::waveInGetDevCapsW(device, caps, size);
}
MMRESULT waveInOpen(HWAVEIN* handle, UINT device, const WAVEFORMATEX* format, DWORD_PTR callback, DWORD_PTR instance,
                    DWORD flags) {
  return ::waveInOpen(handle, device, format, callback, instance, flags);
}
MMRESULT waveInClose(HWAVEIN handle) { return ::waveInClose(handle); }
MMRESULT waveInPrepareHeader(HWAVEIN handle, WAVEHDR* header, UINT size) {
  return ::waveInPrepareHeader(handle, header, size);
}
MMRESULT waveInUnprepareHeader(HWAVEIN handle, WAVEHDR* header, UINT size) {
  return ::waveInUnprepareHeader(handle, header, size);
}
MMRESULT waveInAddBuffer(HWAVEIN handle, WAVEHDR* header, UINT size) { return ::waveInAddBuffer(handle, header, size); }
MMRESULT waveInStart(HWAVEIN handle) { return ::waveInStart(handle); }
MMRESULT waveInStop(HWAVEIN handle) { return ::waveInStop(handle); }
MMRESULT waveInReset(HWAVEIN handle) { return ::waveInReset(handle); }
UINT mixerGetNumDevs() { return ::mixerGetNumDevs(); }
MMRESULT mixerOpen(HMIXER* handle, UINT mixer, DWORD_PTR callback, DWORD_PTR instance, DWORD flags) {
  return ::mixerOpen(handle, mixer, callback, instance, flags);
}
MMRESULT mixerClose(HMIXER handle) { return ::mixerClose(handle); }
MMRESULT mixerGetLineInfoW(HMIXEROBJ mixer, MIXERLINEW* line, DWORD flags) {
  return ::mixerGetLineInfoW(mixer, line, flags);
}
MMRESULT mixerGetLineControlsW(HMIXEROBJ mixer, MIXERLINECONTROLSW* controls, DWORD flags) {
  return ::mixerGetLineControlsW(mixer, controls, flags);
}
MMRESULT mixerGetControlDetailsW(HMIXEROBJ mixer, MIXERCONTROLDETAILS* details, DWORD flags) {
  return ::mixerGetControlDetailsW(mixer, details, flags);
}
MMRESULT mixerSetControlDetails(HMIXEROBJ mixer, MIXERCONTROLDETAILS* details, DWORD flags) {
  return ::mixerSetControlDetails(mixer, details, flags);
}

// ---- COM and Core Audio ----
HRESULT CoInitialize(void* reserved) { return ::CoInitialize(reserved); }
void CoUninitialize() { ::CoUninitialize(); }
HRESULT CoCreateInstance(const GUID& classId, IUnknown* outer, DWORD context, const GUID& iid, void** object) {
  return ::CoCreateInstance(classId, outer, context, iid, object);
}
void CoTaskMemFree(void* memory) { ::CoTaskMemFree(memory); }
HRESULT PropVariantClear(PROPVARIANT* value) { return ::PropVariantClear(value); }
HANDLE AvSetMmThreadCharacteristicsW(const WCHAR* task, DWORD* taskIndex) {
  return ::AvSetMmThreadCharacteristicsW(task, taskIndex);
}
BOOL AvRevertMmThreadCharacteristics(HANDLE task) { return ::AvRevertMmThreadCharacteristics(task); }

}  // namespace os
