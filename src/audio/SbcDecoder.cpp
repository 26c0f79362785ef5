#include "audio/SbcDecoder.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <utility>

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

// The synthesis matrix, floor(65536 cos((i + N / 2)(2k + 1) pi / 2N)).
template <int N>
constexpr auto kMatrix = [] {
  std::array<std::array<Word, N>, 2 * N> matrix{};
  for (int i = 0; i < 2 * N; ++i) {
    for (int k = 0; k < N; ++k) {
      matrix[static_cast<std::size_t>(i)][static_cast<std::size_t>(k)] = W(Cosine(8 / N * (i + N / 2) * (2 * k + 1)));
    }
  }
  return matrix;
}();

// Four neighbouring blocks, one to a lane.
using Words [[gnu::vector_size(16)]] = Word;
using Ints [[gnu::vector_size(16)]] = std::int32_t;

// From here to SynthesizeBlocks all is compiled twice, and is inline by order: of its own accord a compiler for 32 bits
// puts no function for any processor, W neither, into one for a newer.
[[gnu::always_inline]] inline Words Load(const std::int32_t* from) {
  Words words;
  std::memcpy(&words, from, sizeof words);
  return words;
}

// Row n - 4 of the matrix, n odd, of the differences between a column and its mirror.
template <int n>
[[gnu::always_inline]] inline Words OddRow(const Words* d) {
  constexpr Word c[] = {W(Cosine(n)), W(Cosine(3 * n)), W(Cosine(5 * n)), W(Cosine(7 * n))};
  return c[0] * d[0] + c[1] * d[1] + c[2] * d[2] + c[3] * d[3];
}

// Row n - 4, n = 6 or 14, of the sums. The columns k and 3 - k are opposite in it, too.
template <int n>
[[gnu::always_inline]] inline Words EvenRow(const Words* e) {
  constexpr Word c[] = {W(Cosine(n)), W(Cosine(3 * n))};
  return c[0] * (e[0] - e[3]) + c[1] * (e[1] - e[2]) - e[3] - e[2];
}

// The 16 x 8 synthesis matrix K[i][k] = floor(65536 cos((i + 4)(2k + 1) pi / 16)) has few numbers of its own. Its rows
// and columns mirror each other; where the mirror changes the sign, floor(-x) = -floor(x) - 1 makes one sample to
// subtract out of each product. All of that is exact in arithmetic that wraps, so 20 products replace 128.
[[gnu::always_inline]] inline void MatrixEight(const SbcSamples& samples, std::size_t block, SbcRowList::Rows& rows,
                                               std::size_t at) {
  Words e[4];  // column k and its mirror 7 - k: equal in rows with even i
  Words d[4];  // opposite in rows with odd i
  Words mirrored{};
  for (std::size_t k = 0; k < 4; ++k) {
    const Words a = Load(samples[k] + block);
    const Words b = Load(samples[7 - k] + block);
    e[k] = a + b;
    d[k] = a - b;
    mirrored += b;
  }
  const Words all = e[0] + e[1] + e[2] + e[3];
  constexpr Word c4 = W(Cosine(4));
  constexpr Word c12 = W(Cosine(12));
  const Words r0 = c4 * (e[0] + e[3]) + c12 * (e[1] + e[2]);
  const Words r1 = OddRow<5>(d) - mirrored;
  const Words r2 = EvenRow<6>(e);
  const Words r3 = OddRow<7>(d) - mirrored;
  const Words r9 = OddRow<13>(d) - mirrored;
  const Words r10 = EvenRow<14>(e);
  const Words r11 = OddRow<15>(d) - mirrored;
  const Words r[] = {r0, r1, r2, r3, {}, -r3 - all, -r2 - all, -r1 - all, -r0 - all, r9, r10, r11, -(all << 16)};
  for (std::size_t i = 0; i < sizeof r / sizeof *r; ++i) {
    const Ints values = (Ints)r[i] >> 15;
    std::memcpy(rows[i] + at, &values, sizeof values);
  }
}

// Output i from the row values of the last ten blocks.
template <std::size_t i>
[[gnu::always_inline]] inline Words WindowEight(const SbcRowList::Rows& rows, std::size_t at) {
  constexpr std::size_t oddRow = SbcRowList::Stored(i + 8);
  Words sum{};
  for (std::size_t j = 0; j < kTaps; j += 2) {
    if (i != 4) sum += static_cast<Word>(kWindow8[i][j]) * Load(rows[i] + at - j);  // row 4 is 0
    sum += static_cast<Word>(kWindow8[i][j + 1]) * Load(rows[oddRow] + at - j - 1);
  }
  return sum;
}

