// The seam on the simulated machine.
#include "platform/os.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "sim/Machine.h"

namespace {

using sim::Kernel;
using sim::Machine;

// The HID interface class, {4d1e55b2-f16f-11cf-88cb-001111000030}.
constexpr GUID kHidGuid{0x4d1e55b2, 0xf16f, 0x11cf, {0x88, 0xcb, 0x00, 0x11, 0x11, 0x00, 0x00, 0x30}};
// The simulated machine was switched on at this moment, 2024-01-01 00:00:00 UTC.
constexpr std::int64_t kPowerOnTime = 1'704'067'200;

std::optional<sim::Time> limitOf(DWORD milliseconds) {
  if (milliseconds == INFINITE) return std::nullopt;
  return std::chrono::milliseconds(milliseconds);
}

std::string hex(const std::uint8_t* bytes, std::size_t count) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < count; ++i) {
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 15];
  }
  return text;
}

bool sameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// The USB device interface class and the media device setup class.
constexpr GUID kUsbGuid{0xa5dcbf10, 0x6530, 0x11d2, {0x90, 0x1f, 0x00, 0xc0, 0x4f, 0xb9, 0x51, 0xed}};
constexpr GUID kMediaGuid{0x4d36e96c, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

// What stands behind a PHIDP_PREPARSED_DATA.
struct ParsedDescriptor {
  std::uint16_t inputLength;
  std::uint16_t outputLength;
  bool noCaps;
};

// A device information set, as it was at the moment of the call: interface paths, or devices with their hardware ids.
struct DeviceList {
  std::vector<std::wstring> paths;
  std::vector<std::string> hardwareIds;  // each a text of texts, every one with its terminator
};

// Runs `body` on the object of this kind behind a handle; FALSE when there is none.
template <class T, class Body>
BOOL withObject(HANDLE handle, Body body) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  T* object = machine.kernel().use<T>(handle);
  if (!object) {
    machine.kernel().misused();
    return FALSE;
  }
  return body(machine, *object) ? TRUE : FALSE;
}

std::string multiText(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += text + '\0';
  return all + '\0';
}

}  // namespace

namespace os {

std::uintptr_t _beginthreadex(void*, unsigned, unsigned (*start)(void*), void* argument, unsigned flags,
                              unsigned* threadId) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (machine.sound().fault("_beginthreadex") != 0) return 0;
  const auto thread =
      machine.kernel().createThread([start, argument] { start(argument); }, (flags & CREATE_SUSPENDED) != 0);
  if (threadId) *threadId = thread->id;
  if (machine.recording()) machine.noteLocked("thread " + std::to_string(thread->id) + " created");
  return reinterpret_cast<std::uintptr_t>(machine.kernel().open(thread));
}

DWORD ResumeThread(HANDLE thread) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  const auto object = machine.kernel().find<sim::Thread>(thread);
  if (!object) {
    machine.kernel().misused();
    return ~DWORD{0};
  }
  const bool suspended = object->state == sim::Thread::State::suspended;
  machine.kernel().resume(*object);
  machine.kernel().mayBeOvertaken();
  return suspended ? 1 : 0;
}

BOOL TerminateThread(HANDLE thread, DWORD) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  const auto object = machine.kernel().find<sim::Thread>(thread);
  if (!object) {
    machine.kernel().misused();
    return FALSE;
  }
  if (machine.recording()) machine.noteLocked("thread " + std::to_string(object->id) + " ended by force");
  machine.kernel().countForcedEnd();
  machine.kernel().terminate(lock, *object);
  return TRUE;
}

BOOL CancelSynchronousIo(HANDLE thread) {
  return withObject<sim::Thread>(thread, [](Machine& machine, sim::Thread& object) {
    if (machine.kernel().cancel(object)) {
      machine.kernel().mayBeOvertaken();
      return true;
    }
    machine.kernel().self().lastError = ERROR_NOT_FOUND;
    return false;
  });
}

DWORD TlsAlloc() {
  static std::atomic<DWORD> indexes{0};
  return indexes++;
}

void* TlsGetValue(DWORD index) { return Machine::current().kernel().local(index); }

