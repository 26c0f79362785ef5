#include "sim/Kernel.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace sim {
namespace {

std::atomic<std::uint64_t> kernels{0};

// The simulated thread that an operating-system thread stands for, in the machine of that generation.
struct Standing {
  std::uint64_t generation = 0;
  Thread* thread = nullptr;
};
thread_local Standing standing;

constexpr Time kTermination{100};                          // until a thread that is ended by force has ended
constexpr Time kLongestRun = std::chrono::hours(24 * 60);  // one that has simulated this long has lost its way

}  // namespace

void Event::set(Kernel& kernel) {
  set_ = true;
  kernel.changed(*this);
}

Mutex::~Mutex() {
  if (owner_) std::erase(owner_->owned, this);
}

void Mutex::acquired(Thread& by) {
  owner_ = &by;
  if (depth_++ == 0) by.owned.push_back(this);
}

bool Mutex::release(Kernel& kernel, const Thread& by) {
  if (owner_ != &by) return false;
  if (--depth_ == 0) {
    std::erase(owner_->owned, this);
    owner_ = nullptr;
    kernel.changed(*this);
  }
  return true;
}

Kernel::Kernel(Clock clock, std::uint64_t seed, const ScheduleOptions& schedule, DWORD firstTick, Time timerPeriod)
    : clock_(clock),
      explores_((seed != 0 || schedule.given) && clock == Clock::virtualTime),
      firstTick_(firstTick),
      timerPeriod_(timerPeriod),
      generation_(++kernels),
      random_(seed),
      chooser_(seed, schedule) {
  main_ = std::make_shared<Thread>();
  main_->id = nextThreadId_;
  main_->foreign = true;
  main_->state = Thread::State::running;
  threads_.push_back(main_);
  standing = {generation_, main_.get()};
  current_ = main_.get();
  if (virtualTime()) {
    main_->fiber = std::make_unique<Fiber>();
  } else {
    timeline_ = std::thread([this] { runTimeline(); });
  }
}

Kernel::~Kernel() { switchOff(); }

void Kernel::switchOff() {
  {
    const Inside inside;
    for (const auto& thread : std::list(threads_)) {
      if (!thread->foreign && thread->state != Thread::State::ended) terminate(*thread);
    }
    timelineStops_ = true;
    timelineWake_.notify_all();
  }
  if (timeline_.joinable()) timeline_.join();
  for (const auto& thread : threads_) {
    if (thread->osThread.joinable()) thread->osThread.join();
  }
}

Time Kernel::now() const {
  if (virtualTime()) return virtualNow_;
  return std::chrono::duration_cast<Time>(std::chrono::steady_clock::now() - started_);
}

void Kernel::enter() {
  gate.lock();
  Thread& me = self();
  if (me.killed) endSelf(me);
  mayBeOvertaken();
}

void Kernel::mayBeOvertaken(int weight) {
  if (!explores_) return;
  Thread& me = *current_;
  if ((ready_.empty() && due() == 0) || !chooser_.interrupts(me, weight)) return chooser_.pass(me);
  me.state = Thread::State::ready;
  ready_.insert(ready_.begin(), &me);
  switchAway(me, true);
}

void Kernel::atSharedField() {
  if (!explores_) return;
  if (!gate.tryLock()) return;
  mayBeOvertaken(1);
  gate.unlock();
}

Thread& Kernel::self() {
  if (virtualTime()) return *current_;
  if (standing.generation != generation_) {
    auto thread = std::make_shared<Thread>();
    thread->id = nextThreadId_ += 4;
    thread->foreign = true;
    thread->state = Thread::State::running;
    threads_.push_back(thread);
    standing = {generation_, thread.get()};
  }
  return *standing.thread;
}

std::shared_ptr<Thread> Kernel::createThread(std::function<void()> entry, bool suspended) {
  reap();
  auto thread = std::make_shared<Thread>();
  thread->id = nextThreadId_ += 4;
  thread->entry = std::move(entry);
  threads_.push_back(thread);
  if (!suspended) resume(*thread);
  return thread;
}

