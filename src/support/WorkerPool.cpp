#include "support/WorkerPool.h"

#include <utility>

struct CWorkerPool::Worker {
  CWorkerThread thread;
  std::atomic<bool> taken{true};  // from before its start to the end of its body
  std::function<unsigned(CWorkerThread&)> body;
  Worker* next = nullptr;
};

CWorkerPool::~CWorkerPool() {
  for (Worker* worker = workers_; worker;) delete std::exchange(worker, worker->next);
}

CWorkerThread* CWorkerPool::Start(std::function<unsigned(CWorkerThread&)> body) {
  Worker* worker = nullptr;
  for (Worker* known = workers_; known && !worker; known = known->next) {
    if (known->taken.exchange(true)) continue;
    if (known->thread.IsIdle()) {
      worker = known;
    } else {
      known->taken = false;  // about to end
    }
  }
  if (!worker) {
    worker = new Worker;
    worker->next = workers_;
    while (!workers_.compare_exchange_weak(worker->next, worker)) {
    }
  }
  worker->body = std::move(body);
  if (worker->thread.Start(&CWorkerPool::Run, worker)) return &worker->thread;
  worker->taken = false;
  return nullptr;
}

unsigned CWorkerPool::Run(void* argument) {
  auto* worker = static_cast<Worker*>(argument);
  const unsigned result = worker->thread.Begin() ? worker->body(worker->thread) : 0;
  worker->thread.Clear();
  worker->taken = false;
  return result;
}

bool CWorkerPool::IsRunning() const noexcept {
  for (const Worker* worker = workers_; worker; worker = worker->next) {
    if (worker->taken || !worker->thread.IsIdle()) return true;
  }
  return false;
}

CWorkerThread* CWorkerPool::Current() noexcept {
  for (Worker* worker = workers_; worker; worker = worker->next) {
    if (worker->thread.IsCurrent()) return &worker->thread;
  }
  return nullptr;
}

void CWorkerPool::EndAll() noexcept {
  for (Worker* worker = workers_; worker; worker = worker->next) worker->thread.Terminate();
}
