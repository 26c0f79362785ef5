// The codec written down a second time, step by step and without regard to speed: what the library's decoder is held
// against, and a floating-point decoder that shows what the codec itself can give.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <numbers>
#include <vector>

namespace reference {

inline const std::int32_t kW8[8][10] = {{0, -528, -1484, -3392, -17826, -38524, 17825, -3392, 1483, -528},
                                        {-42, -552, -2105, -2322, -21754, -38114, 13942, -4016, 916, -468},
                                        {-90, -523, -2742, -767, -25579, -36898, 10243, -4253, 432, -388},
                                        {-146, -424, -3342, 1288, -29150, -34935, 6844, -4170, 46, -299},
                                        {-216, -237, -3842, 3837, -32314, -32314, 3837, -3842, -237, -216},
                                        {-299, 46, -4170, 6844, -34935, -29150, 1288, -3342, -424, -146},
                                        {-388, 432, -4253, 10243, -36898, -25579, -767, -2742, -523, -90},
                                        {-468, 916, -4016, 13942, -38114, -21754, -2322, -2105, -552, -42}};
inline const std::int32_t kW4[4][10] = {{0, -503, -1431, -3392, -17773, -38577, 17772, -3392, 1430, -503},
                                        {-71, -511, -2679, -804, -25558, -36940, 10177, -4220, 401, -359},
                                        {-196, -245, -3785, 3777, -32328, -32328, 3777, -3785, -245, -196},
                                        {-359, 401, -4220, 10177, -36940, -25558, -804, -2679, -511, -71}};

// The header, the allocation and the samples of one frame; false with `error` set when it is rejected.
struct Frame {
  int blocks = 0, subbands = 0, mode = 0, allocation = 0, frequency = 0, bitpool = 0, channels = 0;
  int error = 0, consumed = 0;
  int scaleFactor[2][8] = {}, bits[2][8] = {};
  std::uint32_t code[16][2][8] = {};  // the quantised samples
  int joint = 0;

  bool parse(const std::uint8_t* bytes) {
    const auto bit = [&](int at) { return at < 23 * 8 ? bytes[at / 8] >> (7 - at % 8) & 1 : 0; };
    const auto take = [&](int& at, int count) {
      std::uint32_t value = 0;
      while (count-- > 0) value = value * 2 + static_cast<std::uint32_t>(bit(at++));
      return value;
    };
    if (bytes[0] != 0x9C && bytes[0] != 0xAD) return error = -126, false;
    frequency = bytes[1] >> 6;
    blocks = bytes[0] == 0xAD ? 10 : 4 * ((bytes[1] >> 4 & 3) + 1);
    mode = bytes[1] >> 2 & 3;
    allocation = bytes[1] >> 1 & 1;
    subbands = bytes[1] & 1 ? 8 : 4;
    bitpool = bytes[2];
    if (bytes[0] == 0xAD && bytes[1] == 0 && bytes[2] == 0) subbands = 8, bitpool = 26;
    channels = mode == 0 ? 1 : 2;
    int length = 4 + 4 * subbands * channels / 8;
    if (mode < 2) {
      length += (blocks * channels * bitpool + 7) / 8;
    } else {
      length += ((mode == 3 ? subbands : 0) + blocks * bitpool + 7) / 8;
    }
    if (length > 23) return error = -123, false;
    if (bitpool > (mode < 2 ? 16 : 32) * subbands) return error = -125, false;
    int at = 32;
    if (mode == 3) {
      for (int sb = 0; sb + 1 < subbands; ++sb) joint |= bit(at + sb) << sb;
      at += subbands;
    }
    for (int ch = 0; ch < channels; ++ch) {
      for (int sb = 0; sb < subbands; ++sb) scaleFactor[ch][sb] = static_cast<int>(take(at, 4));
    }
    allocate();
    for (int block = 0; block < blocks; ++block) {
      for (int ch = 0; ch < channels; ++ch) {
        for (int sb = 0; sb < subbands; ++sb) code[block][ch][sb] = take(at, bits[ch][sb]);
      }
    }
    consumed = (at + 7) / 8;
    return true;
  }

