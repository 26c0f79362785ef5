// Callbacks that the client has registered.
#pragma once

#include <type_traits>

#include "VoxDevice/Shared.h"
#include "platform/os.h"
#include "support/Observer.h"
#include "support/Probe.h"
#include "support/Worker.h"

// A registered callback: a function and the context it is called with, which readers always see as one pair. Takes no
// memory and no lock: a writer makes the version odd for the time of two stores. name: under which an observer is told
// of its calls; none is not told.
template <class Function, ProbeName name = "">
class CallbackSlot {
 public:
  struct Pair {
    Function function = nullptr;
    void* context = nullptr;
  };

  CallbackSlot() = default;
  CallbackSlot(const CallbackSlot& other) noexcept { *this = other; }
  CallbackSlot& operator=(const CallbackSlot& other) noexcept {
    const Pair pair = other.Get();
    Set(pair.function, pair.context);
    return *this;
  }
  ~CallbackSlot() = default;

  void Set(Function function, void* context) noexcept {
    const CNotCutOff whole;
    unsigned version = StableVersion();
    while (!version_.compare_exchange_strong(version, version + 1)) version = StableVersion();
    function_ = function;
    context_ = context;
    version_ = version + 2;
  }
  Pair Get() const noexcept {
    for (;;) {
      const unsigned version = StableVersion();
      const Pair pair{function_, context_};
      if (version_ == version) return pair;
      Probe<"slot: a callback is replaced while it is read">();
    }
  }
  // Calls the registered function, if there is one, with the context as its last argument.
  template <class... Arguments>
  void operator()(Arguments... arguments) const {
    const Pair pair = Get();
    if (!pair.function) return;
    if constexpr (sizeof name.text > 1) Observe(arguments...);
    if (const CClientCode inside; inside) pair.function(arguments..., pair.context);
  }

 private:
  // A number that comes first is a device's.
  template <class First, class... Rest>
  static void Observe(First first, Rest... rest) noexcept {
    if constexpr (std::is_same_v<First, int>) {
      CObserver::Told(name.text, first, nullptr, {static_cast<int>(rest)...});
    } else {
      CObserver::Told(name.text, -1, nullptr, {static_cast<int>(rest)...});
    }
  }
  unsigned StableVersion() const noexcept {
    unsigned version = version_;
    for (; version % 2 != 0; version = version_) os::Sleep(1);
    return version;
  }

  Atomic<unsigned> version_{0};
  Atomic<Function> function_{nullptr};
  Atomic<void*> context_{nullptr};
};
