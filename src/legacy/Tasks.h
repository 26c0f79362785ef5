// The threads of the older hardware's objects.
#pragma once

#include <array>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <utility>

#include "VoxDevice/Shared.h"
#include "support/Memory.h"
#include "support/Operation.h"
#include "support/Probe.h"

// Threads of one kind: each start gets one of its own, so that none is lost while an earlier one is about to end.
// Ending them needs no memory.
class CTasks {
  struct Task {
    explicit Task(HANDLE stop) : worker(stop) {}
    CWorker worker;
    std::shared_ptr<Task> before;  // another one of the kind
  };

 public:
  // lock: the owner's, which it also holds when it decides on more than one call.
  explicit CTasks(CLock& lock) noexcept : lock_(lock) {}

  // Runs body(CWorker&) on a new thread. False when none can be started, and after Close. stop: as for CWorker.
  template <class Body>
  bool Start(Body body, HANDLE stop = nullptr) noexcept {
    const CAutoLock lock(lock_);
    if (closed_) {
      Probe<"legacy: a start after the end">();
      return false;
    }
    ForgetEnded();
    std::shared_ptr<Task> task;
    bool started = false;
    HadMemory([&] {
      task = std::make_shared<Task>(stop);
      started = task->worker.StopEvent() && task->worker.Start([task, body = std::move(body)] {
        body(task->worker);
        return 0U;
      });
    });
    if (started) task->before = std::exchange(tasks_, task);
    return started;
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
    for (Task* each = tasks_.get(); each; each = each->before.get()) each->worker.Ask();
  }
  // The same, and they tell the client nothing more.
  void Release() {
    const CAutoLock lock(lock_);
    for (Task* each = tasks_.get(); each; each = each->before.get()) each->worker.Release();
  }
  // No start succeeds any more.
  void Close() {
    const CAutoLock lock(lock_);
    closed_ = true;
  }

  // Those of some kinds, at most four, that are there now. One that starts later is not meant, also when somebody else
  // asks it to end: who asks it waits for it.
  class Present {
   public:
    Present(std::initializer_list<CTasks*> kinds) {
      std::size_t i = 0;
      for (const CTasks* kind : kinds) latest_.at(i++) = {kind, kind->Before(nullptr)};
    }
    // Without a lock. Asks those again that have been asked, since a thread may have been on its way into a blocking
    // call, until they are gone or the deadline has passed.
    void Await(CDeadline deadline) const {
      for (;;) {
        bool gone = true;
        ForEachAsked([&](CWorker& task) {
          if (task.IsCurrent() || task.HasEnded()) return;
          task.Ask();
          gone = false;
        });
        if (gone || deadline.HasPassed()) return;
        os::Sleep(1);
      }
    }
    // Without a lock.
    void End() const {
      const CDeadline deadline = CWorker::Patience();
      Await(deadline);
      ForEachAsked([&](CWorker& task) { task.End(deadline); });
    }

   private:
    // One that is taken out meanwhile still leads to those before it.
    template <class Visit>
    void ForEachAsked(Visit visit) const {
      for (const auto& [kind, latest] : latest_) {
        for (auto each = latest; each; each = kind->Before(each.get())) {
          if (each->worker.IsAsked()) visit(each->worker);
        }
      }
    }

    std::array<std::pair<const CTasks*, std::shared_ptr<Task>>, 4> latest_;
  };

 private:
  template <class Condition>
  bool Any(Condition condition) const {
    const CAutoLock lock(lock_);
    for (const Task* each = tasks_.get(); each; each = each->before.get()) {
      if (condition(each->worker)) return true;
    }
    return false;
  }
  std::shared_ptr<Task> Before(const Task* task) const {
    const CAutoLock lock(lock_);
    return task ? task->before : tasks_;
  }
  void ForgetEnded() REQUIRES(lock_) {
    for (std::shared_ptr<Task>* each = &tasks_; *each;) {
      if ((*each)->worker.HasEnded()) {
        *each = std::shared_ptr<Task>((*each)->before);
      } else {
        each = &(*each)->before;
      }
    }
  }

  CLock& lock_;
  std::shared_ptr<Task> tasks_ GUARDED_BY(lock_);  // the latest
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
