// Which reports of a device's speech come late or not at all: they carry no numbers, but are sent at an even pace.
#pragma once

#include <array>
#include <cstdint>

#include "platform/os.h"

class CSpeechPace {
 public:
  // The device begins to speak anew. How many reports are missing at the end of what it has said.
  int Restart() noexcept;

  struct Found {
    int late = 0;     // reports before this one
    int missing = 0;  // about a second ago
  };
  // tick: GetTickCount when the report was read. duration: ms of speech in it.
  Found Take(DWORD tick, int duration) noexcept;

 private:
  static constexpr int kWindow = 64;  // reports: about a second
  int FindLate() noexcept;
  int Evaluate() noexcept;

  bool began_ = false;
  DWORD lastTick_ = 0;
  int duration_ = 0;
  // By how many ms a report is behind the first one's pace. What delays reports (the radio, a busy callback, the coarse
  // clock) delays some of them; what stays behind is missing. So the least of a window counts.
  std::int64_t behind_ = 0;
  std::int64_t least_ = 0;  // of this window
  int inWindow_ = 0;
  std::array<std::int64_t, kWindow> recent_{};  // of reports that are not known to be late
  int recentCount_ = 0;
  bool hasFloor_ = false;
  std::int64_t floor_ = 0;  // of the windows before
};
