#include "support/CLock.h"

#include "support/Worker.h"

CLock::CLock() noexcept : mutex_(os::CreateMutexW(nullptr, FALSE, nullptr)) {}

CLock::~CLock() { os::CloseHandle(mutex_); }

bool CLock::Lock(DWORD milliseconds) noexcept {
  CHeldLock::Begin();
  const DWORD result = os::WaitForSingleObject(mutex_, milliseconds);
  if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED) return true;
  CHeldLock::End();
  return false;
}

void CLock::Unlock() noexcept {
  os::ReleaseMutex(mutex_);
  CHeldLock::End();
}