// Outputs i and i + 1, two 16-bit samples to a word.
template <std::size_t i>
[[gnu::always_inline]] inline Words WindowTwo(const SbcRowList::Rows& rows, std::size_t at) {
  return WindowEight<i>(rows, at) >> 16 | (WindowEight<i + 1>(rows, at) & 0xFFFF0000U);
}

// All outputs, the lanes made into blocks.
[[gnu::always_inline]] inline void WriteFourBlocks(const SbcRowList::Rows& rows, std::size_t at, std::int16_t* pcm) {
  const Words a = WindowTwo<0>(rows, at);
  const Words b = WindowTwo<2>(rows, at);
  const Words c = WindowTwo<4>(rows, at);
  const Words d = WindowTwo<6>(rows, at);
  const Words ab[] = {__builtin_shufflevector(a, b, 0, 4, 1, 5), __builtin_shufflevector(a, b, 2, 6, 3, 7)};
  const Words cd[] = {__builtin_shufflevector(c, d, 0, 4, 1, 5), __builtin_shufflevector(c, d, 2, 6, 3, 7)};
  for (std::size_t half = 0; half < 2; ++half) {
    const Words two[] = {__builtin_shufflevector(ab[half], cd[half], 0, 1, 4, 5),
                         __builtin_shufflevector(ab[half], cd[half], 2, 3, 6, 7)};
    std::memcpy(pcm + 16 * half, two, sizeof two);
  }
}

// From samples to PCM, up to the next multiple of four blocks.
[[gnu::always_inline]] inline void SynthesizeBlocks(const SbcSamples& samples, std::size_t blocks, SbcRowList& list,
                                                    std::int16_t* pcm) {
  const std::size_t at = list.next;
  for (std::size_t block = 0; block < blocks; block += 4) MatrixEight(samples, block, list.rows, at + block);
  for (std::size_t block = 0; block < blocks; block += 4) WriteFourBlocks(list.rows, at + block, pcm + 8 * block);
}

void SynthesizePlain(const SbcSamples& samples, std::size_t blocks, SbcRowList& list, std::int16_t* pcm) {
  SynthesizeBlocks(samples, blocks, list, pcm);
}

#if defined(__x86_64__) || defined(__i386__)
// The same with the vector product of 32-bit words, which the baseline of the architecture lacks.
[[gnu::target("sse4.1")]] void SynthesizeSse41(const SbcSamples& samples, std::size_t blocks, SbcRowList& list,
                                               std::int16_t* pcm) {
  SynthesizeBlocks(samples, blocks, list, pcm);
}

const auto synthesizeBlocks = __builtin_cpu_supports("sse4.1") ? &SynthesizeSse41 : &SynthesizePlain;
#else
const auto synthesizeBlocks = &SynthesizePlain;
#endif

// Division by 2^bits - 1 as a multiplication: floor(n / (2^bits - 1)) = (n + 1) * value >> shift for every n up to
// 2^31, because value = (2^shift - 1) / (2^bits - 1) is a whole number (shift is a multiple of bits) and shift is at
// least 32.
struct Reciprocal {
  Word value;
  int shift;
};
constexpr auto kReciprocals = [] {
  std::array<Reciprocal, kMaxBits + 1> reciprocals{};
  for (int bits = 1; bits <= kMaxBits; ++bits) {
    const int shift = (32 + bits - 1) / bits * bits;
    const auto value = ((std::uint64_t{1} << shift) - 1) / ((std::uint64_t{1} << bits) - 1);
    reciprocals[static_cast<std::size_t>(bits)] = {static_cast<Word>(value), shift};
  }
  return reciprocals;
}();

constexpr Word BigEndian(const std::uint8_t* bytes) {
  return Word{bytes[0]} << 24 | Word{bytes[1]} << 16 | Word{bytes[2]} << 8 | bytes[3];
}

}  // namespace

