#include "support/CLock.h"

#include "support/Deadline.h"
#include "support/Worker.h"

CLock::CLock() noexcept : mutex_(os::CreateMutexW(nullptr, FALSE, nullptr)) {}

CLock::~CLock() {
  if (mutex_) os::CloseHandle(mutex_);
}

bool CLock::Lock(DWORD milliseconds) noexcept {
  CHeldLock::Begin();
  const DWORD result = mutex_ ? os::WaitForSingleObject(mutex_, milliseconds) : WaitForTurn(milliseconds);
  if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) return true;
  CHeldLock::End();
  return false;
}

void CLock::Unlock() noexcept {
  if (mutex_) {
    os::ReleaseMutex(mutex_);
  } else if (--depth_ == 0) {
    owner_ = 0;
  }
  CHeldLock::End();
}

DWORD CLock::WaitForTurn(DWORD milliseconds) noexcept {
  const DWORD me = os::GetCurrentThreadId();
  const CDeadline deadline(milliseconds);
  for (DWORD nobody = 0; owner_ != me && !owner_.compare_exchange_strong(nobody, me); nobody = 0) {
    if (milliseconds != INFINITE && deadline.HasPassed()) return WAIT_TIMEOUT;
    os::Sleep(1);
  }
  ++depth_;
  return WAIT_OBJECT_0;
}
