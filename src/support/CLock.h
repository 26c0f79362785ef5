// A lock that survives the forced end of its holder.
#pragma once

#include "VoxDevice/Shared.h"
#include "platform/os.h"
#include "support/ThreadSafety.h"

// Recursive. When a thread is ended by force while it holds the lock, the next taker gets it. That is why it is a
// kernel mutex, which knows its owner, and not something cheaper.
class CAPABILITY("lock") CLock {
 public:
  CLock() noexcept;
  ~CLock();
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

  // False when the lock could not be had within `milliseconds`.
  bool Lock(DWORD milliseconds = INFINITE) noexcept TRY_ACQUIRE(true);
  void Unlock() noexcept RELEASE();

 private:
  DWORD WaitForTurn(DWORD milliseconds) noexcept;

  const HANDLE mutex_;
  // Where the system has had no mutex left: the thread that holds this, and how often.
  Atomic<DWORD> owner_{0};
  int depth_ = 0;
};

// Holds a CLock for a scope.
class SCOPED_CAPABILITY CAutoLock {
 public:
  // A wait without limit fails only when there is no lock any more to speak of.
  explicit CAutoLock(CLock& lock) noexcept ACQUIRE(lock) NO_THREAD_SAFETY_ANALYSIS : lock_(lock), held_(lock.Lock()) {}
  ~CAutoLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
    if (held_) lock_.Unlock();
  }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CLock& lock_;
  const bool held_;
};
