#include "VoxDevice/KzCheckDoubleClick.h"

#include "VoxDevice/VoxCommon.h"
#include "platform/os.h"
#include "support/LogLine.h"

namespace {

constexpr int kDoubleClickMode = 2;

// Right across the wrap of the tick counter.
int Elapsed(std::uint32_t now, std::uint32_t since) { return static_cast<int>(now - since); }

}  // namespace

KzCheckDoubleClick::KzCheckDoubleClick() noexcept
    : ClickTimes(CPreferences::Instance()->GetVoiceClickTimes()),
      Interval(CPreferences::Instance()->GetDoubleClickTimeInterval_ms()) {}

void KzCheckDoubleClick::Clear() noexcept {
  Result = ClickNone;
  ClearTicks();
}

void KzCheckDoubleClick::ClearTicks() noexcept {
  FirstDown = 0;
  SecondDown = 0;
  FirstUp = 0;
  SecondUp = 0;
}

bool KzCheckDoubleClick::Within(std::uint32_t now, std::uint32_t since) const noexcept {
  return Elapsed(now, since) < Interval;
}

void KzCheckDoubleClick::SetKeyState(VoxButtonState state) noexcept {
  if (ClickTimes == kDoubleClickMode) {
    SetKeyState_double(state);
  } else {
    SetKeyState_single(state);
  }
}

void KzCheckDoubleClick::SetKeyState_single(VoxButtonState state) noexcept {
  if (state == ButtonUp) {
    FirstDown = 0;
  } else if (FirstDown == 0U) {
    FirstDown = os::GetTickCount();
  }
}

void KzCheckDoubleClick::SetKeyState_double(VoxButtonState state) noexcept {
  const std::uint32_t now = os::GetTickCount();
  if (state == ButtonDown) {
    OnDoublePress(now);
  } else {
    OnDoubleRelease(now);
  }
}

void KzCheckDoubleClick::OnDoublePress(std::uint32_t now) noexcept {
  if (FirstDown == 0U) {
    FirstDown = now;
    return;
  }
  if (FirstUp == 0U || SecondDown != 0U) return;
  SecondDown = now;
  if (!Within(now, FirstDown)) {
    // The first click has expired; this press becomes the first one.
    FirstDown = now;
    FirstUp = 0;
    SecondDown = 0;
  }
}

void KzCheckDoubleClick::OnDoubleRelease(std::uint32_t now) noexcept {
  const std::uint32_t first = FirstDown;
  if (first == 0) return;
  if (const std::uint32_t second = SecondDown; second == 0) {
    if (FirstUp == 0U) FirstUp = now;
    if (!Within(now, first)) {
      // Held too long to begin a double click.
      FirstDown = 0;
      FirstUp = 0;
    }
  } else {
    SecondUp = now;
    if (Within(now, first)) {
      const LogLine<64> line(L"语音键双击：0  ", Elapsed(FirstUp, first), L"  ", Elapsed(second, first), L"  ",
                             Elapsed(now, first));
      VoxMessage::Log(line.Text(), LogType_DoubleClick);
      ClearTicks();
      Recognised();
      return;
    }
    // Too slow. The second click becomes the first one, if it is itself quick enough to be one.
    const bool slides = Within(now, second);
    SecondDown = 0;
    SecondUp = 0;
    FirstDown = slides ? second : 0;
    FirstUp = slides ? now : 0;
  }
  Result = ClickNone;
}

void KzCheckDoubleClick::SetDoubleClick() noexcept {
  ClearTicks();
  if (ClickTimes == kDoubleClickMode) {
    Recognised();
  } else {
    Result = ClickNone;
  }
}

void KzCheckDoubleClick::Recognised() noexcept {
  if (CEnvironmentMonitor::CheckNet(false)) {
    VoxMessage::PostMainMenu(OpenNavigation);
    Result = ClickDouble;
  } else {
    Result = ClickDoubleNoNet;
  }
}
