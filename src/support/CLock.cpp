#include "support/CLock.h"

CLock::CLock() noexcept : mutex_(os::CreateMutexW(nullptr, FALSE, nullptr)) {}

CLock::~CLock() { os::CloseHandle(mutex_); }

bool CLock::Lock(DWORD milliseconds) noexcept {
  const DWORD result = os::WaitForSingleObject(mutex_, milliseconds);
  return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
}

void CLock::Unlock() noexcept { os::ReleaseMutex(mutex_); }
