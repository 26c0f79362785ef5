#include "audio/SbcDecoder.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kSyncStandard = 0x9C;
constexpr std::uint8_t kSyncVariant = 0xAD;  // 10 blocks
constexpr int kVariantBlocks = 10;
constexpr int kVariantBitpool = 26;  // of a variant frame whose parameter bytes are both 0
constexpr int kHeaderBits = 32;      // sync, two parameter bytes, CRC
constexpr int kScaleFactorBits = 4;
constexpr int kMaxBits = 16;
constexpr int kTaps = 10;
constexpr std::uint16_t kSampleRates[] = {16000, 32000, 44100, 48000};

// Loudness offsets by sampling frequency and subband: the codec's definition (A2DP).
constexpr std::int8_t kOffset4[4][4] = {{-1, 0, 0, 0}, {-2, 0, 0, 1}, {-2, 0, 0, 1}, {-2, 0, 0, 1}};
constexpr std::int8_t kOffset8[4][8] = {
    {-2, 0, 0, 0, 0, 0, 0, 1}, {-3, 0, 0, 0, 0, 0, 1, 2}, {-4, 0, 0, 0, 0, 0, 1, 2}, {-4, 0, 0, 0, 0, 0, 1, 2}};

// Products and sums wrap: they are made in unsigned arithmetic.
using Word = std::uint32_t;
constexpr Word W(std::int32_t value) { return static_cast<Word>(value); }
constexpr std::int32_t S(Word value) { return static_cast<std::int32_t>(value); }

// floor(65536 * cos(m * pi / 16)).
constexpr std::int32_t Cosine(int m) {
  constexpr std::int32_t quarter[] = {65536, 64276, 60547, 54491, 46340, 36409, 25079, 12785, 0};
  m %= 32;
  if (m > 16) m = 32 - m;
  if (m <= 8) return quarter[m];
  if (m == 16) return -65536;
  return -quarter[16 - m] - 1;  // floor of a negative number that is not whole
}

// The synthesis window, taps j = 0..9 of each output i.
constexpr std::int32_t kWindow8[8][kTaps] = {
    {0, -528, -1484, -3392, -17826, -38524, 17825, -3392, 1483, -528},
    {-42, -552, -2105, -2322, -21754, -38114, 13942, -4016, 916, -468},
    {-90, -523, -2742, -767, -25579, -36898, 10243, -4253, 432, -388},
    {-146, -424, -3342, 1288, -29150, -34935, 6844, -4170, 46, -299},
    {-216, -237, -3842, 3837, -32314, -32314, 3837, -3842, -237, -216},
    {-299, 46, -4170, 6844, -34935, -29150, 1288, -3342, -424, -146},
    {-388, 432, -4253, 10243, -36898, -25579, -767, -2742, -523, -90},
    {-468, 916, -4016, 13942, -38114, -21754, -2322, -2105, -552, -42},
};
constexpr std::int32_t kWindow4[4][kTaps] = {
    {0, -503, -1431, -3392, -17773, -38577, 17772, -3392, 1430, -503},
    {-71, -511, -2679, -804, -25558, -36940, 10177, -4220, 401, -359},
    {-196, -245, -3785, 3777, -32328, -32328, 3777, -3785, -245, -196},
    {-359, 401, -4220, 10177, -36940, -25558, -804, -2679, -511, -71},
};

}  // namespace

void CSbcDecoder::Reset() {
  blocks_ = subbands_ = channels_ = 0;
  joint_ = bitpool_ = mode_ = frequencyIndex_ = allocation_ = samplesPerChannel_ = 0;
  sampleRate_ = 0;
  bits_ = {};
  scaleFactor_ = {};
  levels_ = {};
  samples_ = {};
  V_ = {};
  for (auto& offsets : offset_) {
    for (int i = 0; i < 16; ++i) offsets[static_cast<std::size_t>(i)] = kTaps * (i + 1);
  }
}

int CSbcDecoder::FrameLength() const {
  const int head = 4 + (4 * subbands_ * channels_) / 8;
  if (mode_ == kMono || mode_ == kDualChannel) return head + (blocks_ * channels_ * bitpool_ + 7) / 8;
  return head + ((mode_ == kJointStereo ? subbands_ : 0) + blocks_ * bitpool_ + 7) / 8;
}

