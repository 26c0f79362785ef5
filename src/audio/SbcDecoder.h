// A fixed-point decoder of the low-complexity subband codec (SBC), with the framing variant of the Wren.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// Of 8 subbands, the samples of up to 16 blocks.
using SbcSamples = std::int32_t[8][16];

// The values of each row of the synthesis matrix for 8 subbands in the order of time. Row 4 is always 0, and rows 13 to
// 15 are rows 11 to 9.
struct SbcRowList {
  static constexpr std::size_t kRemembered = 20;  // blocks: as far back as the ring below and its tail reach
  using Rows = std::int32_t[13][kRemembered + 80];
  static constexpr std::size_t Stored(std::size_t row) { return row <= 12 ? row : 24 - row; }

  bool used = true;
  std::size_t next = kRemembered;  // where the next block is put
  std::int64_t blocks = 0;         // since Reset
  Rows rows{};
};

// Decodes one frame at a time. All arithmetic is in 32 bits and wraps; the output wraps into 16 bits and is not
// clipped. It comes at half the level of the codec's usual decoders (-6.02 dB). One thread at a time.
class CSbcDecoder {
 public:
  static constexpr int kFrameBytes = 23;  // the longest frame
  static constexpr int kErrorBitpool = -125;
  static constexpr int kErrorTooLong = -123;
  static constexpr int kErrorSync = -126;

  CSbcDecoder() { Reset(); }

  // Forgets everything, the synthesis history included.
  void Reset();
  // Where the next frame is put before DecodeFrame.
  std::array<std::uint8_t, kFrameBytes>& Input() { return input_; }
  // Returns the number of bytes that the frame used, or one of the errors above, which leave the history as it was and
  // bring no output.
  int DecodeFrame();
  // Size in bytes of a frame with the header that was decoded last.
  int FrameLength() const;
  // The PCM of the frame decoded last: signed 16-bit little-endian, SamplesPerChannel samples of a mono frame. Of a
  // frame with two channels, as many samples of both, interleaved: the first half of StereoPcm.
  std::span<const unsigned char> Pcm() const { return {Output(), 2U * samplesPerChannel_}; }
  std::span<const unsigned char> StereoPcm() const { return {Output(), 4U * samplesPerChannel_}; }

  int Channels() const { return channels_; }
  int SamplesPerChannel() const { return samplesPerChannel_; }
  int SampleRate() const { return sampleRate_; }

 private:
  enum Mode : std::uint8_t { kMono, kDualChannel, kStereo, kJointStereo };
  enum Allocation : std::uint8_t { kLoudness, kSnr };
  static constexpr int kMaxChannels = 2;
  static constexpr int kMaxSubbands = 8;
  static constexpr int kMaxBlocks = 16;

  bool ParseHeader();
  // Where a subband stands in the allocation of bits: remaining ones go to both channels of a subband before the next
  // subband when the channels share them.
  std::size_t Entry(std::size_t ch, std::size_t sb) const {
    return mode_ >= kStereo ? 2 * sb + ch : ch * subbands_ + sb;
  }
  void CalculateBits();
  void AllocateBits(std::span<const std::int8_t> bitneed, std::span<std::int8_t> bits) const;
  void ReadSamples(int& position);
  void UndoJointStereo();
  void SynthesizeList(std::size_t channel);
  template <std::size_t N>
  void SynthesizeRing(std::size_t channel);
  template <std::size_t N>
  void PushRing(std::size_t channel, const std::int32_t* newest);
  void LeaveList(std::size_t channel);
  const unsigned char* Output() const {
    return reinterpret_cast<const unsigned char*>(channels_ == 2 ? stereo_.data() : pcm_[0].data());
  }

  std::uint8_t blocks_ = 0;
  std::uint8_t subbands_ = 0;
  std::uint8_t joint_ = 0;  // bit n: subband n
  std::uint8_t bitpool_ = 0;
  std::uint8_t mode_ = kMono;
  std::uint8_t frequencyIndex_ = 0;
  std::uint8_t allocation_ = kLoudness;
  std::array<std::int8_t, kMaxChannels * kMaxSubbands> bits_{};
  std::array<std::array<std::int8_t, kMaxSubbands>, kMaxChannels> scaleFactor_{};
  std::uint8_t channels_ = 0;
  std::uint8_t samplesPerChannel_ = 0;
  std::uint16_t sampleRate_ = 0;
  std::array<SbcSamples, kMaxChannels> samples_{};
  std::array<std::array<std::int16_t, kMaxBlocks * kMaxSubbands>, kMaxChannels> pcm_{};
  std::array<std::int16_t, kMaxChannels * kMaxBlocks * kMaxSubbands> stereo_{};
  // Per channel a ring of 20 values per subband with a tail that repeats its beginning, and for each of the
  // 2 * subbands rows of the synthesis matrix the position of its newest value. Rows keep 10 places apart.
  std::array<std::array<std::int32_t, 170>, kMaxChannels> V_{};
  std::array<std::array<std::int32_t, 16>, kMaxChannels> offset_{};
  std::array<SbcRowList, kMaxChannels> list_{};  // what a channel uses instead while it has only seen 8 subbands
  std::array<std::uint8_t, kFrameBytes> input_{};
};
