// The heart of the simulated machine: its clock, its threads and what they wait for.
//
// With the virtual clock every simulated thread is a fiber on one operating-system thread: exactly one runs at a time,
// it runs until it waits, and when all of them wait, time jumps to the next deadline. With the real clock every
// simulated thread is an operating-system thread and they run freely.
//
// One lock, the gate, guards everything here and everything that hangs on it (handles, buses, devices). It is held by
// whoever is inside the machine, never while code above the seam runs.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <csetjmp>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/audio_types.h"
#include "platform/types.h"
#include "sim/Fiber.h"
#include "sim/Schedule.h"
#include "support/ThreadSafety.h"

namespace sim {

using Time = std::chrono::microseconds;  // since the machine was switched on

enum class Clock { virtualTime, realTime };

class Kernel;
class Mutex;
class Thread;

// For all machines of the process, so that the compiler can follow it; at any time there is one that is used.
class CAPABILITY("machine") Gate {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  bool tryLock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  // Waits with the lock given away, until somebody notifies or `until`.
  void wait(std::condition_variable& wake, std::optional<std::chrono::steady_clock::time_point> until) REQUIRES(this) {
    std::unique_lock lock(mutex_, std::adopt_lock);
    until ? static_cast<void>(wake.wait_until(lock, *until)) : wake.wait(lock);
    lock.release();
  }

 private:
  std::mutex mutex_;
};
inline Gate gate;

// Something a thread can wait for.
class Object {
 public:
  Object() = default;
  virtual ~Object() = default;
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  virtual bool signalled(const Thread& by) const = 0;
  virtual void acquired(Thread&) {}  // `by` has been let through
  virtual void handleClosed(Kernel&) REQUIRES(gate) {}
  virtual const char* kind() const = 0;

 private:
  friend class Kernel;
  std::vector<Thread*> waiters_;  // first come, first served
};

class Event final : public Object {
 public:
  Event(bool manualReset, bool set) : set_(set), manualReset_(manualReset) {}
  bool signalled(const Thread&) const override { return set_; }
  void acquired(Thread&) override { set_ = set_ && manualReset_; }
  const char* kind() const override { return "event"; }
  void set(Kernel& kernel) REQUIRES(gate);
  void reset() { set_ = false; }

 private:
  bool set_;
  const bool manualReset_;
};

class Mutex final : public Object {
 public:
  Mutex() = default;
  ~Mutex() override;
  bool signalled(const Thread& by) const override { return owner_ == nullptr || owner_ == &by; }
  void acquired(Thread& by) override;
  const char* kind() const override { return "mutex"; }
  bool release(Kernel& kernel, const Thread& by) REQUIRES(gate);
  // True once for the taker that found the mutex without its owner.
  bool takeAbandoned() { return std::exchange(abandoned_, false); }

 private:
  friend class Kernel;
  Thread* owner_ = nullptr;
  int depth_ = 0;
  bool abandoned_ = false;
};

class WaitableTimer final : public Object, public std::enable_shared_from_this<WaitableTimer> {
 public:
  bool signalled(const Thread&) const override { return set_; }
  void acquired(Thread&) override { set_ = false; }
  const char* kind() const override { return "timer"; }
  void handleClosed(Kernel&) override { cancel(); }
  // period zero: once.
  void set(Kernel& kernel, Time due, Time period) REQUIRES(gate);
  void cancel() { ++generation_; }

 private:
  bool set_ = false;
  unsigned generation_ = 0;
};

// The messages of one thread.
class MessageQueue final : public Object {
 public:
  bool signalled(const Thread&) const override { return !messages.empty(); }
  const char* kind() const override { return "message"; }
  std::deque<MSG> messages;
};

class Thread final : public Object {
 public:
  enum class State { suspended, ready, running, waiting, ended };
  bool signalled(const Thread&) const override { return state == State::ended; }
  const char* kind() const override { return "thread"; }

  DWORD id = 0;
  std::function<void()> entry;
  State state = State::suspended;
  int priority = 0;
  DWORD lastError = 0;
  std::shared_ptr<MessageQueue> messages;  // from the thread's first look at them on
  std::array<void*, 8> locals{};           // by the index that TlsAlloc gives
  Turns turns;
  int othersCode = 1;                             // 0: it runs the library's own; see Memory.h
  int apartments = 0;                             // CoInitialize that has not been balanced
  bool comByOthers = false;                       // somebody else has initialised COM for it, and otherwise
  std::vector<std::shared_ptr<Object>> goWithIt;  // what the system takes back when it ends

