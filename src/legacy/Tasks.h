// The threads of the older hardware's objects.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "VoxDevice/Shared.h"
#include "support/Operation.h"
#include "support/Probe.h"

// Threads of one kind: each start gets one of its own, so that none is lost while an earlier one is about to end.
class CTasks {
 public:
  using List = std::vector<std::shared_ptr<CWorker>>;
  using Body = std::function<void(CWorker&)>;

  // lock: the owner's, which it also holds when it decides on more than one call.
  explicit CTasks(CLock& lock) noexcept : lock_(lock) {}

  // False when no thread can be started, and after Close. stop: as for CWorker.
  bool Start(Body body, HANDLE stop = nullptr) {
    const CAutoLock lock(lock_);
    if (closed_) {
      Probe<"legacy: a start after the end">();
      return false;
    }
    std::erase_if(tasks_, [](const auto& task) { return task->HasEnded(); });
    auto task = std::make_shared<CWorker>(stop);
    if (!task->StopEvent() || !task->Start([task, body = std::move(body)] {
          body(*task);
          return 0U;
        })) {
      return false;
    }
    tasks_.push_back(std::move(task));
    return true;
  }

  // One is at work that was not asked to end.
  bool IsRunning() const {
    return Any([](const CWorker& task) { return task.IsSet() && !task.IsAsked(); });
  }
  bool IsSet() const {
    return Any([](const CWorker& task) { return task.IsSet(); });
  }

  void Ask() {
    const CAutoLock lock(lock_);
    for (const auto& task : tasks_) task->Ask();
  }
  // Asks, and adds them to `released`, for End.
  void Release(List& released) {
    const CAutoLock lock(lock_);
    for (const auto& task : tasks_) {
      task->Release();
      released.push_back(task);
    }
  }
  // No start succeeds any more.
  void Close() {
    const CAutoLock lock(lock_);
    closed_ = true;
  }
  List Asked() const {
    const CAutoLock lock(lock_);
    List asked;
    for (const auto& task : tasks_) {
      if (task->IsAsked()) asked.push_back(task);
    }
    return asked;
  }

  // Without a lock. Asks again, since a thread may have been on its way into a blocking call, until they are gone or
  // the deadline has passed.
  static void Await(const List& tasks, CDeadline deadline) {
    for (;;) {
      bool gone = true;
      for (const auto& task : tasks) {
        if (task->IsCurrent() || task->HasEnded()) continue;
        task->Ask();
        gone = false;
      }
      if (gone || deadline.HasPassed()) return;
      os::Sleep(1);
    }
  }
  // Without a lock.
  static void End(const List& tasks) {
    const CDeadline deadline = CWorker::Patience();
    Await(tasks, deadline);
    for (const auto& task : tasks) task->End(deadline);
  }

 private:
  template <class Condition>
  bool Any(Condition condition) const {
    const CAutoLock lock(lock_);
    for (const auto& task : tasks_) {
      if (condition(*task)) return true;
    }
    return false;
  }

  CLock& lock_;
  List tasks_ GUARDED_BY(lock_);
  bool closed_ GUARDED_BY(lock_) = false;
};

// What the copies of an object share; it ends what runs when the last of them goes. Threads, and calls in which that
// may happen, share the state alone.
template <class Owner, class State>
struct LastCopy : std::enable_shared_from_this<Owner> {
  explicit LastCopy(std::shared_ptr<State> of = std::make_shared<State>()) : state(std::move(of)) {}
  ~LastCopy() {
    const CNotCutOff whole;
    state->EndForGood();
  }
  LastCopy(const LastCopy&) = delete;
  LastCopy& operator=(const LastCopy&) = delete;

  // For the time of a call.
  Operation<State> Share() const { return Operation<State>(state); }
  // For another copy; of an object that is just going, one that has ended.
  std::shared_ptr<Owner> Copy() {
    const CNotCutOff whole;
    const std::shared_ptr<Owner> alive = this->weak_from_this().lock();
    if (!alive) Probe<"legacy: copied while the last copy goes">();
    return alive ? alive : std::make_shared<Owner>(state);
  }

  const std::shared_ptr<State> state;
};
