#include "sim/devices/SbcEncoder.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace sim {
namespace {

constexpr int kBitpool = 12;
constexpr std::uint8_t kParameterBytes[] = {0x31, 0x0C};  // 16 kHz, mono, loudness, 8 subbands; bitpool
constexpr int kLoudnessOffset[] = {-2, 0, 0, 0, 0, 0, 0, 1};

// The codec's prototype filter for 8 subbands, first half and middle. The second half mirrors it, with the other sign
// at every sixteenth place.
constexpr double kPrototype[41] = {
    0.00000000E+00,  1.56575398E-04,  3.43256425E-04,  5.54620202E-04,  8.23919506E-04, 1.13992507E-03, 1.47640169E-03,
    1.78371725E-03,  2.01182542E-03,  2.10371989E-03,  1.99454554E-03,  1.61656283E-03, 9.02154502E-04, -1.78805361E-04,
    -1.64973098E-03, -3.49717454E-03, 5.65949473E-03,  8.02941163E-03,  1.04584443E-02, 1.27472335E-02, 1.46525263E-02,
    1.59045603E-02,  1.62208471E-02,  1.53184106E-02,  1.29371806E-02,  8.85757540E-03, 2.92408442E-03, -4.91578024E-03,
    -1.46404076E-02, -2.61098752E-02, -3.90751381E-02, -5.31873032E-02, 6.79989431E-02, 8.29847578E-02, 9.75753918E-02,
    1.11196689E-01,  1.23264548E-01,  1.33264415E-01,  1.40753505E-01,  1.45389847E-01, 1.46955068E-01};

double prototype(std::size_t n) {
  if (n <= 40) return kPrototype[n];
  return n % 16 == 0 ? -kPrototype[80 - n] : kPrototype[80 - n];
}

class BitWriter {
 public:
  explicit BitWriter(std::span<std::uint8_t> bytes) : bytes_(bytes) {}
  void put(unsigned value, int count) {
    for (int i = count - 1; i >= 0; --i, ++at_) {
      bytes_[at_ / 8] = static_cast<std::uint8_t>(bytes_[at_ / 8] | ((value >> i & 1) << (7 - at_ % 8)));
    }
  }

 private:
  std::span<std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

// CRC-8, polynomial x^8 + x^4 + x^3 + x^2 + 1, over the parameter bytes and the scale factors.
std::uint8_t checksum(std::span<const std::uint8_t> scaleFactors) {
  std::uint8_t crc = 0x0F;
  const auto add = [&crc](std::uint8_t byte) {
    for (int bit = 7; bit >= 0; --bit) {
      const bool carry = ((crc >> 7) ^ (byte >> bit & 1)) != 0;
      crc = static_cast<std::uint8_t>(crc << 1 ^ (carry ? 0x1D : 0));
    }
  };
  for (const std::uint8_t byte : kParameterBytes) add(byte);
  for (const std::uint8_t byte : scaleFactors) add(byte);
  return crc;
}

// How many bits each subband gets: twelve for each block, shared out by loudness.
std::array<int, 8> allocate(const std::array<int, 8>& scaleFactor) {
  std::array<int, 8> need{};
  for (std::size_t sb = 0; sb < 8; ++sb) {
    const int loudness = scaleFactor[sb] - kLoudnessOffset[sb];
    need[sb] = scaleFactor[sb] == 0 ? -5 : loudness > 0 ? loudness / 2 : loudness;
  }
  const auto bitsAbove = [&](int slice, std::size_t sb) {
    return need[sb] < slice + 2 ? 0 : std::min(need[sb] - slice, 16);
  };
  // The lowest slice whose bits still fit.
  int slice = std::max(0, *std::max_element(need.begin(), need.end())) + 1;
  const auto total = [&](int at) {
    int sum = 0;
    for (std::size_t sb = 0; sb < 8; ++sb) sum += bitsAbove(at, sb);
    return sum;
  };
  while (total(slice - 1) <= kBitpool) --slice;
  std::array<int, 8> bits{};
  int left = kBitpool;
  for (std::size_t sb = 0; sb < 8; ++sb) left -= bits[sb] = bitsAbove(slice, sb);
  for (std::size_t sb = 0; sb < 8 && left > 0; ++sb) {
    if (bits[sb] >= 2 && bits[sb] < 16) {
      ++bits[sb];
      --left;
    } else if (need[sb] == slice + 1 && left > 1) {
      bits[sb] = 2;
      left -= 2;
    }
  }
  for (std::size_t sb = 0; sb < 8 && left > 0; ++sb) {
    if (bits[sb] < 16) {
      ++bits[sb];
      --left;
    }
  }
  return bits;
}

}  // namespace

SbcEncoder::Subbands SbcEncoder::analyse(std::span<const std::int16_t, kSubbands> pcm) {
  std::copy_backward(history_.begin(), history_.end() - kSubbands, history_.end());
  for (std::size_t i = 0; i < kSubbands; ++i) history_[kSubbands - 1 - i] = pcm[i];
  std::array<double, 16> folded{};
  for (std::size_t n = 0; n < 80; ++n) folded[n % 16] += history_[n] * prototype(n);
  static const auto matrix = [] {
    std::array<std::array<double, 16>, kSubbands> m{};
    for (std::size_t sb = 0; sb < kSubbands; ++sb) {
      for (std::size_t i = 0; i < 16; ++i) {
        m[sb][i] = std::cos((static_cast<double>(sb) + 0.5) * (static_cast<double>(i) - 4) * std::numbers::pi / 8);
      }
    }
    return m;
  }();
  Subbands result{};
  for (std::size_t sb = 0; sb < kSubbands; ++sb) {
    for (std::size_t i = 0; i < 16; ++i) result[sb] += folded[i] * matrix[sb][i];
  }
  return result;
}

SbcEncoder::Frame SbcEncoder::encode(std::span<const std::int16_t, kSamples> pcm) {
  std::array<Subbands, kBlocks> subbands;
  for (std::size_t block = 0; block < kBlocks; ++block) {
    subbands[block] = analyse(pcm.subspan(block * kSubbands).first<kSubbands>());
  }
  std::array<int, 8> scaleFactor{};
  for (std::size_t sb = 0; sb < kSubbands; ++sb) {
    double peak = 0;
    for (const Subbands& block : subbands) peak = std::max(peak, std::abs(block[sb]));
    while (scaleFactor[sb] < 15 && std::ldexp(1, scaleFactor[sb] + 1) <= peak) ++scaleFactor[sb];
  }
  const std::array<int, 8> bits = allocate(scaleFactor);

  Frame frame{};
  BitWriter writer(frame);
  writer.put(0, 8);  // the checksum's place
  for (const int factor : scaleFactor) writer.put(static_cast<unsigned>(factor), 4);
  frame[0] = checksum(std::span(frame).subspan(1, 4));
  for (const Subbands& block : subbands) {
    for (std::size_t sb = 0; sb < kSubbands; ++sb) {
      if (bits[sb] == 0) continue;
      const double levels = std::ldexp(1, bits[sb]) - 1;
      const double position = (block[sb] / std::ldexp(1, scaleFactor[sb] + 1) + 1) * levels / 2;
      writer.put(static_cast<unsigned>(std::clamp(std::floor(position), 0.0, levels - 1)), bits[sb]);
    }
  }
  return frame;
}

}  // namespace sim