 private:
  friend class Kernel;
  friend class Mutex;
  bool killed = false;
  bool inCall = false;   // waits in a call that can be cancelled
  bool foreign = false;  // not started by the machine: the test's or the program's own
  int wokenBy = 0;       // index of the object that woke it, kTimeOut or kCancelled
  std::vector<Object*> waitsFor;
  std::optional<std::pair<Time, std::uint64_t>> timer;
  std::vector<Mutex*> owned;
  std::vector<std::shared_ptr<Object>> used;  // see Kernel::use
  std::unique_ptr<Fiber> fiber;               // virtual clock
  std::thread osThread;                       // real clock
  std::condition_variable wake;
  std::jmp_buf end;
};

class Kernel {
 public:
  using Action = std::function<void()>;

  // What a wait ends with when no object has ended it.
  static constexpr int kTimeOut = -1;
  static constexpr int kCancelled = -2;

  // seed 0: threads take turns in the order in which they became ready, and what is due at one moment happens before
  // any of them goes on; any other seed explores schedules (virtual clock only).
  // timerPeriod: waits with a limit end at its multiples only, as with the timer of a real system; zero: to the moment.
  Kernel(Clock clock, std::uint64_t seed, const ScheduleOptions& schedule, DWORD firstTick, Time timerPeriod);
  ~Kernel();
  Kernel(const Kernel&) = delete;
  Kernel& operator=(const Kernel&) = delete;

  // Enters the machine from a thread above the seam: a forced end takes effect here, and here another thread may go
  // first.
  void enter() ACQUIRE(gate);
  // A call has let other threads run on: here, too, one of them may go first.
  void mayBeOvertaken(int weight = 4) REQUIRES(gate);
  // The running thread looks at, or changes, a field that it shares with others; needs no lock.
  void atSharedField();
  Time now() const REQUIRES(gate);
  DWORD tick() const REQUIRES(gate) { return firstTick_ + static_cast<DWORD>(now().count() / 1000); }

  // The thread that runs, with the virtual clock; needs no lock.
  Thread* runningFiber() noexcept NO_THREAD_SAFETY_ANALYSIS { return virtualTime() ? current_ : nullptr; }

  // The calling thread, for what only itself looks at; needs no lock.
  Thread& own() NO_THREAD_SAFETY_ANALYSIS;

  // ---- With the lock held ----
  Thread& self() REQUIRES(gate);
  // The id of the thread that acts; 0 while what was due happens by itself.
  DWORD acting() REQUIRES(gate) { return firing_ ? 0 : self().id; }
  std::shared_ptr<Thread> createThread(std::function<void()> entry, bool suspended) REQUIRES(gate);
  void resume(Thread& thread) REQUIRES(gate);
  // Ends a thread where it is, or, with the real clock, as `terminateSoon` does.
  void terminate(Thread& thread) REQUIRES(gate);
  // Ends a thread after a moment, at the call in which it waits, or at its next one. Ends the caller at once.
  void terminateSoon(std::shared_ptr<Thread> thread) REQUIRES(gate);

  // Waits for the first of `objects` that is signalled, at most `limit` (none: for ever). Returns its index, or
  // kTimeOut.
  int waitAny(std::span<Object* const> objects, std::optional<Time> limit) REQUIRES(gate);
  // The same, in a call that another thread may cancel: then kCancelled.
  int waitCancellable(std::span<Object* const> objects, std::optional<Time> limit) REQUIRES(gate);
  // False when the thread is in no such call.
  bool cancel(Thread& thread) REQUIRES(gate);
  void sleep(Time time) REQUIRES(gate) { waitAny({}, time); }
  // Lets through the waiters that `object` can satisfy now.
  void changed(Object& object) REQUIRES(gate);
  // Runs `action`, with the lock held, when `delay` has passed.
  void after(Time delay, Action action) REQUIRES(gate);
  // A number from the machine's own sequence.
  std::uint64_t random() REQUIRES(gate) { return random_(); }

  // Posts a message to a thread; false, and the message is lost, when that has no queue.
  bool post(DWORD threadId, const MSG& message) REQUIRES(gate);

  HANDLE open(std::shared_ptr<Object> object) REQUIRES(gate);
  bool close(HANDLE handle) REQUIRES(gate);
  std::shared_ptr<Object> find(HANDLE handle) const REQUIRES(gate);
  template <class T>
  std::shared_ptr<T> find(HANDLE handle) const REQUIRES(gate) {
    return std::dynamic_pointer_cast<T>(find(handle));
  }

  // What a call that may wait works on. The thread, not the call, keeps it alive: a thread that is ended by force loses
  // the frames of its call without unwinding them.
  template <class T>
  T* use(HANDLE handle) REQUIRES(gate) {
    auto& used = self().used;
    used.assign(1, find(handle));
    return dynamic_cast<T*>(used.front().get());
  }
  // The same for several, into `objects`; false when a handle is closed.
  bool use(std::span<const HANDLE> handles, std::span<Object*> objects) REQUIRES(gate);
  // Something else that the call waits for.
  void keep(std::shared_ptr<Object> object) REQUIRES(gate) { self().used.push_back(std::move(object)); }

