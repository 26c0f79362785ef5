// A thread of the library: started by its owner, ended by its owner or by itself.
#pragma once

#include <atomic>

#include "platform/os.h"

// Library threads are ended by force, while they wait for a device that may never answer. CWorkerThread makes that
// safe:
//
// - A thread says when it may be ended: it parks around each of its waits. Whoever ends it takes it while it is parked.
//   A thread that is busy (it handles a report, it is in a client's callback, it writes) is given time to park or to
//   end, and is ended by force in the middle of its work only when it exceeds that time.
// - The handle is stored before the thread runs, so a thread cannot clear it too early.
// - Terminate returns when the thread is gone. No thread outlives its owner.
//
// What the rest of the library sees as the thread handle is IsSet: true from Start until the thread clears it.
class CWorkerThread {
 public:
  // Milliseconds that a busy thread is given. Callbacks of clients take less, waits in them mostly do not.
  static constexpr DWORD kPatience = 300;

  CWorkerThread() = default;
  ~CWorkerThread() { Terminate(); }
  CWorkerThread(const CWorkerThread&) = delete;
  CWorkerThread& operator=(const CWorkerThread&) = delete;

  // ---- For the owner ----
  // Starts the thread. Only when IsIdle; false when it cannot be started.
  bool Start(unsigned (*entry)(void*), void* argument) noexcept;
  bool IsSet() const noexcept { return set_; }
  // True when no thread is left: none was started, or it has ended, its last instruction included.
  bool IsIdle() const noexcept;
  DWORD Id() const noexcept { return threadId_; }
  bool SetPriority(int priority) const noexcept { return os::SetThreadPriority(thread_, priority) != FALSE; }
  bool IsCurrent() const noexcept { return threadId_ == os::GetCurrentThreadId(); }
  // Waits until the thread has ended by itself; false when it has not within so many milliseconds.
  bool Join(DWORD milliseconds = INFINITE) noexcept;
  // Ends the thread and waits until it is gone. Called on the thread itself, it lets the thread end at its next park.
  void Terminate(DWORD patience = kPatience) noexcept;

  // ---- For the thread ----
  // The first call of its entry. False: it has been ended before it began; return at once.
  bool Begin() noexcept { return Unpark(); }
  // Runs `wait`, in which the thread may be ended. False: it is being ended; return at once and touch nothing.
  template <class Wait>
  bool Park(Wait&& wait) noexcept {
    State busy = State::busy;
    if (endRequested_ || !state_.compare_exchange_strong(busy, State::parked)) return false;
    wait();
    return Unpark();
  }
  // Clears the handle that others see. The thread may still run for a while.
  void Clear() noexcept { set_ = false; }

 private:
  enum class State { parked, busy, taken };

  bool Unpark() noexcept {
    State parked = State::parked;
    return state_.compare_exchange_strong(parked, State::busy) && !endRequested_;
  }

  std::atomic<bool> set_{false};
  std::atomic<bool> endRequested_{false};
  std::atomic<State> state_{State::parked};
  std::atomic<HANDLE> thread_{nullptr};
  std::atomic<DWORD> threadId_{0};
};