void Kernel::resume(Thread& thread) {
  if (thread.state != Thread::State::suspended) return;
  ready(thread);
  if (!virtualTime()) thread.osThread = std::thread([this, &thread] { osThreadMain(thread); });
}

void Kernel::terminate(Thread& thread) {
  if (thread.state == Thread::State::ended) return;
  if (!virtualTime() && thread.state != Thread::State::suspended) return kill(thread);
  cancelWait(thread);
  std::erase(ready_, &thread);
  finish(thread);
}

void Kernel::terminateSoon(std::shared_ptr<Thread> thread) {
  if (thread.get() == &self()) endSelf(*thread);
  if (thread->state == Thread::State::suspended) return terminate(*thread);
  after(kTermination, [this, thread]() REQUIRES(gate) { kill(*thread); });
}

void Kernel::kill(Thread& thread) {
  thread.killed = true;
  if (thread.state == Thread::State::waiting) wakeUp(thread, kTimeOut);
}

int Kernel::waitAny(std::span<Object* const> objects, std::optional<Time> limit) {
  ++waits_;
  Thread& me = self();
  for (std::size_t i = 0; i < objects.size(); ++i) {
    if (objects[i]->signalled(me)) {
      objects[i]->acquired(me);
      return static_cast<int>(i);
    }
  }
  if (limit && limit->count() <= 0 && !(objects.empty() && virtualTime())) return kTimeOut;
  me.waitsFor.assign(objects.begin(), objects.end());
  for (Object* object : objects) object->waiters_.push_back(&me);
  std::optional<Time> until;
  if (limit) {
    until = now() + *limit;
    if (timerPeriod_.count() > 0 && limit->count() > 0) {
      until = Time((until->count() + timerPeriod_.count() - 1) / timerPeriod_.count() * timerPeriod_.count());
    }
  }
  suspendSelf(me, until);
  if (me.killed) endSelf(me);
  return me.wokenBy;
}

int Kernel::waitCancellable(std::span<Object* const> objects, std::optional<Time> limit) {
  Thread& me = self();
  me.inCall = true;
  const int by = waitAny(objects, limit);
  me.inCall = false;
  return by;
}

bool Kernel::cancel(Thread& thread) {
  if (!thread.inCall || thread.state != Thread::State::waiting) return false;
  wakeUp(thread, kCancelled);
  return true;
}

Thread& Kernel::own() {
  if (virtualTime()) return *current_;
  if (standing.generation == generation_) return *standing.thread;
  const Inside inside;
  return self();
}

void Kernel::suspendSelf(Thread& me, std::optional<Time> until) {
  me.state = Thread::State::waiting;
  if (virtualTime()) {
    if (until) me.timer = addTimer(*until, {.thread = &me, .action = {}});
    switchAway(me);
    return;
  }
  while (me.state == Thread::State::waiting && (!until || now() < *until)) {
    gate.wait(me.wake, until ? std::optional(started_ + *until) : std::nullopt);
  }
  if (me.state == Thread::State::waiting) {
    cancelWait(me);
    me.wokenBy = kTimeOut;
  }
  me.state = Thread::State::running;
}

void Kernel::changed(Object& object) {
  for (bool again = true; again;) {
    again = false;
    for (Thread* waiter : object.waiters_) {
      if (!object.signalled(*waiter)) continue;
      object.acquired(*waiter);
      const auto which = std::find(waiter->waitsFor.begin(), waiter->waitsFor.end(), &object);
      wakeUp(*waiter, static_cast<int>(which - waiter->waitsFor.begin()));
      again = true;  // the list of waiters has changed
      break;
    }
  }
}

void Kernel::wakeUp(Thread& thread, int by) {
  cancelWait(thread);
  thread.wokenBy = by;
  ready(thread);
}

void Kernel::cancelWait(Thread& thread) {
  for (Object* object : thread.waitsFor) std::erase(object->waiters_, &thread);
  thread.waitsFor.clear();
  if (thread.timer) timers_.erase(*std::exchange(thread.timer, std::nullopt));
}

