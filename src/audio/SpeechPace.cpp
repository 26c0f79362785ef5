#include "audio/SpeechPace.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int kLeastWindow = 8;  // the first and the last one; fewer tell nothing
constexpr int kLate = 50;        // ms; three steps of the system's clock
// What a window must stay behind: more than the clock's step of 16 ms at either end.
constexpr int kMissing = 40;  // ms
// By which a device's clock may be slower than the system's: ms in a window, 1000 ppm.
constexpr int kDrift = 1;

}  // namespace

int CSpeechPace::Restart() noexcept {
  const int missing = inWindow_ >= kLeastWindow ? Evaluate() : 0;
  *this = {};
  return missing;
}

CSpeechPace::Found CSpeechPace::Take(DWORD tick, int duration) noexcept {
  if (std::exchange(began_, true)) behind_ += static_cast<std::int64_t>(tick - lastTick_) - duration;
  lastTick_ = tick;
  duration_ = duration;
  least_ = inWindow_ == 0 ? behind_ : std::min(least_, behind_);
  ++inWindow_;
  Found found{.late = FindLate()};
  if (inWindow_ >= (hasFloor_ ? kWindow : kLeastWindow)) found.missing = Evaluate();
  return found;
}

// A report was late when a later one is that much less behind; what only looks so after a loss was not.
int CSpeechPace::FindLate() noexcept {
  const auto begin = recent_.begin();
  const auto end = std::remove_if(begin, begin + recentCount_, [this](auto each) { return each - behind_ > kLate; });
  const int late = recentCount_ - static_cast<int>(end - begin);
  recentCount_ -= late;
  if (recentCount_ == kWindow) {
    std::move(begin + 1, recent_.end(), begin);
    --recentCount_;
  }
  recent_[static_cast<std::size_t>(recentCount_++)] = behind_;
  return late;
}

int CSpeechPace::Evaluate() noexcept {
  inWindow_ = 0;
  if (!std::exchange(hasFloor_, true) || least_ <= floor_ + kDrift) {
    floor_ = least_;
    return 0;
  }
  if (least_ - floor_ < kMissing) {
    floor_ += kDrift;
    return 0;
  }
  const auto missing = (least_ - floor_ + duration_ / 2) / duration_;
  floor_ = least_;
  return static_cast<int>(missing);
}
