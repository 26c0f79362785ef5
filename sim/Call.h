// One call of the seam.
#pragma once

#include <cstdint>
#include <string>

#include "sim/Machine.h"
#include "sim/Memory.h"

namespace sim {

// Inside the machine from here to the end of the scope.
struct SCOPED_CAPABILITY Call {
  explicit Call(const char* called) ACQUIRE(gate)
      : name(called), machine(Machine::current()), kernel(machine.kernel()) {
    kernel.enter();
    kernel.self().lastError = 0;  // that of the call before is lost, even when this one succeeds
  }
  ~Call() RELEASE() { gate.unlock(); }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // 0 when this call, which can fail, is to succeed; else the error that it returns.
  template <class Error>
  Error fault(Error usual) REQUIRES(gate) {
    return static_cast<Error>(machine.faults().of(name, usual));
  }
  // The same for a call that leaves its error with the thread.
  bool fails(DWORD error) REQUIRES(gate) {
    if (machine.faults().of(name, 1) == 0) return false;
    kernel.self().lastError = error;
    return true;
  }
  // A call that takes its time, because somebody has asked for it.
  void stall() REQUIRES(gate) {
    if (const Time time = machine.faults().stall(name); time.count() > 0) kernel.sleep(time);
  }

  // What the call returns when it fails as it may.
  template <class Result>
  Result failed(DWORD error, Result result) REQUIRES(gate) {
    kernel.self().lastError = error;
    return result;
  }
  // The caller has broken a rule, and gets what Windows gives for that.
  template <class Result>
  Result misused(const char* rule, Result result) REQUIRES(gate) {
    kernel.misused(std::string(name) + ": " + rule);
    return result;
  }
  template <class Result>
  Result misused(const char* rule, DWORD error, Result result) REQUIRES(gate) {
    kernel.self().lastError = error;
    return misused(rule, result);
  }

  // The object of this kind behind a handle; null, and a rule is broken, when there is none. It lives as long as the
  // call.
  template <class T>
  T* object(HANDLE handle) REQUIRES(gate) {
    T* object = kernel.use<T>(handle);
    if (!object) misused("not an open handle of its kind", ERROR_INVALID_HANDLE, 0);
    return object;
  }

  const OthersCode others;
  const char* const name;
  Machine& machine;
  Kernel& kernel;
};

}  // namespace sim