BOOL TlsSetValue(DWORD index, void* value) {
  Machine::current().kernel().local(index) = value;
  return TRUE;
}

DWORD GetCurrentThreadId() {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enterQuietly();
  return machine.kernel().self().id;
}

BOOL SetThreadPriority(HANDLE thread, int priority) {
  return withObject<sim::Thread>(thread, [priority](Machine& machine, sim::Thread& object) {
    object.priority = priority;
    if (machine.recording()) {
      machine.noteLocked("thread " + std::to_string(object.id) + " priority " + std::to_string(priority));
    }
    return true;
  });
}

HANDLE CreateEventExW(SECURITY_ATTRIBUTES*, const WCHAR*, DWORD flags, DWORD access) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (machine.sound().fault("CreateEventExW") != 0 || flags != 0 || access != (EVENT_MODIFY_STATE | SYNCHRONIZE))
    return nullptr;
  return machine.kernel().open(std::make_shared<sim::Event>(false, false));
}

HANDLE CreateWaitableTimerW(SECURITY_ATTRIBUTES*, BOOL manualReset, const WCHAR*) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (machine.sound().fault("CreateWaitableTimerW") != 0 || manualReset) return nullptr;
  return machine.kernel().open(std::make_shared<sim::WaitableTimer>());
}

BOOL SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE, void*, BOOL) {
  return withObject<sim::WaitableTimer>(timer, [due, period](Machine& machine, sim::WaitableTimer& object) {
    if (due->QuadPart > 0 || machine.sound().fault("SetWaitableTimer") != 0) return false;
    object.set(machine.kernel(), sim::Time(-due->QuadPart / 10), std::chrono::milliseconds(period));
    return true;
  });
}

BOOL CancelWaitableTimer(HANDLE timer) {
  return withObject<sim::WaitableTimer>(timer, [](Machine&, sim::WaitableTimer& object) {
    object.cancel();
    return true;
  });
}

BOOL PeekMessageW(MSG* message, HWND, UINT, UINT, UINT) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  auto& queue = machine.kernel().self().messages;
  if (!queue) queue = std::make_shared<sim::MessageQueue>();
  if (queue->messages.empty()) return FALSE;
  *message = queue->messages.front();
  return TRUE;
}

BOOL GetMessageW(MSG* message, HWND, UINT, UINT) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  auto& queue = machine.kernel().self().messages;
  if (!queue) queue = std::make_shared<sim::MessageQueue>();
  const std::array<sim::Object*, 1> objects{queue.get()};
  machine.kernel().waitAny(lock, objects, std::nullopt);
  *message = queue->messages.front();
  queue->messages.pop_front();
  return message->message != WM_QUIT ? TRUE : FALSE;
}

BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wParam, LPARAM lParam) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  MSG posted{};
  posted.message = message;
  posted.wParam = wParam;
  posted.lParam = lParam;
  return machine.kernel().post(thread, posted) ? TRUE : FALSE;
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES*, BOOL manualReset, BOOL initialState, const WCHAR*) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (machine.sound().fault("CreateEventW") != 0) return nullptr;
  return machine.kernel().open(std::make_shared<sim::Event>(manualReset != FALSE, initialState != FALSE));
}

BOOL SetEvent(HANDLE event) {
  return withObject<sim::Event>(event, [](Machine& machine, sim::Event& object) {
    object.set(machine.kernel());
    machine.kernel().mayBeOvertaken();
    return true;
  });
}

BOOL ResetEvent(HANDLE event) {
  return withObject<sim::Event>(event, [](Machine&, sim::Event& object) {
    object.reset();
    return true;
  });
}

HANDLE CreateMutexW(SECURITY_ATTRIBUTES*, BOOL initialOwner, const WCHAR*) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  const auto mutex = std::make_shared<sim::Mutex>();
  if (initialOwner) mutex->acquired(machine.kernel().self());
  return machine.kernel().open(mutex);
}