bool CSbcDecoder::ParseHeader() {
  const bool variant = input_[0] == kSyncVariant;
  if (!variant && input_[0] != kSyncStandard) return false;
  if (variant && input_[1] == 0 && input_[2] == 0) {
    frequencyIndex_ = 0;
    mode_ = kMono;
    allocation_ = kLoudness;
    subbands_ = 8;
    bitpool_ = kVariantBitpool;
    blocks_ = kVariantBlocks;
  } else {
    frequencyIndex_ = input_[1] >> 6;
    blocks_ = static_cast<std::int8_t>(variant ? kVariantBlocks : 4 * ((input_[1] >> 4 & 3) + 1));
    mode_ = input_[1] >> 2 & 3;
    allocation_ = input_[1] >> 1 & 1;
    subbands_ = static_cast<std::int8_t>(4 * ((input_[1] & 1) + 1));
    bitpool_ = input_[2];
  }
  channels_ = mode_ == kMono ? 1 : 2;
  samplesPerChannel_ = static_cast<std::uint8_t>(blocks_ * subbands_);
  sampleRate_ = kSampleRates[frequencyIndex_];
  return true;
}

int CSbcDecoder::DecodeFrame() {
  if (!ParseHeader()) return kErrorSync;
  if (FrameLength() > kFrameBytes) return kErrorTooLong;
  const int perSubband = mode_ == kMono || mode_ == kDualChannel ? 16 : 32;
  if (bitpool_ > perSubband * subbands_) return kErrorBitpool;

  int position = kHeaderBits;  // the CRC is not checked
  joint_ = 0;
  if (mode_ == kJointStereo) {
    for (int sb = 0; sb < subbands_ - 1; ++sb) {
      joint_ = static_cast<std::uint8_t>(joint_ | (input_[4] >> (7 - sb) & 1) << sb);
    }
    position += subbands_;
  }
  for (std::size_t ch = 0; ch < static_cast<std::size_t>(channels_); ++ch) {
    for (std::size_t sb = 0; sb < static_cast<std::size_t>(subbands_); ++sb) {
      scaleFactor_[ch][sb] = static_cast<std::int8_t>(ReadBits(position, kScaleFactorBits));
      position += kScaleFactorBits;
    }
  }
  CalculateBits();
  ReadSamples(position);
  if (mode_ == kJointStereo) UndoJointStereo();
  if (subbands_ == 4) {
    SynthesizeFour();
  } else {
    SynthesizeEight();
  }
  PackOutput();
  return (position + 7) / 8;
}

// `count` bits, 0 to 16, from bit `position` on, the most significant first. Beyond the frame there are zeros.
std::uint32_t CSbcDecoder::ReadBits(int position, int count) const {
  const auto first = static_cast<std::size_t>(position) / 8;
  std::uint32_t window = 0;
  for (std::size_t i = first; i < first + 3; ++i) window = window << 8 | (i < kFrameBytes ? input_[i] : 0U);
  return window >> (24 - position % 8 - count) & ((1U << count) - 1);
}

void CSbcDecoder::CalculateBits() {
  const auto subbands = static_cast<std::size_t>(subbands_);
  // Both channels in one row, so that stereo can share its bits between them.
  std::array<std::int8_t, 2 * kMaxSubbands> bitneed{};
  std::array<std::int8_t, 2 * kMaxSubbands> bits{};
  const bool shared = mode_ == kStereo || mode_ == kJointStereo;
  for (std::size_t ch = 0; ch < static_cast<std::size_t>(channels_); ++ch) {
    for (std::size_t sb = 0; sb < subbands; ++sb) {
      int need = scaleFactor_[ch][sb];
      if (allocation_ == kLoudness) {
        const int offset = subbands_ == 4 ? kOffset4[frequencyIndex_][sb] : kOffset8[frequencyIndex_][sb];
        const int loudness = need - offset;
        need = need == 0 ? -5 : (loudness > 0 ? loudness / 2 : loudness);
      }
      // Remaining bits go to both channels of a subband before the next subband.
      bitneed[shared ? 2 * sb + ch : ch * subbands + sb] = static_cast<std::int8_t>(need);
    }
  }
  if (shared) {
    AllocateBits({bitneed.data(), 2 * subbands}, {bits.data(), 2 * subbands});
  } else {
    for (std::size_t ch = 0; ch < static_cast<std::size_t>(channels_); ++ch) {
      AllocateBits({bitneed.data() + ch * subbands, subbands}, {bits.data() + ch * subbands, subbands});
    }
  }
  for (std::size_t ch = 0; ch < static_cast<std::size_t>(channels_); ++ch) {
    for (std::size_t sb = 0; sb < subbands; ++sb) {
      const std::int8_t count = bits[shared ? 2 * sb + ch : ch * subbands + sb];
      bits_[ch][sb] = count;
      levels_[ch][sb] = S((Word{1} << count) - 1);
    }
  }
}