void Kernel::ready(Thread& thread) {
  thread.state = Thread::State::ready;
  if (virtualTime()) {
    ready_.push_back(&thread);
    chooser_.becameReady();
  } else {
    thread.wake.notify_all();
  }
}

Kernel::TimerKey Kernel::addTimer(Time at, Timer timer) {
  const TimerKey key{at, ++sequence_};
  timers_.emplace(key, std::move(timer));
  return key;
}

void Kernel::after(Time delay, Action action) {
  addTimer(now() + std::max(delay, Time{0}), {.thread = nullptr, .action = std::move(action)});
  if (!virtualTime()) timelineWake_.notify_all();
}

// How many timers are due: one stands for all when nothing is explored.
std::size_t Kernel::due() const {
  constexpr std::size_t kMost = 4;
  std::size_t count = 0;
  for (auto it = timers_.begin(); it != timers_.end() && it->first.first <= virtualNow_ && count < kMost; ++it) {
    ++count;
    if (!explores_) break;
  }
  return count;
}

void Kernel::fire(std::size_t which) {
  auto timer = timers_.extract(std::next(timers_.begin(), static_cast<std::ptrdiff_t>(which)));
  if (Thread* thread = timer.mapped().thread) {
    thread->timer.reset();
    wakeUp(*thread, kTimeOut);
  } else {
    firing_ = true;
    timer.mapped().action();
    firing_ = false;
  }
}

Thread& Kernel::nextThread(Thread& me, bool goesOn) {
  for (;;) {
    const std::size_t timers = due();
    if (timers + ready_.size() == 0) {
      if (timers_.empty()) stuck("every thread waits without a limit");
      virtualNow_ = timers_.begin()->first.first;
      if (virtualNow_ > kLongestRun) stuck("the simulated time has no end");
      continue;
    }
    // Whoever came to a point of its own goes on; otherwise what is due comes first.
    const std::size_t inOrder = goesOn ? timers : 0;
    const bool several = explores_ && timers + ready_.size() > 1;
    const std::size_t which = several ? chooser_.choose(me, inOrder, timers, ready_) : inOrder;
    if (which < timers) {
      fire(which);
      continue;
    }
    const auto next = ready_.begin() + static_cast<std::ptrdiff_t>(which - timers);
    Thread& thread = **next;
    ready_.erase(next);
    return thread;
  }
}

// The caller has put itself on a list, or has ended; the lock goes along to the next thread and comes back with it.
void Kernel::switchAway(Thread& me, bool goesOn) {
  Thread& next = nextThread(me, goesOn);
  next.state = Thread::State::running;
  if (&next == &me) return;
  current_ = &next;
  if (!next.fiber) {
    auto* start = new std::pair<Kernel*, Thread*>(this, &next);
    next.fiber = std::make_unique<Fiber>(
        [](void* argument) REQUIRES(gate) {
          auto* pair = static_cast<std::pair<Kernel*, Thread*>*>(argument);
          const auto [kernel, thread] = *pair;
          delete pair;
          kernel->fiberMain(*thread);
        },
        start);
  }
  Fiber* mine = me.fiber.get();
  const bool ends = me.state == Thread::State::ended;
  if (ends) ended_.push_back(std::move(me.fiber));
  Fiber::switchTo(*mine, *next.fiber, ends);
  ended_.clear();
}

void Kernel::fiberMain(Thread& me) {
  ended_.clear();
  gate.unlock();
  me.entry();
  gate.lock();
  endSelf(me);
}

void Kernel::osThreadMain(Thread& me) {
  standing = {generation_, &me};
  {
    const Inside inside;
    me.state = Thread::State::running;
  }
  // A forced end jumps back here from inside a call of the seam, with the mutex held; the frames in between are
  // abandoned, as on the real system.
  if (setjmp(me.end) == 0) {
    { const Inside inside(*this); }
    me.entry();
    gate.lock();
  }
  finish(me);
  gate.unlock();
}

void Kernel::endSelf(Thread& me) {
  if (me.foreign) std::abort();  // a program cannot be ended from inside the machine
  if (!virtualTime()) std::longjmp(me.end, 1);
  finish(me);
  switchAway(me);
  std::abort();
}

