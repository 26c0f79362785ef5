// Recognises a double click of the voice key.
#pragma once

#include <cstdint>

#include "VoxDevice/Api.h"
#include "VoxDevice/Shared.h"
#include "VoxDevice/types.h"

// Fed with the presses and releases (or, as often as one likes, the level) of one key. In double-click mode it logs a
// double click and posts OpenNavigation when the network is reachable. Copies as plain data.
class VOXDEVICE_API KzCheckDoubleClick {
 public:
  // Takes the click count and the window from the preferences, once.
  KzCheckDoubleClick() noexcept;

  // Forgets all edges and the outcome; keeps the click count and the window.
  void Clear() noexcept;
  // One press or release. Calling thread: the owner's key thread, one at a time.
  void SetKeyState(VoxButtonState state) noexcept;
  // The device itself has recognised a double click.
  void SetDoubleClick() noexcept;
  // The outcome, kept until the next ordinary release. Any thread.
  VoxClickMode GetClickMode() const noexcept { return Result; }

 private:
  struct Steps;  // a class of its own, since all functions of this one are exported

  Shared<int> ClickTimes;  // 2: double-click mode
  Shared<int> Interval;    // milliseconds: first press to second release must take less
  Shared<VoxClickMode> Result{ClickNone};
  // GetTickCount milliseconds of the edges; 0: not seen.
  Shared<std::uint32_t> FirstDown{0};
  Shared<std::uint32_t> SecondDown{0};
  Shared<std::uint32_t> FirstUp{0};
  Shared<std::uint32_t> SecondUp{0};
};
