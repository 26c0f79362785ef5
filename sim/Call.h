// One call of the seam.
#pragma once

#include <cstdint>
#include <string>

#include "sim/Machine.h"
#include "sim/Memory.h"

namespace sim {

// Inside the machine from here to the end of the scope.
struct Call {
  explicit Call(const char* called)
      : name(called), machine(Machine::current()), kernel(machine.kernel()), lock(kernel.enter()) {}

  // 0 when this call, which can fail, is to succeed; else the error that it returns.
  template <class Error>
  Error fault(Error usual) {
    return static_cast<Error>(machine.faults().of(name, usual));
  }
  // The same for a call that leaves its error with the thread.
  bool fails(DWORD error) {
    if (machine.faults().of(name, 1) == 0) return false;
    kernel.self().lastError = error;
    return true;
  }
  // A call that takes its time, because somebody has asked for it.
  void stall() {
    if (const Time time = machine.faults().stall(name); time.count() > 0) kernel.sleep(lock, time);
  }

  // What the call returns when it fails as it may.
  template <class Result>
  Result failed(DWORD error, Result result) {
    kernel.self().lastError = error;
    return result;
  }
  // The caller has broken a rule, and gets what Windows gives for that.
  template <class Result>
  Result misused(const char* rule, Result result) {
    kernel.misused(std::string(name) + ": " + rule);
    return result;
  }
  template <class Result>
  Result misused(const char* rule, DWORD error, Result result) {
    kernel.self().lastError = error;
    return misused(rule, result);
  }

  // The object of this kind behind a handle; null, and a rule is broken, when there is none. It lives as long as the
  // call.
  template <class T>
  T* object(HANDLE handle) {
    T* object = kernel.use<T>(handle);
    if (!object) misused("not an open handle of its kind", ERROR_INVALID_HANDLE, 0);
    return object;
  }

  const OthersCode others;
  const char* const name;
  Machine& machine;
  Kernel& kernel;
  Kernel::Lock lock;
};

}  // namespace sim