void Kernel::finish(Thread& thread) {
  thread.state = Thread::State::ended;
  thread.used.clear();
  thread.goWithIt.clear();
  for (Mutex* mutex : std::exchange(thread.owned, {})) {
    mutex->owner_ = nullptr;
    mutex->depth_ = 0;
    mutex->abandoned_ = true;
    changed(*mutex);
  }
  changed(thread);
  if (virtualTime() && &thread != current_) thread.fiber.reset();
}

void Kernel::runTimeline() {
  const Inside inside;
  while (!timelineStops_) {
    if (timers_.empty()) {
      gate.wait(timelineWake_, std::nullopt);
    } else if (const Time at = timers_.begin()->first.first; at > now()) {
      gate.wait(timelineWake_, started_ + at);
    } else {
      auto first = timers_.extract(timers_.begin());
      first.mapped().action();
    }
  }
}

void Kernel::reap() {
  for (auto it = threads_.begin(); it != threads_.end();) {
    Thread& thread = **it;
    if (thread.state != Thread::State::ended || it->use_count() > 1 || &thread == current_) {
      ++it;
      continue;
    }
    if (thread.osThread.joinable()) thread.osThread.join();  // it needs no lock any more, only to return
    it = threads_.erase(it);
  }
}

void WaitableTimer::set(Kernel& kernel, Time due, Time period) {
  set_ = false;
  kernel.after(due, [weak = weak_from_this(), &kernel, period, mine = ++generation_]() REQUIRES(gate) {
    const auto self = weak.lock();
    if (!self || self->generation_ != mine) return;
    self->set_ = true;
    kernel.changed(*self);
    if (period.count() == 0) return;
    const bool stillSet = self->set_;
    self->set(kernel, period, period);
    self->set_ = stillSet;
  });
}

bool Kernel::post(DWORD threadId, const MSG& message) {
  for (const auto& thread : threads_) {
    if (thread->id != threadId || !thread->messages || thread->state == Thread::State::ended) continue;
    thread->messages->messages.push_back(message);
    changed(*thread->messages);
    return true;
  }
  return false;
}

HANDLE Kernel::open(std::shared_ptr<Object> object) {
  const std::uintptr_t value = nextHandle_ += 4;
  handles_.emplace(value, std::move(object));
  return reinterpret_cast<HANDLE>(value);
}

bool Kernel::close(HANDLE handle) {
  const auto it = handles_.find(reinterpret_cast<std::uintptr_t>(handle));
  if (it == handles_.end()) {
    misused("CloseHandle: not an open handle");
    return false;
  }
  const auto object = it->second;
  handles_.erase(it);
  object->handleClosed(*this);
  return true;
}

std::shared_ptr<Object> Kernel::find(HANDLE handle) const {
  const auto it = handles_.find(reinterpret_cast<std::uintptr_t>(handle));
  return it == handles_.end() ? nullptr : it->second;
}

bool Kernel::use(std::span<const HANDLE> handles, std::span<Object*> objects) {
  auto& used = self().used;
  used.clear();
  for (std::size_t i = 0; i < handles.size(); ++i) {
    used.push_back(find(handles[i]));
    objects[i] = used.back().get();
    if (!objects[i]) return false;
  }
  return true;
}

std::size_t Kernel::runningThreads() const {
  return static_cast<std::size_t>(std::count_if(threads_.begin(), threads_.end(), [](const auto& thread) {
    return !thread->foreign && thread->state != Thread::State::ended;
  }));
}

std::string Kernel::waiting() const {
  std::string text;
  for (const auto& thread : threads_) {
    if (thread->state != Thread::State::waiting) continue;
    text += "  thread " + std::to_string(thread->id) + " waits for";
    for (const Object* object : thread->waitsFor) text += std::string(" ") + object->kind();
    text += thread->waitsFor.empty() ? " time\n" : "\n";
  }
  return text;
}

void Kernel::stuck(const char* why) {
  std::fprintf(stderr, "sim: the machine is stuck at %lld ms: %s\n%s", static_cast<long long>(now().count() / 1000),
               why, waiting().c_str());
  std::abort();
}

}  // namespace sim
