// Fields that one thread writes and another reads.
#pragma once

#include <atomic>

#ifdef VOXDEVICE_EXPLORE
// Only in builds whose schedules are searched: every access is a point at which another thread may go first.
extern "C" void voxAtSharedField() noexcept;

template <class T>
class Atomic : public std::atomic<T> {
  using Base = std::atomic<T>;

 public:
  using Base::Base;
  // NOLINTNEXTLINE(misc-unconventional-assign-operator): as std::atomic's.
  T operator=(T value) noexcept { return At() = value; }
  operator T() const noexcept { return At().load(); }
  T load() const noexcept { return At().load(); }
  void store(T value) noexcept { At().store(value); }
  T exchange(T value) noexcept { return At().exchange(value); }
  bool compare_exchange_strong(T& expected, T value) noexcept { return At().compare_exchange_strong(expected, value); }
  bool compare_exchange_weak(T& expected, T value) noexcept { return At().compare_exchange_weak(expected, value); }
  T operator++() noexcept { return ++At(); }
  T operator--() noexcept { return --At(); }
  T operator++(int) noexcept { return At()++; }
  T operator--(int) noexcept { return At()--; }
  T operator+=(T value) noexcept { return At() += value; }

 private:
  Base& At() noexcept { return voxAtSharedField(), *this; }
  const Base& At() const noexcept { return voxAtSharedField(), *this; }
};
#else
template <class T>
using Atomic = std::atomic<T>;
#endif

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
  Atomic<T> value_;
};
