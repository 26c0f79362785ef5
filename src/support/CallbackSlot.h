// Callbacks that the client has registered.
#pragma once

#include <utility>

#include "VoxDevice/Shared.h"
#include "support/Worker.h"

// A registered callback: a function and the context it is called with, which readers always see as one pair. Earlier
// pairs are kept until the slot goes, because a thread may just be calling one.
template <class Function>
class CallbackSlot {
 public:
  struct Pair {
    Function function = nullptr;
    void* context = nullptr;
    const Pair* earlier = nullptr;
  };

  CallbackSlot() = default;
  CallbackSlot(const CallbackSlot& other) { *this = other; }
  CallbackSlot& operator=(const CallbackSlot& other) {
    const Pair pair = other.Get();
    Set(pair.function, pair.context);
    return *this;
  }
  ~CallbackSlot() {
    for (const Pair* pair = latest_; pair;) delete std::exchange(pair, pair->earlier);
  }

  void Set(Function function, void* context) {
    auto* pair = new Pair{function, context, latest_};
    while (!latest_.compare_exchange_weak(pair->earlier, pair)) {
    }
  }
  Pair Get() const {
    const Pair* pair = latest_;
    return pair ? *pair : Pair{};
  }
  // Calls the registered function, if there is one, with the context as its last argument.
  template <class... Arguments>
  void operator()(Arguments... arguments) const {
    const Pair pair = Get();
    if (!pair.function) return;
    if (const CClientCode inside; inside) pair.function(arguments..., pair.context);
  }

 private:
  Atomic<const Pair*> latest_{nullptr};
};
