// Conversion of 16-bit PCM to 16 kHz mono.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Linear interpolation between neighbouring frames, two channels averaged; no filter, and nothing is carried from one
// packet to the next.
class To16kMono {
 public:
  // rate: frames per second. channels: 1 or 2.
  To16kMono(int rate, int channels) : rate_(rate), channels_(channels), ratio_(rate / 16000.0) {}

  // How many samples a packet of so many samples (of all channels together) gives.
  std::size_t Count(std::size_t inputSamples) const;
  // Fills `out` with the packet's samples from `first` on. The last frame is held where the interpolation would look
  // behind it, which it does at rates below 16000.
  void Convert(std::span<const std::int16_t> in, std::size_t first, std::span<std::int16_t> out) const;

 private:
  const int rate_;
  const int channels_;
  const double ratio_;
};