void CSbcDecoder::Reset() {
  blocks_ = subbands_ = channels_ = 0;
  joint_ = bitpool_ = mode_ = frequencyIndex_ = allocation_ = samplesPerChannel_ = 0;
  sampleRate_ = 0;
  bits_ = {};
  scaleFactor_ = {};
  samples_ = {};
  pcm_ = {};
  stereo_ = {};
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
    blocks_ = static_cast<std::uint8_t>(variant ? kVariantBlocks : 4 * ((input_[1] >> 4 & 3) + 1));
    mode_ = input_[1] >> 2 & 3;
    allocation_ = input_[1] >> 1 & 1;
    subbands_ = static_cast<std::uint8_t>(4 * ((input_[1] & 1) + 1));
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
  for (std::size_t ch = 0; ch < channels_; ++ch) {
    for (std::size_t sb = 0; sb < subbands_; ++sb, position += kScaleFactorBits) {
      const int two = input_[static_cast<std::size_t>(position / 8)];
      scaleFactor_[ch][sb] = static_cast<std::int8_t>(position % 8 == 0 ? two >> 4 : two & 15);
    }
  }
  CalculateBits();
  ReadSamples(position);
  if (mode_ == kJointStereo) UndoJointStereo();
  for (std::size_t ch = 0; ch < channels_; ++ch) {
    if (subbands_ == 4) {
      LeaveList(ch);
      SynthesizeRing<4>(ch);
    } else if (list_[ch].used) {
      SynthesizeList(ch);
    } else {
      SynthesizeRing<8>(ch);
    }
  }
  if (channels_ == 2) {
    for (std::size_t i = 0; i < samplesPerChannel_; ++i) {
      stereo_[2 * i] = pcm_[0][i];
      stereo_[2 * i + 1] = pcm_[1][i];
    }
  }
  return (position + 7) / 8;
}

