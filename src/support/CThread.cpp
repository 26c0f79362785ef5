#include <algorithm>
#include <memory>
#include <vector>

#include "VoxDevice/Shared.h"
#include "VoxDevice/VoxCommon.h"
#include "support/Memory.h"
#include "support/Operation.h"

struct CThread::Threads {
  struct Thread {
    CWorker worker;
    void* owned = nullptr;  // kept alive by the worker's body
  };

  CLock lock;
  bool closed GUARDED_BY(lock) = false;
  std::vector<std::shared_ptr<Thread>> started GUARDED_BY(lock);
  std::shared_ptr<Thread> latest GUARDED_BY(lock);
  Atomic<unsigned> latestId{0};
};

CThread::CThread() : threads_(MakeWhole<Threads>()) {}
CThread::CThread(const CThread&) : CThread() {}
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is assigned.
CThread& CThread::operator=(const CThread&) { return *this; }
CThread::~CThread() = default;

std::shared_ptr<CWorker> CThread::Start(const std::shared_ptr<Threads>& threads, CThread* object,
                                        std::shared_ptr<void> owned) {
  constexpr DWORD kLookAgain = 10;  // ms
  const auto thread = std::make_shared<Threads::Thread>();
  const HANDLE ready = os::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  if (!ready) return nullptr;
  thread->owned = owned.get();
  bool started = false;
  HadMemory([&] {
    // Once it is in the list, EndThreads waits for it, so that the object is there when it is called.
    const CAutoLock lock(threads->lock);
    std::erase_if(threads->started, [](const auto& known) { return known->worker.HasEnded(); });
    threads->started.reserve(threads->started.size() + 1);
    started = !threads->closed && thread->worker.Start([object, ready, owned = std::move(owned)] {
      MSG message;
      os::PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // makes the queue
      os::SetEvent(ready);
      return static_cast<unsigned>(object->ThreadProc());
    });
    if (started) {
      threads->started.push_back(thread);
      threads->latest = thread;
      threads->latestId = thread->worker.Id();
    }
  });
  // One that is asked to end before it has begun is never ready.
  DWORD result = WAIT_TIMEOUT;
  while (started && result == WAIT_TIMEOUT) {
    const bool ended = thread->worker.HasEnded();
    result = os::WaitForSingleObject(ready, ended ? 0 : kLookAgain);
    if (ended) break;
  }
  os::CloseHandle(ready);
  if (result != WAIT_OBJECT_0) return nullptr;
  return {thread, &thread->worker};
}

bool CThread::StartThread() {
  const CNotCutOff whole;
  const auto threads = threads_;
  bool started = false;
  HadMemory([&] { started = Start(threads, this, nullptr) != nullptr; });
  return started;
}

unsigned CThread::GetThreadID() const noexcept { return Operation(threads_)->latestId; }

bool CThread::SetThreadPriority(int priority) noexcept {
  const Operation threads(threads_);
  const CAutoLock lock(threads->lock);
  return threads->latest && threads->latest->worker.SetPriority(priority);
}

bool CThread::NextMessage(Message& message) {
  MSG next{};
  BOOL got = FALSE;
  CWorker::Blocking([&] { got = os::GetMessageW(&next, nullptr, 0, 0); });
  if (got <= 0 || CWorker::CurrentIsAsked()) return false;
  message = {next.message, next.wParam, next.lParam};
  return true;
}

void* CThread::Owned() const noexcept {
  const CAutoLock lock(threads_->lock);
  const auto mine = std::find_if(threads_->started.begin(), threads_->started.end(),
                                 [](const auto& thread) { return thread->worker.IsCurrent(); });
  return mine != threads_->started.end() ? (*mine)->owned : nullptr;
}

void CThread::EndThreads(unsigned milliseconds) noexcept {
  const CDeadline deadline(milliseconds);
  const Operation threads(threads_);
  std::vector<std::shared_ptr<Threads::Thread>> ending;
  {
    const CAutoLock lock(threads->lock);
    threads->closed = true;
    ending.swap(threads->started);
    for (const auto& thread : ending) thread->worker.Ask();
  }
  for (const auto& thread : ending) thread->worker.End(deadline);
}
