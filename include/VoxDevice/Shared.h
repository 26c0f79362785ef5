// Fields that one thread writes and another reads.
#pragma once

#include <atomic>

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
