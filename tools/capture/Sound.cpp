#include "tools/capture/Sound.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace capture {
namespace {

constexpr std::size_t kWindow = 256;  // 16 ms
using Spectrum = std::vector<std::complex<float>>;

std::size_t share(std::size_t whole, std::size_t part, std::size_t parts) {
  return static_cast<std::size_t>(std::uint64_t{whole} * part / parts);
}

}  // namespace

void transform(std::span<std::complex<float>> values) {
  const std::size_t size = values.size();
  for (std::size_t i = 1, j = 0; i < size; ++i) {
    std::size_t bit = size / 2;
    for (; (j & bit) != 0; bit /= 2) j ^= bit;
    j ^= bit;
    if (i < j) std::swap(values[i], values[j]);
  }
  for (std::size_t length = 2; length <= size; length *= 2) {
    const std::complex<float> turn = std::polar(1.0F, -2 * std::numbers::pi_v<float> / static_cast<float>(length));
    for (std::size_t start = 0; start < size; start += length) {
      std::complex<float> factor = 1;
      for (std::size_t i = start; i < start + length / 2; ++i, factor *= turn) {
        const std::complex<float> odd = values[i + length / 2] * factor;
        values[i + length / 2] = values[i] - odd;
        values[i] += odd;
      }
    }
  }
}

std::vector<int> waveform(std::span<const std::int16_t> pcm, std::size_t parts) {
  std::vector<int> result;
  parts = std::min(parts, pcm.size());
  for (std::size_t i = 0; i < parts; ++i) {
    const std::size_t from = share(pcm.size(), i, parts);
    const auto part = pcm.subspan(from, share(pcm.size(), i + 1, parts) - from);
    const auto [low, high] = std::minmax_element(part.begin(), part.end());
    result.push_back(*low >> 8);
    result.push_back(*high >> 8);
  }
  return result;
}

std::vector<std::uint8_t> spectrogram(std::span<const std::int16_t> pcm, std::size_t moments) {
  std::vector<std::uint8_t> levels;
  if (pcm.size() < kWindow) return levels;
  std::vector<float> window(kWindow);
  for (std::size_t i = 0; i < kWindow; ++i) {
    window[i] = 0.5F - 0.5F * std::cos(2 * std::numbers::pi_v<float> * static_cast<float>(i) / kWindow);
  }
  for (std::size_t moment = 0; moment < moments; ++moment) {
    const std::size_t from = share(pcm.size() - kWindow, moment, std::max<std::size_t>(1, moments - 1));
    Spectrum values(kWindow);
    for (std::size_t i = 0; i < kWindow; ++i) values[i] = window[i] * static_cast<float>(pcm[from + i]);
    transform(values);
    constexpr std::size_t kBins = kWindow / 2 / kSpectrumRows;  // of a row: the loudest counts
    for (std::size_t row = 0; row < kSpectrumRows; ++row) {
      float most = 0;
      for (std::size_t bin = row * kBins; bin < (row + 1) * kBins; ++bin) most = std::max(most, std::abs(values[bin]));
      // A sine of full scale comes to a quarter of the window.
      const float level = 20 * std::log10(std::max(most / (32768.0F * kWindow / 4), 1e-6F));
      levels.push_back(static_cast<std::uint8_t>(std::clamp((level + 90) / 90 * 255, 0.0F, 255.0F)));
    }
  }
  return levels;
}

}  // namespace capture