void CSbcDecoder::AllocateBits(std::span<const std::int8_t> bitneed, std::span<std::int8_t> bits) const {
  int bitslice = std::max<int>(0, *std::max_element(bitneed.begin(), bitneed.end())) + 1;
  int bitcount = 0;
  int slicecount = 0;
  do {
    --bitslice;
    bitcount += slicecount;
    slicecount = 0;
    for (const int need : bitneed) {
      if (need > bitslice + 1 && need < bitslice + 16) {
        ++slicecount;
      } else if (need == bitslice + 1) {
        slicecount += 2;
      }
    }
  } while (bitcount + slicecount < bitpool_);
  if (bitcount + slicecount == bitpool_) {
    bitcount += slicecount;
    --bitslice;
  }

  for (std::size_t i = 0; i < bits.size(); ++i) {
    const int need = bitneed[i];
    bits[i] = static_cast<std::int8_t>(need < bitslice + 2 ? 0 : std::min(need - bitslice, kMaxBits));
  }
  for (std::size_t i = 0; i < bits.size() && bitcount < bitpool_; ++i) {
    if (bits[i] >= 2 && bits[i] < kMaxBits) {
      ++bits[i];
      ++bitcount;
    } else if (bits[i] < 2 && bitneed[i] == bitslice + 1 && bitpool_ > bitcount + 1) {
      bits[i] = 2;
      bitcount += 2;
    }
  }
  for (std::size_t i = 0; i < bits.size() && bitcount < bitpool_; ++i) {
    if (bits[i] < kMaxBits) {
      ++bits[i];
      ++bitcount;
    }
  }
}

void CSbcDecoder::ReadSamples(int& position) {
  const auto subbands = static_cast<std::size_t>(subbands_);
  const auto channels = static_cast<std::size_t>(channels_);
  for (std::size_t block = 0; block < static_cast<std::size_t>(blocks_); ++block) {
    for (std::size_t ch = 0; ch < channels; ++ch) {
      std::int32_t* out = samples_[ch].data() + block * subbands;
      for (std::size_t sb = 0; sb < subbands; ++sb) {
        const int count = bits_[ch][sb];
        if (count == 0) {
          out[sb] = 0;
          continue;
        }
        const Word x = ReadBits(position, count);
        position += count;
        const int shift = scaleFactor_[ch][sb];
        out[sb] = S(W(S((2 * x + 1) << shift) / levels_[ch][sb]) - (Word{1} << shift));
      }
    }
  }
}

void CSbcDecoder::UndoJointStereo() {
  for (std::size_t i = 0; i < samplesPerChannel_; ++i) {
    if ((joint_ >> (i % static_cast<std::size_t>(subbands_)) & 1) == 0) continue;
    const Word s0 = W(samples_[0][i]);
    const Word s1 = W(samples_[1][i]);
    samples_[0][i] = S(s0 + s1);
    samples_[1][i] = S(s0 - s1);
  }
}

// Puts the newest value of each row into the ring. The rows are done one after the other: when frames of 4 and of 8
// subbands follow each other without a Reset, their rows overlap and the order counts.
template <int N>
void CSbcDecoder::PushHistory(int channel, const std::array<std::uint32_t, 2 * N>& newest) {
  auto& v = V_[static_cast<std::size_t>(channel)];
  auto& offset = offset_[static_cast<std::size_t>(channel)];
  for (std::size_t i = 0; i < 2 * N; ++i) {
    if (--offset[i] < 0) {
      offset[i] = 20 * N - 1;
      std::copy_n(v.begin(), kTaps - 1, v.begin() + 20 * N);
    }
    v[static_cast<std::size_t>(offset[i])] = S(newest[i]) >> 15;
  }
}

