#include "audio/ConvertTo16kMono.h"

#include <algorithm>

namespace {

constexpr int kOutputRate = 16000;

}  // namespace

std::size_t To16kMono::Count(std::size_t inputSamples) const {
  const std::size_t frames = inputSamples / static_cast<std::size_t>(channels_);
  return rate_ == kOutputRate ? frames : frames * kOutputRate / static_cast<std::size_t>(rate_);
}

void To16kMono::Convert(std::span<const std::int16_t> in, std::size_t first, std::span<std::int16_t> out) const {
  if (rate_ == kOutputRate && channels_ == 1) {
    std::copy_n(in.begin() + static_cast<std::ptrdiff_t>(first), out.size(), out.begin());
    return;
  }
  if (rate_ == kOutputRate) {
    for (std::size_t i = 0; i < out.size(); ++i) {
      const std::size_t k = 2 * (first + i);
      out[i] = static_cast<std::int16_t>((in[k] + in[k + 1]) / 2);
    }
    return;
  }
  const std::size_t last = in.size() / static_cast<std::size_t>(channels_) - 1;
  for (std::size_t i = 0; i < out.size(); ++i) {
    const double x = static_cast<double>(first + i) * ratio_;
    const std::size_t k = std::min(static_cast<std::size_t>(x), last);
    const std::size_t next = std::min(k + 1, last);
    const double f = x - static_cast<double>(static_cast<std::size_t>(x));
    if (channels_ == 1) {
      out[i] = static_cast<std::int16_t>((1 - f) * in[k] + f * in[next]);
    } else {
      out[i] = static_cast<std::int16_t>(
          ((in[2 * k] + in[2 * k + 1]) * (1 - f) + (in[2 * next] + in[2 * next + 1]) * f) * 0.5);
    }
  }
}