BOOL ReleaseMutex(HANDLE mutex) {
  return withObject<sim::Mutex>(mutex, [](Machine& machine, sim::Mutex& object) {
    if (!object.release(machine.kernel(), machine.kernel().self())) {
      machine.kernel().misused();
      return false;
    }
    machine.kernel().mayBeOvertaken();
    return true;
  });
}

DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  auto* object = machine.kernel().use<sim::Object>(handle);
  if (!object) {
    machine.kernel().misused();
    return WAIT_FAILED;
  }
  const std::array<sim::Object*, 1> objects{object};
  if (machine.kernel().waitAny(lock, objects, limitOf(milliseconds)) < 0) return WAIT_TIMEOUT;
  if (auto* mutex = dynamic_cast<sim::Mutex*>(object); mutex && mutex->takeAbandoned()) return WAIT_ABANDONED;
  return WAIT_OBJECT_0;
}

DWORD WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL waitAll, DWORD milliseconds) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  std::array<sim::Object*, MAXIMUM_WAIT_OBJECTS> objects;
  if (waitAll || count > objects.size() || !machine.kernel().use({handles, count}, objects)) {
    machine.kernel().misused();
    return WAIT_FAILED;
  }
  const int index = machine.kernel().waitAny(lock, {objects.data(), count}, limitOf(milliseconds));
  if (index < 0) return WAIT_TIMEOUT;
  auto* mutex = dynamic_cast<sim::Mutex*>(objects[static_cast<std::size_t>(index)]);
  return (mutex && mutex->takeAbandoned() ? WAIT_ABANDONED : WAIT_OBJECT_0) + static_cast<DWORD>(index);
}

void Sleep(DWORD milliseconds) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  machine.kernel().waitAny(lock, {}, limitOf(milliseconds));
}

BOOL CloseHandle(HANDLE handle) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  return machine.kernel().close(handle) ? TRUE : FALSE;
}

DWORD GetTickCount() {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enterQuietly();
  return machine.kernel().tick();
}

std::int64_t _time64(std::int64_t* result) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enterQuietly();
  const std::int64_t now = kPowerOnTime + machine.kernel().now().count() / 1'000'000;
  if (result) *result = now;
  return now;
}

HANDLE CreateFileW(const WCHAR* path, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  const std::wstring text(path);
  const auto& usb = machine.peripherals().usb;
  const auto device =
      std::find_if(usb.begin(), usb.end(), [&](const sim::UsbDevice& known) { return known.path == text; });
  if (device != usb.end()) {
    return device->answers ? machine.kernel().open(std::make_shared<sim::Event>(true, false)) : INVALID_HANDLE_VALUE;
  }
  auto file = machine.hid().open(text);
  if (machine.recording()) {
    machine.noteLocked((file ? "open " : "open refused ") + std::string(text.begin(), text.end()));
  }
  if (file && file->device->faults.openTime.count() > 0) {
    machine.kernel().waitAny(lock, {}, file->device->faults.openTime);
  }
  return file ? machine.kernel().open(std::move(file)) : INVALID_HANDLE_VALUE;
}

BOOL ReadFile(HANDLE file, void* buffer, DWORD bytesToRead, DWORD* bytesRead, OVERLAPPED*) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  *bytesRead = 0;
  auto* open = machine.kernel().use<sim::HidOpen>(file);
  if (!open) {
    machine.kernel().misused();
    return FALSE;
  }
  if (bytesToRead < open->device->inputLength || open->device->faults.failReads) return FALSE;
  const std::array<sim::Object*, 1> objects{open};
  const bool lets = !open->device->faults.ignoreCancel;
  ++open->reads;
  const int by = lets ? machine.kernel().waitCancellable(lock, objects, std::nullopt)
                      : machine.kernel().waitAny(lock, objects, std::nullopt);
  --open->reads;
  if (by == Kernel::kCancelled) {
    machine.kernel().self().lastError = ERROR_OPERATION_ABORTED;
    return FALSE;
  }
  if (open->gone || open->reports.empty()) return FALSE;
  const sim::Bytes report = std::move(open->reports.front());
  open->reports.pop_front();
  std::size_t count = std::min<std::size_t>(report.size(), bytesToRead);
  if (open->device->faults.shortRead != 0) count = std::min(count, open->device->faults.shortRead);
  std::memcpy(buffer, report.data(), count);
  *bytesRead = static_cast<DWORD>(count);
  if (machine.recording()) machine.noteLocked("read " + hex(report.data(), count));
  return TRUE;
}

