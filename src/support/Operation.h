// An operation of the client's on an object of the library's, which may go meanwhile.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "support/CLock.h"
#include "support/Deadline.h"
#include "support/Worker.h"

// The threads that are inside the operations of an object; once for each operation.
class CInside {
 public:
  // lock: the owner's, for short.
  explicit CInside(CLock& lock) noexcept : lock_(lock) {}
  void Enter() {
    const CAutoLock lock(lock_);
    threads_.push_back(os::GetCurrentThreadId());
  }
  void Exit() noexcept {
    const CAutoLock lock(lock_);
    threads_.erase(std::find(threads_.begin(), threads_.end(), os::GetCurrentThreadId()));
  }
  // Waits until no other thread is inside. The calling one may be, further out.
  void AwaitOthers(CDeadline deadline) noexcept {
    while (Others() && !deadline.HasPassed()) os::Sleep(1);
  }

 private:
  bool Others() noexcept {
    const CAutoLock lock(lock_);
    return std::any_of(threads_.begin(), threads_.end(), [](DWORD id) { return id != os::GetCurrentThreadId(); });
  }

  CLock& lock_;
  std::vector<DWORD> threads_ GUARDED_BY(lock_);
};

// While one lives, what stands behind the client's object stays, and the thread, on which the client may be in a
// callback, is not ended by force. The last operation of an object, its destructor, can wait for the others when what
// stands behind it keeps who is inside.
template <class Of>
class Operation {
  static constexpr bool kIsWaitedFor = requires(Of & of) { of.inside; };

 public:
  explicit Operation(const std::shared_ptr<Of>& of) : of_(of) {
    if constexpr (kIsWaitedFor) of_->inside.Enter();
  }
  ~Operation() {
    if constexpr (kIsWaitedFor) of_->inside.Exit();
  }
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  Of* operator->() const noexcept { return of_.get(); }
  Of& operator*() const noexcept { return *of_; }

 private:
  const CNotCutOff whole_;
  const std::shared_ptr<Of> of_;
};

// What stands behind an object; made by its constructor.
template <class Of, class... Arguments>
std::shared_ptr<Of> MakeWhole(Arguments&&... arguments) {
  const CNotCutOff whole;
  return std::make_shared<Of>(std::forward<Arguments>(arguments)...);
}

// Holds a mutex that does not survive the forced end of its holder.
class CMutexGuard {
 public:
  explicit CMutexGuard(std::mutex& mutex) : guard_(mutex) {}

 private:
  const CNotCutOff whole_;
  const std::lock_guard<std::mutex> guard_;
};