  std::size_t openHandles() const REQUIRES(gate) { return handles_.size(); }
  std::size_t runningThreads() const REQUIRES(gate);  // those that the machine started
  std::string waiting() const REQUIRES(gate);         // which threads wait for what, a line each
  std::uint64_t forcedEnds() const REQUIRES(gate) { return forcedEnds_; }
  void countForcedEnd() REQUIRES(gate) { ++forcedEnds_; }
  std::uint64_t waits() const REQUIRES(gate) { return waits_; }
  // Rules of calls that callers have broken, the first of them, as "IAudioClient::Start: already started".
  const std::vector<std::string>& misuses() const REQUIRES(gate) { return misuses_; }
  void misused(const std::string& what) REQUIRES(gate) {
    if (misuses_.size() < kMisusesKept) misuses_.push_back(what);
  }

  // Ends every simulated thread by force (the machine is being switched off).
  void switchOff() NO_THREAD_SAFETY_ANALYSIS;  // afterwards nobody else is left

 private:
  using TimerKey = std::pair<Time, std::uint64_t>;
  struct Timer {
    Thread* thread = nullptr;
    Action action;
  };

  TimerKey addTimer(Time at, Timer timer) REQUIRES(gate);
  void ready(Thread& thread) REQUIRES(gate);
  void wakeUp(Thread& thread, int by) REQUIRES(gate);
  void cancelWait(Thread& thread) REQUIRES(gate);
  void kill(Thread& thread) REQUIRES(gate);
  void suspendSelf(Thread& me, std::optional<Time> until) REQUIRES(gate);
  // goesOn: in order, `me` does, which is the first of those that are ready.
  void switchAway(Thread& me, bool goesOn = false) REQUIRES(gate);
  std::size_t due() const REQUIRES(gate);
  void fire(std::size_t which) REQUIRES(gate);
  Thread& nextThread(Thread& me, bool goesOn) REQUIRES(gate);
  void finish(Thread& thread) REQUIRES(gate);
  [[noreturn]] void endSelf(Thread& me) REQUIRES(gate);
  [[noreturn]] void stuck(const char* why) REQUIRES(gate);
  void fiberMain(Thread& me) REQUIRES(gate);
  void osThreadMain(Thread& me) NO_THREAD_SAFETY_ANALYSIS;  // it may come back by a jump
  void runTimeline();
  void reap() REQUIRES(gate);
  bool virtualTime() const { return clock_ == Clock::virtualTime; }

  const Clock clock_;
  const bool explores_;
  const DWORD firstTick_;
  const Time timerPeriod_;
  const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
  const std::uint64_t generation_;
  std::mt19937_64 random_ GUARDED_BY(gate);
  Chooser chooser_ GUARDED_BY(gate);
  std::uint64_t sequence_ GUARDED_BY(gate) = 0;
  std::uint64_t waits_ GUARDED_BY(gate) = 0;
  static constexpr std::size_t kMisusesKept = 100;
  std::vector<std::string> misuses_ GUARDED_BY(gate);
  std::uint64_t forcedEnds_ GUARDED_BY(gate) = 0;
  std::map<TimerKey, Timer> timers_ GUARDED_BY(gate);
  std::list<std::shared_ptr<Thread>> threads_ GUARDED_BY(gate);
  std::shared_ptr<Thread> main_ GUARDED_BY(gate);
  DWORD nextThreadId_ GUARDED_BY(gate) = 4;
  std::unordered_map<std::uintptr_t, std::shared_ptr<Object>> handles_ GUARDED_BY(gate);
  std::uintptr_t nextHandle_ GUARDED_BY(gate) = 0x100;

  // Virtual clock.
  Time virtualNow_ GUARDED_BY(gate){0};
  bool firing_ GUARDED_BY(gate) = false;
  Thread* current_ GUARDED_BY(gate) = nullptr;
  std::vector<Thread*> ready_ GUARDED_BY(gate);
  std::vector<std::unique_ptr<Fiber>> ended_ GUARDED_BY(gate);  // stacks of ended threads, freed by whoever runs next

  // Real clock.
  std::thread timeline_;
  std::condition_variable timelineWake_;
  bool timelineStops_ GUARDED_BY(gate) = false;
};

// Inside the machine from here to the end of the scope.
class SCOPED_CAPABILITY Inside {
 public:
  // As a thread above the seam.
  explicit Inside(Kernel& kernel) ACQUIRE(gate) { kernel.enter(); }
  // From outside the simulated threads' rules (a test that looks at a count).
  Inside() ACQUIRE(gate) { gate.lock(); }
  ~Inside() RELEASE() { gate.unlock(); }
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
};

}  // namespace sim