BOOL WriteFile(HANDLE file, const void* buffer, DWORD bytesToWrite, DWORD* bytesWritten, OVERLAPPED*) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  *bytesWritten = 0;
  auto* open = machine.kernel().use<sim::HidOpen>(file);
  if (!open) {
    machine.kernel().misused();
    return FALSE;
  }
  const sim::HidFaults& faults = open->device->faults;
  if (faults.hangWrites || faults.writeTime.count() > 0) {
    const auto time = faults.hangWrites ? std::nullopt : std::optional(faults.writeTime);
    const int by = faults.ignoreCancel ? machine.kernel().waitAny(lock, {}, time)
                                       : machine.kernel().waitCancellable(lock, {}, time);
    if (by == Kernel::kCancelled) {
      machine.kernel().self().lastError = ERROR_OPERATION_ABORTED;
      return FALSE;
    }
  }
  if (open->gone || faults.failWrites || bytesToWrite != open->device->outputLength) return FALSE;
  const std::span report(static_cast<const std::uint8_t*>(buffer), bytesToWrite);
  if (machine.recording()) machine.noteLocked("write " + hex(report.data(), report.size()));
  sim::HidBus::deliver(*open->device, report);
  *bytesWritten = bytesToWrite;
  return TRUE;
}

HDEVINFO SetupDiGetClassDevsW(const GUID* classGuid, const WCHAR*, HWND, DWORD flags) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  auto* list = new DeviceList;
  if (sameGuid(*classGuid, kHidGuid) && flags == (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {
    list->paths = machine.hid().paths();
  } else if (sameGuid(*classGuid, kUsbGuid) && flags == (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {
    for (const sim::UsbDevice& device : machine.peripherals().usb) list->paths.push_back(device.path);
  } else if (sameGuid(*classGuid, kMediaGuid) && flags == DIGCF_PRESENT) {
    for (const sim::MediaDevice& device : machine.peripherals().media) {
      list->hardwareIds.push_back(device.hardwareIds.empty() ? std::string() : multiText(device.hardwareIds));
    }
  }
  ++machine.deviceLists;
  return list;
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO list, SP_DEVINFO_DATA*, const GUID* interfaceClass, DWORD index,
                                 SP_DEVICE_INTERFACE_DATA* result) {
  const auto& paths = static_cast<DeviceList*>(list)->paths;
  if (result->cbSize != sizeof(SP_DEVICE_INTERFACE_DATA) || index >= paths.size()) return FALSE;
  result->InterfaceClassGuid = *interfaceClass;
  result->Flags = 1;  // active
  result->Reserved = index;
  return TRUE;
}

BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO list, SP_DEVICE_INTERFACE_DATA* deviceInterface,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD detailSize, DWORD* requiredSize,
                                      SP_DEVINFO_DATA*) {
  const std::wstring& path = static_cast<DeviceList*>(list)->paths.at(deviceInterface->Reserved);
  const auto needed =
      static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) + (path.size() + 1) * sizeof(WCHAR));
  if (requiredSize) *requiredSize = needed;
  if (!detail || detailSize < needed || detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) return FALSE;
  std::memcpy(reinterpret_cast<char*>(detail) + offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath), path.c_str(),
              (path.size() + 1) * sizeof(WCHAR));
  return TRUE;
}

BOOL SetupDiEnumDeviceInfo(HDEVINFO list, DWORD index, SP_DEVINFO_DATA* device) {
  const auto& devices = static_cast<DeviceList*>(list)->hardwareIds;
  if (device->cbSize != sizeof(SP_DEVINFO_DATA) || index >= devices.size()) return FALSE;
  device->DevInst = index;
  return TRUE;
}

