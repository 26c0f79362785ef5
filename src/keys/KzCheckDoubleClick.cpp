#include "VoxDevice/KzCheckDoubleClick.h"

#include "VoxDevice/VoxCommon.h"
#include "platform/os.h"
#include "support/LogLine.h"

namespace {

constexpr int kDoubleClickMode = 2;

// Right across the wrap of the tick counter.
int Elapsed(std::uint32_t now, std::uint32_t since) { return static_cast<int>(now - since); }

}  // namespace

struct KzCheckDoubleClick::Steps {
  KzCheckDoubleClick& of;

  void SetKeyState_double(VoxButtonState state) const noexcept;
  void SetKeyState_single(VoxButtonState state) const noexcept;
  void OnDoublePress(std::uint32_t now) const noexcept;
  void OnDoubleRelease(std::uint32_t now) const noexcept;
  void ClearTicks() const noexcept;
  void Recognised() const noexcept;
  bool Within(std::uint32_t now, std::uint32_t since) const noexcept { return Elapsed(now, since) < of.Interval; }
};

KzCheckDoubleClick::KzCheckDoubleClick() noexcept
    : ClickTimes(CPreferences::Instance()->GetVoiceClickTimes()),
      Interval(CPreferences::Instance()->GetDoubleClickTimeInterval_ms()) {}

void KzCheckDoubleClick::Clear() noexcept {
  Result = ClickNone;
  Steps{*this}.ClearTicks();
}

void KzCheckDoubleClick::Steps::ClearTicks() const noexcept {
  of.FirstDown = 0;
  of.SecondDown = 0;
  of.FirstUp = 0;
  of.SecondUp = 0;
}

void KzCheckDoubleClick::SetKeyState(VoxButtonState state) noexcept {
  if (ClickTimes == kDoubleClickMode) {
    Steps{*this}.SetKeyState_double(state);
  } else {
    Steps{*this}.SetKeyState_single(state);
  }
}

void KzCheckDoubleClick::Steps::SetKeyState_single(VoxButtonState state) const noexcept {
  if (state == ButtonUp) {
    of.FirstDown = 0;
  } else if (of.FirstDown == 0U) {
    of.FirstDown = os::GetTickCount();
  }
}

void KzCheckDoubleClick::Steps::SetKeyState_double(VoxButtonState state) const noexcept {
  const std::uint32_t now = os::GetTickCount();
  if (state == ButtonDown) {
    OnDoublePress(now);
  } else {
    OnDoubleRelease(now);
  }
}

void KzCheckDoubleClick::Steps::OnDoublePress(std::uint32_t now) const noexcept {
  if (of.FirstDown == 0U) {
    of.FirstDown = now;
    return;
  }
  if (of.FirstUp == 0U || of.SecondDown != 0U) return;
  of.SecondDown = now;
  if (!Within(now, of.FirstDown)) {
    // The first click has expired; this press becomes the first one.
    of.FirstDown = now;
    of.FirstUp = 0;
    of.SecondDown = 0;
  }
}

void KzCheckDoubleClick::Steps::OnDoubleRelease(std::uint32_t now) const noexcept {
  const std::uint32_t first = of.FirstDown;
  if (first == 0) return;
  if (const std::uint32_t second = of.SecondDown; second == 0) {
    if (of.FirstUp == 0U) of.FirstUp = now;
    if (!Within(now, first)) {
      // Held too long to begin a double click.
      of.FirstDown = 0;
      of.FirstUp = 0;
    }
  } else {
    of.SecondUp = now;
    if (Within(now, first)) {
      const LogLine<64> line(L"语音键双击：0  ", Elapsed(of.FirstUp, first), L"  ", Elapsed(second, first), L"  ",
                             Elapsed(now, first));
      VoxMessage::Log(line.Text(), LogType_DoubleClick);
      ClearTicks();
      Recognised();
      return;
    }
    // Too slow. The second click becomes the first one, if it is itself quick enough to be one.
    const bool slides = Within(now, second);
    of.SecondDown = 0;
    of.SecondUp = 0;
    of.FirstDown = slides ? second : 0;
    of.FirstUp = slides ? now : 0;
  }
  of.Result = ClickNone;
}

void KzCheckDoubleClick::SetDoubleClick() noexcept {
  const Steps steps{*this};
  steps.ClearTicks();
  if (ClickTimes == kDoubleClickMode) {
    steps.Recognised();
  } else {
    Result = ClickNone;
  }
}

void KzCheckDoubleClick::Steps::Recognised() const noexcept {
  if (CEnvironmentMonitor::CheckNet(false)) {
    VoxMessage::PostMainMenu(OpenNavigation);
    of.Result = ClickDouble;
  } else {
    of.Result = ClickDoubleNoNet;
  }
}
