// What the machine's COM objects have in common.
#pragma once

#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "platform/os.h"
#include "sim/Call.h"

namespace sim {

inline bool same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A thread uses interfaces only while COM is initialised on it.
inline bool mayUseCom(Call& call) REQUIRES(gate) {
  const Thread& thread = call.kernel.self();
  return thread.apartments > 0 || thread.comByOthers || call.misused("COM is not initialised on this thread", false);
}

// A call of a method.
struct SCOPED_CAPABILITY Method : Call {
  Method(ComObject& called, const char* method) ACQUIRE(gate) NO_THREAD_SAFETY_ANALYSIS : Call(method),
                                                                                          object(called) {}
  ~Method() RELEASE() NO_THREAD_SAFETY_ANALYSIS = default;
  Method(const Method&) = delete;
  Method& operator=(const Method&) = delete;

  // The error with which the call is over at once; S_OK: it goes on. One that is to fail does so with `usual`.
  HRESULT refused(HRESULT usual = E_OUTOFMEMORY) REQUIRES(gate) {
    if (object.references == 0) return misused("the interface has been released", E_FAIL);
    if (!mayUseCom(*this)) return CO_E_NOTINITIALIZED;
    stall();
    return fault(usual);
  }

  ComObject& object;
};

template <class Interface>
class Com : public Interface, public ComObject {
 public:
  using ComObject::ComObject;

  HRESULT STDMETHODCALLTYPE QueryInterface(const GUID&, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    Call call(name);
    if (references == 0) return call.misused("AddRef of an interface that has been released", ULONG{0});
    ++call.machine.sound().open.comReferences;
    return ++references;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    Call call(name);
    mayUseCom(call);
    if (references == 0) return call.misused("Release of an interface that has been released", ULONG{0});
    SoundSystem& sound = call.machine.sound();
    --sound.open.comReferences;
    if (--references > 0) return references;
    sound.objects.erase(this);
    released();
    return 0;
  }
};

// A new object, with one reference. With the machine's lock held.
template <class Object, class... Arguments>
Object* makeCom(Arguments&&... arguments) {
  auto object = std::make_unique<Object>(std::forward<Arguments>(arguments)...);
  Object* made = object.get();
  Machine::current().sound().add(std::move(object));
  return made;
}

// Task memory of so many bytes. With the machine's lock held.
void* allocateTask(std::size_t bytes);
WCHAR* taskText(const std::wstring& text);

IMMDeviceEnumerator* makeEnumerator();
// Of the speaker's.
IAudioClient* makeAudioClient();

}  // namespace sim
