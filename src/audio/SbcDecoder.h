// A fixed-point decoder of the low-complexity subband codec (SBC), with the framing variant of the Wren.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

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
  using PerSubband = std::array<std::array<std::int8_t, kMaxSubbands>, kMaxChannels>;

  bool ParseHeader();
  void CalculateBits();
  void AllocateBits(std::span<const std::int8_t> bitneed, std::span<std::int8_t> bits) const;
  void ReadSamples(int& position);
  void UndoJointStereo();
  void SynthesizeFour();
  void SynthesizeEight();
  template <int N>
  void PushRing(std::size_t channel, const std::uint32_t* newest);
  template <int N>
  void WindowRing(std::size_t channel, std::int32_t* out) const;
  void LeaveList(std::size_t channel);
  void PackOutput();
  const unsigned char* Output() const { return reinterpret_cast<const unsigned char*>(samples_[0].data()); }

  std::int8_t blocks_ = 0;
  std::int8_t subbands_ = 0;
  std::uint8_t joint_ = 0;  // bit n: subband n
  std::uint8_t bitpool_ = 0;
  std::uint8_t mode_ = kMono;
  std::uint8_t frequencyIndex_ = 0;
  std::uint8_t allocation_ = kLoudness;
  PerSubband bits_{};
  PerSubband scaleFactor_{};
  std::array<std::array<std::int32_t, kMaxSubbands>, kMaxChannels> levels_{};
  std::int8_t channels_ = 0;
  std::uint8_t samplesPerChannel_ = 0;
  std::uint16_t sampleRate_ = 0;
  // Index block * subbands + subband. Holds subband samples, then PCM, then the packed 16-bit output.
  std::array<std::array<std::int32_t, kMaxBlocks * kMaxSubbands>, kMaxChannels> samples_{};
  // Per channel a ring of 20 values per subband with a tail that repeats its beginning, and for each of the
  // 2 * subbands rows of the synthesis matrix the position of its newest value. Rows keep 10 places apart.
  std::array<std::array<std::int32_t, 170>, kMaxChannels> V_{};
  std::array<std::array<std::int32_t, 16>, kMaxChannels> offset_{};
  // What a channel uses instead while it has only seen 8 subbands: the 16 row values of each of the last blocks, the
  // newest first.
  struct BlockList {
    static constexpr std::size_t kRemembered = 20;  // as far back as the ring and its tail reach
    static constexpr std::size_t kLength = 84;
    std::int32_t* Push();

    bool used = true;
    std::size_t newest = kLength - kRemembered;
    std::int64_t blocks = 0;  // since Reset
    std::array<std::int32_t, kLength * 16> rows{};
  };
  std::array<BlockList, kMaxChannels> list_{};
  std::array<std::uint8_t, kFrameBytes> input_{};
};