  void allocate() {
    static const int offset4[4][4] = {{-1, 0, 0, 0}, {-2, 0, 0, 1}, {-2, 0, 0, 1}, {-2, 0, 0, 1}};
    static const int offset8[4][8] = {
        {-2, 0, 0, 0, 0, 0, 0, 1}, {-3, 0, 0, 0, 0, 0, 1, 2}, {-4, 0, 0, 0, 0, 0, 1, 2}, {-4, 0, 0, 0, 0, 0, 1, 2}};
    int need[2][8] = {};
    for (int ch = 0; ch < channels; ++ch) {
      for (int sb = 0; sb < subbands; ++sb) {
        need[ch][sb] = scaleFactor[ch][sb];
        if (allocation == 1) continue;
        const int loudness = scaleFactor[ch][sb] - (subbands == 4 ? offset4[frequency][sb] : offset8[frequency][sb]);
        need[ch][sb] = scaleFactor[ch][sb] == 0 ? -5 : loudness > 0 ? loudness / 2 : loudness;
      }
    }
    // Units of allocation: each channel alone, or both together.
    const bool together = mode >= 2;
    for (int unit = 0; unit < (together ? 1 : channels); ++unit) {
      const int first = together ? 0 : unit;
      const int last = together ? 1 : unit;
      int slice = 0, count = 0, sliced = 0;
      for (int ch = first; ch <= last; ++ch) slice = std::max(slice, *std::max_element(need[ch], need[ch] + subbands));
      ++slice;
      do {
        --slice;
        count += sliced;
        sliced = 0;
        for (int ch = first; ch <= last; ++ch) {
          for (int sb = 0; sb < subbands; ++sb) {
            if (need[ch][sb] > slice + 1 && need[ch][sb] < slice + 16) sliced += 1;
            if (need[ch][sb] == slice + 1) sliced += 2;
          }
        }
      } while (count + sliced < bitpool);
      if (count + sliced == bitpool) count += sliced, --slice;
      for (int ch = first; ch <= last; ++ch) {
        for (int sb = 0; sb < subbands; ++sb) {
          bits[ch][sb] = need[ch][sb] >= slice + 2 ? std::min(16, need[ch][sb] - slice) : 0;
        }
      }
      for (int sb = 0; sb < subbands; ++sb) {
        for (int ch = first; ch <= last && count < bitpool; ++ch) {
          if (bits[ch][sb] >= 2 && bits[ch][sb] < 16) {
            ++bits[ch][sb], ++count;
          } else if (bits[ch][sb] < 2 && need[ch][sb] == slice + 1 && count + 1 < bitpool) {
            bits[ch][sb] = 2, count += 2;
          }
        }
      }
      for (int sb = 0; sb < subbands; ++sb) {
        for (int ch = first; ch <= last && count < bitpool; ++ch) {
          if (bits[ch][sb] < 16) ++bits[ch][sb], ++count;
        }
      }
    }
  }
};

// 64-bit sums, cut to 32 bits where a 32-bit register would have wrapped.
class Decoder {
 public:
  Decoder() {
    for (auto& offsets : offset_) {
      for (int i = 0; i < 16; ++i) offsets[static_cast<std::size_t>(i)] = 10 * (i + 1);
    }
  }

  // Returns what DecodeFrame returns; `pcm` gets the samples, interleaved.
  int decode(const std::uint8_t* bytes, std::vector<std::int16_t>& pcm) {
    Frame frame;
    pcm.clear();
    if (!frame.parse(bytes)) return frame.error;
    const auto N = static_cast<std::size_t>(frame.subbands);
    pcm.resize(static_cast<std::size_t>(frame.blocks * frame.subbands * frame.channels));
    for (std::size_t block = 0; block < static_cast<std::size_t>(frame.blocks); ++block) {
      std::int32_t s[2][8] = {};
      for (int ch = 0; ch < frame.channels; ++ch) {
        for (std::size_t sb = 0; sb < N; ++sb) {
          if (frame.bits[ch][sb] == 0) continue;
          const std::int64_t levels = (std::int64_t{1} << frame.bits[ch][sb]) - 1;
          const std::int64_t wide = (2 * std::int64_t{frame.code[block][ch][sb]} + 1) << frame.scaleFactor[ch][sb];
          s[ch][sb] = cut(cut(wide) / levels - (std::int64_t{1} << frame.scaleFactor[ch][sb]));
        }
      }
      for (std::size_t sb = 0; sb < N; ++sb) {
        if ((frame.joint >> sb & 1) == 0) continue;
        const std::int64_t s0 = s[0][sb], s1 = s[1][sb];
        s[0][sb] = cut(s0 + s1);
        s[1][sb] = cut(s0 - s1);
      }
      for (std::size_t ch = 0; ch < static_cast<std::size_t>(frame.channels); ++ch) {
        for (std::size_t i = 0; i < N; ++i) {
          if (i == 0) push(ch, N, s[ch]);
          pcm[(block * N + i) * static_cast<std::size_t>(frame.channels) + ch] =
              static_cast<std::int16_t>(out(ch, N, i) & 0xFFFF);
        }
      }
    }
    return frame.consumed;
  }

