// Fields that one thread writes and another reads.
#pragma once

#include <atomic>
#include <utility>

// A plain value to read and write, whole, from any thread. Copies as its value, so that its owner copies as plain data.
template <class T>
class Shared {
 public:
  constexpr Shared(T value = T{}) noexcept : value_(value) {}
  Shared(const Shared& other) noexcept : value_(other.value_.load()) {}
  Shared& operator=(const Shared& other) noexcept {
    value_.store(other.value_.load());
    return *this;
  }
  Shared& operator=(T value) noexcept {
    value_.store(value);
    return *this;
  }
  operator T() const noexcept { return value_.load(); }
  T exchange(T value) noexcept { return value_.exchange(value); }

 private:
  std::atomic<T> value_;
};

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
    if (pair.function) pair.function(arguments..., pair.context);
  }

 private:
  std::atomic<const Pair*> latest_{nullptr};
};
