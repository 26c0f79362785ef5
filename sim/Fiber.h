// A stack that can be switched to: what a simulated thread runs on while the clock is virtual.
#pragma once

#include <cstddef>
#include <memory>

namespace sim {

class Fiber {
 public:
  using Entry = void (*)(void*);

  // Stands for the stack of the operating-system thread that calls this.
  Fiber();
  // A new stack; entry(argument) begins on it at the first switch and must never return.
  Fiber(Entry entry, void* argument);
  // Must not be the running fiber. What its frames own is abandoned, as when a thread is ended by force.
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  // Leaves the running fiber `from` for `to`. Returns when something switches back to `from`; never, when fromEnds.
  static void switchTo(Fiber& from, Fiber& to, bool fromEnds = false);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