 private:
  static std::int32_t cut(std::int64_t value) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(value)); }

  static std::int64_t matrix(std::size_t N, std::size_t i, std::size_t k) {
    // cos(m pi / 16); where it is exactly 0, floating point would miss it.
    const std::size_t m = N == 8 ? (i + 4) * (2 * k + 1) : 2 * (i + 2) * (2 * k + 1);
    if (m % 16 == 8) return 0;
    return static_cast<std::int64_t>(
        std::floor(65536.0L * std::cos(static_cast<long double>(m % 32) * std::numbers::pi_v<long double> / 16)));
  }

  void push(std::size_t ch, std::size_t N, const std::int32_t* s) {
    static const auto table = [] {
      std::array<std::array<std::array<std::int64_t, 8>, 16>, 2> t{};
      for (std::size_t i = 0; i < 16; ++i) {
        for (std::size_t k = 0; k < 8; ++k) t[1][i][k] = matrix(8, i, k);
        for (std::size_t k = 0; k < 4; ++k) t[0][i][k] = matrix(4, i, k);
      }
      return t;
    }();
    for (std::size_t i = 0; i < 2 * N; ++i) {
      if (--offset_[ch][i] < 0) {
        offset_[ch][i] = static_cast<int>(20 * N - 1);
        for (std::size_t n = 0; n <= 8; ++n) V_[ch][20 * N + n] = V_[ch][n];
      }
      std::uint64_t sum = 0;
      for (std::size_t k = 0; k < N; ++k) {
        sum += static_cast<std::uint64_t>(table[N == 8 ? 1 : 0][i][k] * std::int64_t{s[k]});
      }
      V_[ch][static_cast<std::size_t>(offset_[ch][i])] = cut(static_cast<std::int64_t>(sum)) >> 15;
    }
  }

  std::int32_t out(std::size_t ch, std::size_t N, std::size_t i) const {
    std::uint64_t sum = 0;
    for (std::size_t j = 0; j < 10; ++j) {
      const std::size_t p = j % 2 == 0 ? i : (i + N) % (2 * N);
      const std::int64_t w = N == 8 ? kW8[i][j] : kW4[i][j];
      sum += static_cast<std::uint64_t>(w * V_[ch][static_cast<std::size_t>(offset_[ch][p]) + j]);
    }
    return cut(static_cast<std::int64_t>(sum)) >> 16;
  }

  std::array<std::array<std::int32_t, 170>, 2> V_{};
  std::array<std::array<int, 16>, 2> offset_{};
};

// Mono, 8 subbands, in floating point and at the codec's usual level: the best that the received bits allow.
class FloatDecoder {
 public:
  void decode(const std::uint8_t* bytes, std::vector<double>& pcm) {
    Frame frame;
    if (!frame.parse(bytes)) return;
    for (int block = 0; block < frame.blocks; ++block) {
      double s[8] = {};
      for (int sb = 0; sb < 8; ++sb) {
        if (frame.bits[0][sb] == 0) continue;
        const double levels = std::ldexp(1, frame.bits[0][sb]) - 1;
        s[sb] = std::ldexp((2.0 * frame.code[block][0][sb] + 1) / levels - 1, frame.scaleFactor[0][sb] + 1);
      }
      std::copy_backward(v_.begin(), v_.end() - 16, v_.end());
      for (int i = 0; i < 16; ++i) {
        v_[static_cast<std::size_t>(i)] = 0;
        for (int k = 0; k < 8; ++k) {
          v_[static_cast<std::size_t>(i)] += std::cos((k + 0.5) * (i + 4) * std::numbers::pi / 8) * s[k];
        }
      }
      for (std::size_t i = 0; i < 8; ++i) {
        double sum = 0;
        for (std::size_t j = 0; j < 10; ++j) {
          sum += kW8[i][j] / 32768.0 * v_[16 * j + (j % 2 == 0 ? i : i + 8)];
        }
        pcm.push_back(sum);
      }
    }
  }

 private:
  std::array<double, 160> v_{};
};

}  // namespace reference
