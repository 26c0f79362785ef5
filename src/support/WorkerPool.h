// Threads of one owner that may overlap: each Start gets one of its own.
#pragma once

#include <atomic>
#include <functional>

#include "support/WorkerThread.h"

// Workers stay in an append-only list until the pool goes, and idle ones serve again, so that any thread may look at
// the list at any time.
class CWorkerPool {
 public:
  CWorkerPool() = default;
  // EndAll must have been called when a thread may still run.
  ~CWorkerPool();
  CWorkerPool(const CWorkerPool&) = delete;
  CWorkerPool& operator=(const CWorkerPool&) = delete;

  // Runs `body` on a thread, with the CWorkerThread that it is on. Null when no thread can be started. Any thread.
  CWorkerThread* Start(std::function<unsigned(CWorkerThread&)> body);
  // Whether a thread still runs.
  bool IsRunning() const noexcept;
  // The worker whose thread this is; null on any other thread.
  CWorkerThread* Current() noexcept;
  bool IsCurrent() const noexcept { return const_cast<CWorkerPool*>(this)->Current() != nullptr; }
  // Ends every thread, those that are parked at once.
  void EndAll() noexcept;

 private:
  struct Worker;
  static unsigned Run(void* worker);

  std::atomic<Worker*> workers_{nullptr};
};
