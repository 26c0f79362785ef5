// A lock that survives the forced end of its holder.
#pragma once

#include <atomic>

#include "platform/os.h"

// Recursive. When a thread is ended by force while it holds the lock, the next taker gets it. That is why it is a
// kernel mutex, which knows its owner, and not something cheaper.
class CLock {
 public:
  CLock() noexcept;
  ~CLock();
  CLock(const CLock&) = delete;
  CLock& operator=(const CLock&) = delete;

  // False when the lock could not be had within `milliseconds`.
  bool Lock(DWORD milliseconds = INFINITE) noexcept;
  void Unlock() noexcept;

 private:
  DWORD WaitForTurn(DWORD milliseconds) noexcept;

  const HANDLE mutex_;
  // Where the system has had no mutex left: the thread that holds this, and how often.
  std::atomic<DWORD> owner_{0};
  int depth_ = 0;
};

// Holds a CLock for a scope.
class CAutoLock {
 public:
  explicit CAutoLock(CLock& lock) noexcept : lock_(lock), held_(lock.Lock()) {}
  ~CAutoLock() {
    if (held_) lock_.Unlock();
  }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CLock& lock_;
  const bool held_;
};
