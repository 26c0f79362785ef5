// A fixed-point decoder of the low-complexity subband codec (SBC), with the framing variant of the Wren.
#pragma once

#include <array>
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
  void PushHistory(int channel, const std::array<std::uint32_t, 2 * N>& newest);
  template <int N>
  void Window(int channel, std::int32_t* out) const;
  void PackOutput();
  std::uint32_t ReadBits(int position, int count) const;
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
  std::array<std::uint8_t, kFrameBytes> input_{};
};