BOOL SetupDiGetDeviceRegistryPropertyA(HDEVINFO list, SP_DEVINFO_DATA* device, DWORD property, DWORD*,
                                       std::uint8_t* buffer, DWORD size, DWORD* requiredSize) {
  const std::string& text = static_cast<DeviceList*>(list)->hardwareIds.at(device->DevInst);
  const Kernel::Lock lock = Machine::current().kernel().enter();
  if (property != SPDRP_HARDWAREID || text.empty()) {
    Machine::current().kernel().self().lastError = 13;  // invalid data
    return FALSE;
  }
  if (requiredSize) *requiredSize = static_cast<DWORD>(text.size());
  if (!buffer || size < text.size()) {
    Machine::current().kernel().self().lastError = ERROR_INSUFFICIENT_BUFFER;
    return FALSE;
  }
  std::copy(text.begin(), text.end(), buffer);
  return TRUE;
}

DWORD GetLastError() {
  const Kernel::Lock lock = Machine::current().kernel().enterQuietly();
  return Machine::current().kernel().self().lastError;
}

// HID devices have no such timeouts.
BOOL GetCommTimeouts(HANDLE, COMMTIMEOUTS*) { return FALSE; }
BOOL SetCommTimeouts(HANDLE, COMMTIMEOUTS*) { return FALSE; }

SHORT GetAsyncKeyState(int virtualKey) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  return machine.peripherals().keyboard.state(virtualKey);
}

void keybd_event(std::uint8_t virtualKey, std::uint8_t, DWORD flags, ULONG_PTR) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  sim::Keyboard& keyboard = machine.peripherals().keyboard;
  if (flags != KEYEVENTF_KEYUP) return keyboard.press(virtualKey);
  keyboard.release(virtualKey);
  keyboard.sentReleases.push_back(virtualKey);
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO list) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  delete static_cast<DeviceList*>(list);
  --machine.deviceLists;
  return TRUE;
}

void HidD_GetHidGuid(GUID* result) { *result = kHidGuid; }

BOOLEAN HidD_GetAttributes(HANDLE device, HIDD_ATTRIBUTES* attributes) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  const auto open = machine.kernel().find<sim::HidOpen>(device);
  if (!open || open->device->faults.noAttributes || attributes->Size != sizeof(HIDD_ATTRIBUTES)) return FALSE;
  attributes->VendorID = open->device->vendor;
  attributes->ProductID = open->device->product;
  attributes->VersionNumber = 0x0100;
  return TRUE;
}

BOOLEAN HidD_GetPreparsedData(HANDLE device, PHIDP_PREPARSED_DATA* preparsed) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  const auto open = machine.kernel().find<sim::HidOpen>(device);
  if (!open || open->device->faults.noPreparsedData) return FALSE;
  *preparsed = reinterpret_cast<PHIDP_PREPARSED_DATA>(
      new ParsedDescriptor{open->device->inputLength, open->device->outputLength, open->device->faults.noCaps});
  ++machine.preparsedData;
  return TRUE;
}

BOOLEAN HidD_FreePreparsedData(PHIDP_PREPARSED_DATA preparsed) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  delete reinterpret_cast<ParsedDescriptor*>(preparsed);
  --machine.preparsedData;
  return TRUE;
}

NTSTATUS HidP_GetCaps(PHIDP_PREPARSED_DATA preparsed, HIDP_CAPS* caps) {
  const auto& parsed = *reinterpret_cast<const ParsedDescriptor*>(preparsed);
  if (parsed.noCaps) return static_cast<NTSTATUS>(0xC0110001);  // invalid preparsed data
  *caps = {};
  caps->InputReportByteLength = parsed.inputLength;
  caps->OutputReportByteLength = parsed.outputLength;
  return HIDP_STATUS_SUCCESS;
}

HMODULE LoadLibraryW(const WCHAR* fileName) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  return reinterpret_cast<HMODULE>(const_cast<sim::Library*>(machine.library(fileName)));
}

FARPROC GetProcAddress(HMODULE library, const char* name) {
  const auto& names = *reinterpret_cast<const sim::Library*>(library);
  const auto it = names.find(name);
  return it == names.end() ? nullptr : it->second;
}

}  // namespace os
