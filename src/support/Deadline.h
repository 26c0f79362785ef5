// A moment of the tick counter, by which something must have happened.
#pragma once

#include "platform/os.h"

// Bounds are counted in milliseconds of the tick counter, never in turns of a loop: with the usual timer of Windows a
// wait of 1 ms takes up to 16.
class CDeadline {
 public:
  explicit CDeadline(DWORD milliseconds) noexcept : at_(os::GetTickCount() + milliseconds) {}

  // Milliseconds that are left; 0 when it has passed. The difference wraps with the counter.
  DWORD Left() const noexcept {
    const auto left = static_cast<std::int32_t>(at_ - os::GetTickCount());
    return left > 0 ? static_cast<DWORD>(left) : 0;
  }
  DWORD Left(DWORD most) const noexcept {
    const DWORD left = Left();
    return left < most ? left : most;
  }
  bool HasPassed() const noexcept { return Left() == 0; }
  // The same, but so many milliseconds earlier.
  CDeadline Before(DWORD milliseconds) const noexcept {
    CDeadline earlier = *this;
    earlier.at_ -= milliseconds;
    return earlier;
  }

 private:
  DWORD at_;
};