void CSbcDecoder::CalculateBits() {
  std::array<std::int8_t, kMaxChannels * kMaxSubbands> bitneed{};
  for (std::size_t ch = 0; ch < channels_; ++ch) {
    for (std::size_t sb = 0; sb < subbands_; ++sb) {
      int need = scaleFactor_[ch][sb];
      if (allocation_ == kLoudness) {
        const int offset = subbands_ == 4 ? kOffset4[frequencyIndex_][sb] : kOffset8[frequencyIndex_][sb];
        const int loudness = need - offset;
        need = need == 0 ? -5 : (loudness > 0 ? loudness / 2 : loudness);
      }
      bitneed[Entry(ch, sb)] = static_cast<std::int8_t>(need);
    }
  }
  bits_ = {};
  const std::size_t entries = std::size_t{channels_} * subbands_;
  const std::size_t unit = mode_ == kDualChannel ? subbands_ : entries;
  for (std::size_t first = 0; first < entries; first += unit) {
    AllocateBits({bitneed.data() + first, unit}, {bits_.data() + first, unit});
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

// A subband at a time: it has the same place in every block.
void CSbcDecoder::ReadSamples(int& position) {
  const std::size_t blocks = blocks_;
  std::array<std::uint8_t, kFrameBytes + 3> frame{};  // four bytes are read from any place
  std::copy(input_.begin(), input_.end(), frame.begin());
  const int blockBits = std::accumulate(bits_.begin(), bits_.end(), 0);
  const int end = position + blocks_ * blockBits;
  for (std::size_t ch = 0; ch < channels_; ++ch) {
    for (std::size_t sb = 0; sb < subbands_; ++sb) {
      auto& samples = samples_[ch][sb];
      const int bits = bits_[Entry(ch, sb)];
      if (bits == 0) {
        std::fill(std::begin(samples), std::end(samples), 0);
        continue;
      }
      auto at = static_cast<unsigned>(position);
      for (std::size_t block = 0; block < blocks; ++block, at += static_cast<unsigned>(blockBits)) {
        samples[block] = S(BigEndian(frame.data() + at / 8) << at % 8);
      }
      position += bits;
      const int scale = scaleFactor_[ch][sb];
      const Reciprocal reciprocal = kReciprocals[static_cast<std::size_t>(bits)];
      for (std::size_t block = 0; block < (blocks + 3) / 4 * 4; ++block) {
        std::int32_t& sample = samples[block];
        const std::int32_t dividend = S((2 * (W(sample) >> (32 - bits)) + 1) << scale);
        const Word sign = W(dividend >> 31);
        const Word magnitude = (W(dividend) ^ sign) - sign;
        const auto high = static_cast<Word>(std::uint64_t{magnitude + 1} * reciprocal.value >> 32);
        const Word quotient = high >> (reciprocal.shift - 32);
        sample = S(((quotient ^ sign) - sign) - (Word{1} << scale));
      }
    }
  }
  position = end;
}

void CSbcDecoder::UndoJointStereo() {
  for (std::size_t sb = 0; sb < kMaxSubbands; ++sb) {
    if ((joint_ >> sb & 1) == 0) continue;
    for (std::size_t block = 0; block < kMaxBlocks; ++block) {
      const Word s0 = W(samples_[0][sb][block]);
      const Word s1 = W(samples_[1][sb][block]);
      samples_[0][sb][block] = S(s0 + s1);
      samples_[1][sb][block] = S(s0 - s1);
    }
  }
}

// ---- The synthesis history ------------------------------------------------------------------------------------------
//
// The history is defined as a ring of 20 values per subband with a tail, and a position in it for each row; when frames
// of 4 and of 8 subbands follow each other, their rows overlap in it and every cell counts. As long as a channel has
// only seen 8 subbands, nobody can tell that ring from a plain list of each row's values, which the processor likes
// better.

void CSbcDecoder::SynthesizeList(std::size_t channel) {
  SbcRowList& list = list_[channel];
  if (list.next + kMaxBlocks > std::size(list.rows[0])) {
    for (auto& row : list.rows) std::copy_n(row + list.next - SbcRowList::kRemembered, SbcRowList::kRemembered, row);
    list.next = SbcRowList::kRemembered;
  }
  synthesizeBlocks(samples_[channel], blocks_, list, pcm_[channel].data());
  list.next += blocks_;
  list.blocks += blocks_;
}

// Puts the newest value of each row into the ring, one row after the other: where rows overlap, the order counts.
template <std::size_t N>
void CSbcDecoder::PushRing(std::size_t channel, const std::int32_t* newest) {
  auto& v = V_[channel];
  auto& offset = offset_[channel];
  for (std::size_t i = 0; i < 2 * N; ++i) {
    if (--offset[i] < 0) {
      offset[i] = 20 * N - 1;
      std::copy_n(v.begin(), kTaps - 1, v.begin() + 20 * N);
    }
    v[static_cast<std::size_t>(offset[i])] = newest[i];
  }
}

template <std::size_t N>
void CSbcDecoder::SynthesizeRing(std::size_t channel) {
  const auto& v = V_[channel];
  const auto& offset = offset_[channel];
  std::int16_t* out = pcm_[channel].data();
  for (std::size_t block = 0; block < blocks_; ++block) {
    std::array<std::int32_t, 2 * N> newest;
    for (std::size_t i = 0; i < 2 * N; ++i) {
      Word sum = 0;
      for (std::size_t k = 0; k < N; ++k) sum += kMatrix<N>[i][k] * W(samples_[channel][k][block]);
      newest[i] = S(sum) >> 15;
    }
    PushRing<N>(channel, newest.data());
    for (std::size_t i = 0; i < N; ++i) {
      const std::int32_t* window = N == 8 ? kWindow8[i] : kWindow4[i];
      const std::int32_t* even = v.data() + offset[i];
      const std::int32_t* odd = v.data() + offset[i + N];
      Word sum = 0;
      for (std::size_t j = 0; j < kTaps; j += 2) sum += W(window[j]) * W(even[j]) + W(window[j + 1]) * W(odd[j + 1]);
      *out++ = static_cast<std::int16_t>(sum >> 16);
    }
  }
}

// Makes the ring as it would stand had it been used from the beginning: what the list remembers passes through it.
void CSbcDecoder::LeaveList(std::size_t channel) {
  SbcRowList& list = list_[channel];
  if (!std::exchange(list.used, false) || list.blocks == 0) return;
  for (int i = 0; i < 16; ++i) {
    const auto at =
        static_cast<std::int32_t>((kTaps * (i + 1) + static_cast<int>(SbcRowList::kRemembered) - list.blocks) % 160);
    offset_[channel][static_cast<std::size_t>(i)] = at < 0 ? at + 160 : at;
  }
  for (std::size_t block = list.next - SbcRowList::kRemembered; block < list.next; ++block) {
    std::array<std::int32_t, 16> newest;
    for (std::size_t i = 0; i < 16; ++i) newest[i] = list.rows[SbcRowList::Stored(i)][block];
    PushRing<8>(channel, newest.data());
  }
}
