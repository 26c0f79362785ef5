// COM and the multimedia class scheduler on the simulated machine.
#include <algorithm>
#include <new>
#include <string>

#include "sim/Com.h"

namespace sim {
namespace {

constexpr GUID kClassEnumerator{0xbcde0395, 0xe52f, 0x467c, {0x8e, 0x3d, 0xc4, 0x57, 0x92, 0x91, 0x69, 0x2e}};
constexpr GUID kEnumerator{0xa95664d2, 0x9614, 0x4f35, {0xa7, 0x46, 0xde, 0x8d, 0xb6, 0x36, 0x17, 0xe6}};

// What a thread has entered, and leaves by itself; the system takes it back when the thread ends.
class Task final : public Object {
 public:
  explicit Task(SoundSystem& sound) : sound_(sound) { ++sound_.open.mmcssTasks; }
  ~Task() override { --sound_.open.mmcssTasks; }
  bool signalled(const Thread&) const override { return false; }
  const char* kind() const override { return "scheduler task"; }

 private:
  SoundSystem& sound_;
};

}  // namespace

void* allocateTask(std::size_t bytes) {
  SoundSystem& sound = Machine::current().sound();
  void* memory = ::operator new(bytes);
  sound.taskMemory.insert(memory);
  ++sound.open.taskMemory;
  return memory;
}

WCHAR* taskText(const std::wstring& text) {
  auto* copy = static_cast<WCHAR*>(allocateTask((text.size() + 1) * sizeof(WCHAR)));
  std::copy_n(text.c_str(), text.size() + 1, copy);
  return copy;
}

}  // namespace sim

namespace os {

using sim::Call;

HRESULT CoInitialize(void* reserved) {
  Call call("CoInitialize");
  if (reserved) return call.misused("its argument is reserved", E_INVALIDARG);
  sim::Thread& thread = call.kernel.self();
  // Who fails has not initialised anything, and must not uninitialise. Where somebody else had chosen another kind of
  // apartment, the thread can use interfaces all the same.
  if (const HRESULT error = call.fault(RPC_E_CHANGED_MODE); FAILED(error)) {
    thread.comByOthers = thread.comByOthers || error == RPC_E_CHANGED_MODE;
    return error;
  }
  ++call.machine.sound().open.apartments;
  return thread.apartments++ == 0 ? S_OK : S_FALSE;
}

void CoUninitialize() {
  Call call("CoUninitialize");
  if (call.kernel.self().apartments == 0) return call.misused("without a CoInitialize that succeeded", 0), void();
  --call.kernel.self().apartments;
  --call.machine.sound().open.apartments;
}

HRESULT CoCreateInstance(const GUID& classId, IUnknown* outer, DWORD context, const GUID& iid, void** object) {
  Call call("CoCreateInstance");
  if (!object) return call.misused("no room for the interface", E_POINTER);
  *object = nullptr;
  if (!sim::mayUseCom(call)) return CO_E_NOTINITIALIZED;
  if ((context & CLSCTX_INPROC_SERVER) == 0) {
    return call.misused("a context in which the class is not", REGDB_E_CLASSNOTREG);
  }
  if (outer) return call.misused("the class cannot be aggregated", CLASS_E_NOAGGREGATION);
  call.stall();
  if (const HRESULT error = call.fault(E_OUTOFMEMORY); FAILED(error)) return error;
  if (!sim::same(classId, sim::kClassEnumerator)) return REGDB_E_CLASSNOTREG;
  if (!sim::same(iid, sim::kEnumerator)) return E_NOINTERFACE;
  *object = sim::makeEnumerator();
  return S_OK;
}

void CoTaskMemFree(void* memory) {
  Call call("CoTaskMemFree");
  if (!memory) return;
  sim::SoundSystem& sound = call.machine.sound();
  if (sound.taskMemory.erase(memory) == 0) {
    call.misused("not task memory, or freed before", 0);
    return;
  }
  --sound.open.taskMemory;
  ::operator delete(memory);
}

HRESULT PropVariantClear(PROPVARIANT* value) {
  if (value->vt == VT_LPWSTR) CoTaskMemFree(value->pwszVal);
  *value = {};
  return S_OK;
}

HANDLE AvSetMmThreadCharacteristicsW(const WCHAR* task, DWORD* taskIndex) {
  Call call("AvSetMmThreadCharacteristicsW");
  if (!task || !taskIndex) return call.misused("no task, or no index", ERROR_INVALID_PARAMETER, HANDLE{});
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return nullptr;
  if (std::wstring(task) != L"Capture") return call.failed(ERROR_FILE_NOT_FOUND, HANDLE{});
  const auto entered = std::make_shared<sim::Task>(call.machine.sound());
  call.kernel.self().goWithIt.push_back(entered);
  return entered.get();
}

BOOL AvRevertMmThreadCharacteristics(HANDLE task) {
  Call call("AvRevertMmThreadCharacteristics");
  auto& mine = call.kernel.self().goWithIt;
  if (std::erase_if(mine, [task](const auto& entered) { return entered.get() == task; }) > 0) return TRUE;
  return call.misused("not a task of this thread", ERROR_INVALID_HANDLE, FALSE);
}

}  // namespace os