template <int N>
void CSbcDecoder::Window(int channel, std::int32_t* out) const {
  const auto& window = [] () -> const auto& {
    if constexpr (N == 8) {
      return kWindow8;
    } else {
      return kWindow4;
    }
  }();
  const auto& v = V_[static_cast<std::size_t>(channel)];
  const auto& offset = offset_[static_cast<std::size_t>(channel)];
  for (std::size_t i = 0; i < N; ++i) {
    const std::int32_t* even = v.data() + offset[i];
    const std::int32_t* odd = v.data() + offset[i + N];
    Word sum = 0;
    for (std::size_t j = 0; j < kTaps; j += 2) {
      sum += W(window[i][j]) * W(even[j]) + W(window[i][j + 1]) * W(odd[j + 1]);
    }
    out[i] = S(sum) >> 16;
  }
}

void CSbcDecoder::SynthesizeFour() {
  constexpr int N = 4;
  for (int ch = 0; ch < channels_; ++ch) {
    for (int block = 0; block < blocks_; ++block) {
      std::int32_t* s = samples_[static_cast<std::size_t>(ch)].data() + block * N;
      std::array<Word, 2 * N> rows{};
      for (int i = 0; i < 2 * N; ++i) {
        for (int k = 0; k < N; ++k) rows[static_cast<std::size_t>(i)] += W(Cosine(2 * (i + 2) * (2 * k + 1))) * W(s[k]);
      }
      PushHistory<N>(ch, rows);
      Window<N>(ch, s);
    }
  }
}

// The 16 x 8 synthesis matrix K[i][k] = floor(65536 cos((i + 4)(2k + 1) pi / 16)) has few numbers of its own. Its rows
// and columns mirror each other; where the mirror changes the sign, floor(-x) = -floor(x) - 1 makes one sample to
// subtract out of each product. All of that is exact in arithmetic that wraps, so 22 products replace 128.
void CSbcDecoder::SynthesizeEight() {
  constexpr int N = 8;
  for (int ch = 0; ch < channels_; ++ch) {
    for (int block = 0; block < blocks_; ++block) {
      std::int32_t* s = samples_[static_cast<std::size_t>(ch)].data() + block * N;
      std::array<Word, 4> e;  // column k and its mirror 7 - k: equal in rows with even i
      std::array<Word, 4> d;  // opposite in rows with odd i
      Word mirrored = 0;
      Word all = 0;
      for (std::size_t k = 0; k < 4; ++k) {
        const Word a = W(s[k]);
        const Word b = W(s[7 - k]);
        e[k] = a + b;
        d[k] = a - b;
        mirrored += b;
        all += e[k];
      }
      const auto odd = [&](int n) {
        return W(Cosine(n)) * d[0] + W(Cosine(3 * n)) * d[1] + W(Cosine(5 * n)) * d[2] + W(Cosine(7 * n)) * d[3] -
               mirrored;
      };
      // In rows 2 and 10 the columns k and 3 - k are opposite too.
      const auto even = [&](int n) {
        return W(Cosine(n)) * (e[0] - e[3]) + W(Cosine(3 * n)) * (e[1] - e[2]) - e[3] - e[2];
      };
      std::array<Word, 2 * N> rows;
      rows[0] = W(Cosine(4)) * (e[0] + e[3]) + W(Cosine(12)) * (e[1] + e[2]);
      rows[1] = odd(5);
      rows[2] = even(6);
      rows[3] = odd(7);
      rows[4] = 0;
      for (std::size_t i = 5; i <= 8; ++i) rows[i] = Word{0} - rows[8 - i] - all;
      rows[9] = odd(13);
      rows[10] = even(14);
      rows[11] = odd(15);
      rows[12] = Word{0} - (all << 16);
      for (std::size_t i = 13; i <= 15; ++i) rows[i] = rows[24 - i];
      PushHistory<N>(ch, rows);
      Window<N>(ch, s);
    }
  }
}

// In place, two 16-bit samples to a word: neighbours of the one channel, or the two channels of a moment.
void CSbcDecoder::PackOutput() {
  auto& left = samples_[0];
  const auto pack = [](std::int32_t low, std::int32_t high) { return S((W(low) & 0xFFFFU) | W(high) << 16); };
  if (channels_ == 1) {
    for (std::size_t i = 0; i < samplesPerChannel_ / 2U; ++i) left[i] = pack(left[2 * i], left[2 * i + 1]);
  } else {
    for (std::size_t i = 0; i < samplesPerChannel_; ++i) left[i] = pack(left[i], samples_[1][i]);
  }
}
