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

// The window with its taps as rows.
constexpr auto kTapsOfWindow8 = [] {
  std::array<std::array<std::int32_t, 8>, kTaps> taps{};
  for (std::size_t i = 0; i < 8; ++i) {
    for (std::size_t j = 0; j < kTaps; ++j) taps[j][i] = kWindow8[i][j];
  }
  return taps;
}();

// The 16 x 8 synthesis matrix K[i][k] = floor(65536 cos((i + 4)(2k + 1) pi / 16)) has few numbers of its own. Its rows
// and columns mirror each other; where the mirror changes the sign, floor(-x) = -floor(x) - 1 makes one sample to
// subtract out of each product. All of that is exact in arithmetic that wraps, so 20 products replace 128.
void MatrixEight(const std::int32_t* s, std::array<Word, 16>& rows) {
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
    return W(Cosine(n)) * d[0] + W(Cosine(3 * n)) * d[1] + W(Cosine(5 * n)) * d[2] + W(Cosine(7 * n)) * d[3] - mirrored;
  };
  // In rows 2 and 10 the columns k and 3 - k are opposite too.
  const auto even = [&](int n) {
    return W(Cosine(n)) * (e[0] - e[3]) + W(Cosine(3 * n)) * (e[1] - e[2]) - e[3] - e[2];
  };
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
}

// Eight outputs from the row values of the last ten blocks, the newest first.
[[gnu::always_inline]] inline void WindowRows(const std::int32_t* row, std::int32_t* out) {
  std::array<Word, 8> sum{};
  for (std::size_t j = 0; j < kTaps; j += 2, row += 32) {
    for (std::size_t i = 0; i < 8; ++i) {
      sum[i] += W(kTapsOfWindow8[j][i]) * W(row[i]) + W(kTapsOfWindow8[j + 1][i]) * W(row[24 + i]);
    }
  }
  for (std::size_t i = 0; i < 8; ++i) out[i] = S(sum[i]) >> 16;
}

void WindowRowsPlain(const std::int32_t* row, std::int32_t* out) { WindowRows(row, out); }

#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
// The same loop with the vector product of 32-bit words, which the baseline of the architecture lacks.
[[gnu::target("sse4.1")]] void WindowRowsSse41(const std::int32_t* row, std::int32_t* out) { WindowRows(row, out); }

const auto windowRows = __builtin_cpu_supports("sse4.1") ? &WindowRowsSse41 : &WindowRowsPlain;
#else
const auto windowRows = &WindowRowsPlain;
#endif

// Takes bits from the frame, the most significant first. Beyond the frame there are zeros.
class BitReader {
 public:
  BitReader(std::span<const std::uint8_t, CSbcDecoder::kFrameBytes> frame, int position)
      : frame_(frame), next_(static_cast<std::size_t>(position) / 8), taken_(position) {
    if (const int within = position % 8; within != 0) {
      taken_ -= within;
      Read(within);
    }
  }
  // count: 0 to 16.
  Word Read(int count) {
    while (have_ < count) {
      window_ = window_ << 8 | (next_ < frame_.size() ? frame_[next_] : std::uint8_t{0});
      ++next_;
      have_ += 8;
    }
    have_ -= count;
    taken_ += count;
    return static_cast<Word>(window_ >> have_) & ((Word{1} << count) - 1);
  }
  int Position() const { return taken_; }

 private:
  std::span<const std::uint8_t, CSbcDecoder::kFrameBytes> frame_;
  std::uint64_t window_ = 0;
  int have_ = 0;  // bits of the window not yet taken
  std::size_t next_;
  int taken_;
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
  list_ = {};
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
  BitReader factors(input_, position);
  for (std::size_t ch = 0; ch < static_cast<std::size_t>(channels_); ++ch) {
    for (std::size_t sb = 0; sb < static_cast<std::size_t>(subbands_); ++sb) {
      scaleFactor_[ch][sb] = static_cast<std::int8_t>(factors.Read(kScaleFactorBits));
    }
  }
  position = factors.Position();
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
  // How many entries have each bitneed; far enough below the least one for every slice that is looked at.
  constexpr int kLeast = -40;
  std::array<std::uint8_t, 80> entries{};
  int most = 0;
  for (const int need : bitneed) {
    ++entries[static_cast<std::size_t>(need - kLeast)];
    most = std::max(most, need);
  }
  const auto entriesWith = [&entries](int need) { return int{entries[static_cast<std::size_t>(need - kLeast)]}; };

