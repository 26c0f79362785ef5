#include "support/WorkerThread.h"

#include <utility>

#include "support/CUtil.h"

bool CWorkerThread::Start(unsigned (*entry)(void*), void* argument) noexcept {
  if (HANDLE ended = thread_.exchange(nullptr)) os::CloseHandle(ended);
  endRequested_ = false;
  state_ = State::parked;
  unsigned id = 0;
  const auto thread = reinterpret_cast<HANDLE>(os::_beginthreadex(nullptr, 0, entry, argument, CREATE_SUSPENDED, &id));
  if (!thread) return false;
  threadId_ = id;
  thread_ = thread;
  set_ = true;
  os::ResumeThread(thread);
  return true;
}

bool CWorkerThread::IsIdle() const noexcept {
  const HANDLE thread = thread_;
  return !set_ && (!thread || os::WaitForSingleObject(thread, 0) == WAIT_OBJECT_0);
}

bool CWorkerThread::Join(DWORD milliseconds) noexcept {
  const HANDLE thread = thread_;
  if (thread) {
    if (os::WaitForSingleObject(thread, milliseconds) != WAIT_OBJECT_0) return false;
    os::CloseHandle(thread);
  }
  thread_ = nullptr;
  threadId_ = 0;
  set_ = false;
  return true;
}

void CWorkerThread::Terminate(DWORD patience) noexcept {
  if (!thread_) return;
  endRequested_ = true;
  if (IsCurrent()) {
    set_ = false;
    return;
  }
  HANDLE thread = thread_.exchange(nullptr);
  if (!thread) return;
  for (DWORD waited = 0; thread; ++waited) {
    State parked = State::parked;
    if (state_.compare_exchange_strong(parked, State::taken) || waited == patience) {
      CUtil::VoxTerminateThread(thread, 0);
      os::CloseHandle(std::exchange(thread, nullptr));
    } else if (os::WaitForSingleObject(thread, 1) == WAIT_OBJECT_0) {
      os::CloseHandle(thread);
      thread = nullptr;
    }
  }
  threadId_ = 0;
  set_ = false;
}
