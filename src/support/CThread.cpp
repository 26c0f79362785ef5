#include <memory>

#include "VoxDevice/VoxCommon.h"
#include "support/WorkerPool.h"

CThread::CThread() : threads_(std::make_unique<CWorkerPool>()) {}
CThread::CThread(const CThread&) : CThread() {}
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): nothing is assigned.
CThread& CThread::operator=(const CThread&) { return *this; }
CThread::~CThread() = default;

bool CThread::StartThread() {
  const HANDLE ready = os::CreateEventW(nullptr, FALSE, FALSE, nullptr);
  CWorkerThread* thread = threads_->Start([this, ready](CWorkerThread&) {
    MSG message;
    os::PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE);  // makes the queue
    os::SetEvent(ready);
    return static_cast<unsigned>(ThreadProc());
  });
  if (thread) {
    latest_ = thread;
    os::WaitForSingleObject(ready, INFINITE);
  }
  os::CloseHandle(ready);
  return thread != nullptr;
}

unsigned CThread::GetThreadID() const noexcept { return latest_ ? latest_->Id() : 0; }

bool CThread::SetThreadPriority(int priority) noexcept { return latest_ && latest_->SetPriority(priority); }

bool CThread::NextMessage(Message& message) {
  MSG next{};
  BOOL got = FALSE;
  CWorkerThread* thread = threads_->Current();
  if (!thread || !thread->Park([&] { got = os::GetMessageW(&next, nullptr, 0, 0); }) || got <= 0) return false;
  message = {next.message, next.wParam, next.lParam};
  return true;
}

void CThread::EndThreads() noexcept { threads_->EndAll(); }
