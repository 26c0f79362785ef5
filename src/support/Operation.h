// An operation of the client's on an object of the library's, which may go meanwhile.
#pragma once

#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

#include "support/CLock.h"
#include "support/Deadline.h"
#include "support/Worker.h"

// The threads that are inside the operations of an object. Takes no memory: an object must end without any, too.
class CInside {
 public:
  // One thread inside one operation, on its stack.
  class Entry {
   public:
    template <class Of>
    explicit Entry(Of& of) noexcept : inside_(of.inside) {
      const CAutoLock lock(inside_.lock_);
      next_ = inside_.first_;
      if (next_) next_->previous_ = this;
      inside_.first_ = this;
    }
    ~Entry() {
      const CAutoLock lock(inside_.lock_);
      if (next_) next_->previous_ = previous_;
      (previous_ ? previous_->next_ : inside_.first_) = next_;
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    friend class CInside;
    CInside& inside_;
    const DWORD thread_ = os::GetCurrentThreadId();
    Entry* next_ = nullptr;
    Entry* previous_ = nullptr;
  };

  // lock: the owner's, for short.
  explicit CInside(CLock& lock) noexcept : lock_(lock) {}
  // Waits until no other thread is inside. The calling one may be, further out.
  void AwaitOthers(CDeadline deadline) noexcept {
    while (Others() && !deadline.HasPassed()) os::Sleep(1);
  }

 private:
  bool Others() noexcept {
    const CAutoLock lock(lock_);
    const Entry* entry = first_;
    while (entry && entry->thread_ == os::GetCurrentThreadId()) entry = entry->next_;
    return entry != nullptr;
  }

  CLock& lock_;
  Entry* first_ GUARDED_BY(lock_) = nullptr;
};

// While one lives, what stands behind the client's object stays, and the thread, on which the client may be in a
// callback, is not ended by force. The last operation of an object, its destructor, can wait for the others when what
// stands behind it keeps who is inside.
template <class Of>
class Operation {
  static constexpr bool kIsWaitedFor = requires(Of & of) { of.inside; };
  struct Nothing {
    explicit Nothing(Of&) noexcept {}
  };

 public:
  explicit Operation(const std::shared_ptr<Of>& of) noexcept : of_(of), entry_(*of_) {}
  ~Operation() = default;
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;
  Of* operator->() const noexcept { return of_.get(); }
  Of& operator*() const noexcept { return *of_; }

 private:
  const CNotCutOff whole_;
  const std::shared_ptr<Of> of_;
  const std::conditional_t<kIsWaitedFor, CInside::Entry, Nothing> entry_;
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
