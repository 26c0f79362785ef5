// Time, libraries and the keyboard on the simulated machine; everything else has a file of its own.
#include "platform/os.h"

#include "sim/Call.h"

namespace {

using sim::Call;

// The simulated machine was switched on at this moment, 2024-01-01 00:00:00 UTC.
constexpr std::int64_t kPowerOnTime = 1'704'067'200;

}  // namespace

namespace os {

DWORD GetTickCount() {
  sim::Kernel& kernel = sim::Machine::current().kernel();
  const sim::Inside inside;
  return kernel.tick();
}

std::int64_t _time64(std::int64_t* result) {
  sim::Kernel& kernel = sim::Machine::current().kernel();
  const sim::Inside inside;
  const std::int64_t now = kPowerOnTime + kernel.now().count() / 1'000'000;
  if (result) *result = now;
  return now;
}

HMODULE LoadLibraryW(const WCHAR* fileName) {
  Call call("LoadLibraryW");
  if (call.fails(ERROR_MOD_NOT_FOUND)) return nullptr;
  const sim::Library* library = call.machine.library(fileName);
  return library ? reinterpret_cast<HMODULE>(const_cast<sim::Library*>(library))
                 : call.failed(ERROR_MOD_NOT_FOUND, HMODULE{});
}

FARPROC GetProcAddress(HMODULE library, const char* name) {
  Call call("GetProcAddress");
  if (!library) return call.misused("no library", ERROR_INVALID_HANDLE, FARPROC{});
  if (call.fails(ERROR_PROC_NOT_FOUND)) return nullptr;
  const auto& names = *reinterpret_cast<const sim::Library*>(library);
  const auto it = names.find(name);
  return it != names.end() ? it->second : call.failed(ERROR_PROC_NOT_FOUND, FARPROC{});
}

SHORT GetAsyncKeyState(int virtualKey) {
  Call call("GetAsyncKeyState");
  if (virtualKey < 1 || virtualKey > 254) return call.misused("not a virtual key", SHORT{0});
  return call.machine.peripherals().keyboard.state(virtualKey);
}

void keybd_event(std::uint8_t virtualKey, std::uint8_t, DWORD flags, ULONG_PTR) {
  Call call("keybd_event");
  if (virtualKey < 1 || virtualKey > 254) return call.misused("not a virtual key", 0), void();
  sim::Keyboard& keyboard = call.machine.peripherals().keyboard;
  if (flags != KEYEVENTF_KEYUP) return keyboard.press(virtualKey);
  keyboard.release(virtualKey);
  keyboard.sentReleases.push_back(virtualKey);
}

}  // namespace os
