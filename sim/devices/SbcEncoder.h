// The speech encoder in the firmware of a Wren: SBC, 16 kHz mono, loudness allocation, 8 subbands, 10 blocks,
// bitpool 12.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace sim {

class SbcEncoder {
 public:
  static constexpr std::size_t kSamples = 80;  // of one frame
  static constexpr std::size_t kBytes = 20;    // of one frame without the three header bytes that the device leaves out
  using Frame = std::array<std::uint8_t, kBytes>;

  Frame encode(std::span<const std::int16_t, kSamples> pcm);

 private:
  static constexpr std::size_t kSubbands = 8;
  static constexpr std::size_t kBlocks = 10;
  using Subbands = std::array<double, kSubbands>;

  Subbands analyse(std::span<const std::int16_t, kSubbands> pcm);

  std::array<double, 80> history_{};  // the newest sample first
};

}  // namespace sim