  int bitslice = most + 1;
  int bitcount = 0;
  int slicecount = 0;
  int inside = 0;  // entries with a bitneed above bitslice + 1 and below bitslice + 16
  do {
    --bitslice;
    bitcount += slicecount;
    inside += entriesWith(bitslice + 2) - entriesWith(bitslice + 16);
    slicecount = inside + 2 * entriesWith(bitslice + 1);
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
  // The subbands that carry bits. Division by levels = 2^bits - 1 is a multiplication by its reciprocal, rounded up:
  // exact for every 32-bit dividend, because reciprocal * levels exceeds 2^(31 + bits) by no more than levels.
  struct Active {
    std::size_t channel;
    std::size_t subband;
    int bits;
    int scale;
    std::uint64_t reciprocal;
  };
  std::array<Active, kMaxChannels * kMaxSubbands> active;
  std::size_t count = 0;
  for (std::size_t ch = 0; ch < static_cast<std::size_t>(channels_); ++ch) {
    std::fill_n(samples_[ch].begin(), samplesPerChannel_, 0);
    for (std::size_t sb = 0; sb < static_cast<std::size_t>(subbands_); ++sb) {
      const int bits = bits_[ch][sb];
      if (bits == 0) continue;
      const auto levels = static_cast<std::uint64_t>(levels_[ch][sb]);
      active[count++] = {ch, sb, bits, scaleFactor_[ch][sb], (std::uint64_t{1} << (31 + bits)) / levels + 1};
    }
  }

  BitReader reader(input_, position);
  for (std::size_t first = 0; first < samplesPerChannel_; first += static_cast<std::size_t>(subbands_)) {
    for (std::size_t i = 0; i < count; ++i) {
      const Active& a = active[i];
      const std::int32_t dividend = S((2 * reader.Read(a.bits) + 1) << a.scale);
      const Word magnitude = dividend < 0 ? Word{0} - W(dividend) : W(dividend);
      const auto quotient = static_cast<Word>(magnitude * a.reciprocal >> (31 + a.bits));
      const Word value = dividend < 0 ? Word{0} - quotient : quotient;
      samples_[a.channel][first + a.subband] = S(value - (Word{1} << a.scale));
    }
  }
  position = reader.Position();
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

// ---- The synthesis history ------------------------------------------------------------------------------------------
//
// The history is defined as a ring of 20 values per subband with a tail, and a position in it for each row; when frames
// of 4 and of 8 subbands follow each other, their rows overlap in it and every cell counts. As long as a channel has
// only seen 8 subbands, nobody can tell that ring from a plain list of the last blocks, which the processor likes
// better.

// Puts the newest value of each row into the ring, one row after the other: where rows overlap, the order counts.
template <int N>
void CSbcDecoder::PushRing(std::size_t channel, const Word* newest) {
  auto& v = V_[channel];
  auto& offset = offset_[channel];
  for (std::size_t i = 0; i < 2 * N; ++i) {
    if (--offset[i] < 0) {
      offset[i] = 20 * N - 1;
      std::copy_n(v.begin(), kTaps - 1, v.begin() + 20 * N);
    }
    v[static_cast<std::size_t>(offset[i])] = S(newest[i]) >> 15;
  }
}

template <int N>
void CSbcDecoder::WindowRing(std::size_t channel, std::int32_t* out) const {
  const auto& v = V_[channel];
  const auto& offset = offset_[channel];
  for (std::size_t i = 0; i < N; ++i) {
    const std::int32_t* window = N == 8 ? kWindow8[i] : kWindow4[i];
    const std::int32_t* even = v.data() + offset[i];
    const std::int32_t* odd = v.data() + offset[i + N];
    Word sum = 0;
    for (std::size_t j = 0; j < kTaps; j += 2) sum += W(window[j]) * W(even[j]) + W(window[j + 1]) * W(odd[j + 1]);
    out[i] = S(sum) >> 16;
  }
}

std::int32_t* CSbcDecoder::BlockList::Push() {
  if (newest == 0) {
    std::copy_n(rows.begin(), kRemembered * 16, rows.end() - kRemembered * 16);
    newest = kLength - kRemembered;
  }
  --newest;
  ++blocks;
  return rows.data() + newest * 16;
}

// Writes the ring as it would stand had it been used from the beginning.
void CSbcDecoder::LeaveList(std::size_t channel) {
  BlockList& list = list_[channel];
  if (!list.used) return;
  list.used = false;
  const auto value = [&list](int row, std::int64_t age) {
    return age < static_cast<std::int64_t>(BlockList::kRemembered)
               ? list.rows[(list.newest + static_cast<std::size_t>(age)) * 16 + static_cast<std::size_t>(row)]
               : 0;
  };
  const std::int64_t n = list.blocks;
  auto& v = V_[channel];
  if (n == 0) return;  // as after Reset
  for (int i = 0; i < 16; ++i) {
    const auto at = (kTaps * (i + 1) - n) % 160;
    offset_[channel][static_cast<std::size_t>(i)] = static_cast<std::int32_t>(at < 0 ? at + 160 : at);
  }
  // Row i wrote cell 10 (i + 1) - m at block m, counted round the ring: the last to write a cell did so at most 9
  // blocks ago.
  for (int cell = 0; cell < 160; ++cell) {
    const std::int64_t age = (cell + n) % kTaps;
    const std::int64_t row = (((cell + n - age) / kTaps - 1) % 16 + 16) % 16;
    v[static_cast<std::size_t>(cell)] = value(static_cast<int>(row), age);
  }
  // The tail is the beginning of the ring as it stood when a row last passed it, which one row does in every ten
  // blocks.
  const std::int64_t sincePassed = (n - 1) % kTaps;
  const std::int64_t passed = n - sincePassed;  // the block at which it did
  const std::int64_t row = (((passed - 1) / kTaps - 1) % 16 + 16) % 16;
  for (int k = 0; k < kTaps - 1; ++k) {
    v[static_cast<std::size_t>(160 + k)] = value(static_cast<int>(row), sincePassed + 1 + k);
  }
}

void CSbcDecoder::SynthesizeFour() {
  constexpr int N = 4;
  for (std::size_t channel = 0; channel < static_cast<std::size_t>(channels_); ++channel) {
    LeaveList(channel);
    for (int block = 0; block < blocks_; ++block) {
      std::int32_t* s = samples_[channel].data() + block * N;
      std::array<Word, 2 * N> rows{};
      for (int i = 0; i < 2 * N; ++i) {
        for (int k = 0; k < N; ++k) rows[static_cast<std::size_t>(i)] += W(Cosine(2 * (i + 2) * (2 * k + 1))) * W(s[k]);
      }
      PushRing<N>(channel, rows.data());
      WindowRing<N>(channel, s);
    }
  }
}

void CSbcDecoder::SynthesizeEight() {
  for (std::size_t channel = 0; channel < static_cast<std::size_t>(channels_); ++channel) {
    BlockList& list = list_[channel];
    for (int block = 0; block < blocks_; ++block) {
      std::int32_t* s = samples_[channel].data() + block * 8;
      std::array<Word, 16> rows;
      MatrixEight(s, rows);
      if (list.used) {
        std::int32_t* newest = list.Push();
        for (std::size_t i = 0; i < 16; ++i) newest[i] = S(rows[i]) >> 15;
        windowRows(list.rows.data() + list.newest * 16, s);
      } else {
        PushRing<8>(channel, rows.data());
        WindowRing<8>(channel, s);
      }
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
