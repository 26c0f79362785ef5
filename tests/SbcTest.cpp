// The speech codec: the library's decoder against the codec written down a second time.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "audio/SbcDecoder.h"
#include "sim/devices/SbcEncoder.h"
#include "sim/devices/SbcReference.h"

namespace {

using Frame = std::array<std::uint8_t, CSbcDecoder::kFrameBytes>;

// Random frames, most of them such as are accepted.
Frame randomFrame(std::mt19937_64& random) {
  Frame frame;
  for (std::uint8_t& byte : frame) byte = static_cast<std::uint8_t>(random());
  frame[0] = random() % 32 == 0 ? frame[0] : random() % 2 == 0 ? 0x9C : 0xAD;
  if (random() % 4 != 0) frame[2] = static_cast<std::uint8_t>(frame[2] % 16);
  if (random() % 64 == 0) frame[1] = frame[2] = 0;
  // Scale factors at both ends: sums and samples that wrap, and subbands without bits.
  if (random() % 4 == 0)
    std::fill(frame.begin() + 4, frame.begin() + 12, static_cast<std::uint8_t>(random() % 2 == 0 ? 0xFF : 0));
  if (random() % 8 == 0) frame[4] = 0xF0;
  return frame;
}

// until: where frames of any number of subbands begin.
void compareStreams(std::uint64_t seed, int frames, int subbandsOnly, int resetEvery, int until = 1'000'000) {
  std::mt19937_64 random(seed);
  CSbcDecoder decoder;
  auto expected = std::make_unique<reference::Decoder>();
  std::vector<std::int16_t> pcm;
  int decoded = 0;
  for (int n = 0; n < frames; ++n) {
    if (resetEvery != 0 && random() % static_cast<unsigned>(resetEvery) == 0) {
      decoder.Reset();
      expected = std::make_unique<reference::Decoder>();
    }
    Frame frame = randomFrame(random);
    if (subbandsOnly != 0 && n < until)
      frame[1] = static_cast<std::uint8_t>((frame[1] & ~1) | (subbandsOnly == 8 ? 1 : 0));
    decoder.Input() = frame;
    const int result = decoder.DecodeFrame();
    ASSERT_EQ(result, expected->decode(frame.data(), pcm)) << "frame " << n;
    if (result < 0) continue;
    ++decoded;
    ASSERT_EQ(decoder.SamplesPerChannel() * decoder.Channels(), static_cast<int>(pcm.size()));
    ASSERT_EQ(std::memcmp(decoder.StereoPcm().data(), pcm.data(), pcm.size() * 2), 0) << "frame " << n;
  }
  EXPECT_GT(decoded, frames / 8);
}

TEST(SbcDecoder, IsBitExactForRandomStreams) {
  compareStreams(1, 20'000, 8, 0);
  compareStreams(2, 20'000, 4, 0);
  compareStreams(3, 20'000, 0, 0);
  compareStreams(4, 40'000, 0, 12);  // 4 and 8 subbands in one history, from many beginnings
  for (int n = 1; n <= 300; ++n) compareStreams(static_cast<unsigned>(n), n + 100, 8, 0, n);
}

TEST(SbcDecoder, RejectsWhatItCannotDecode) {
  const struct {
    std::uint8_t bytes[3];
    int result;
  } cases[] = {
      {{0x9D, 0x31, 0x0C}, -126}, {{0xAD, 0x00, 0x00}, -123},  // bitpool 26: 41 bytes
      {{0xAD, 0x31, 0x0C}, 23},   {{0xAD, 0x31, 0x0D}, -123},  // 25 bytes
      {{0x9C, 0x00, 0x41}, -123}, {{0x9C, 0x00, 0x40}, -123},
  };
  for (const auto& c : cases) {
    CSbcDecoder decoder;
    std::copy_n(c.bytes, 3, decoder.Input().begin());
    EXPECT_EQ(decoder.DecodeFrame(), c.result);
  }
  CSbcDecoder decoder;
  decoder.Input()[0] = 0xAD;
  EXPECT_EQ(decoder.DecodeFrame(), -123);
  EXPECT_EQ(decoder.FrameLength(), 41);
}

}  // namespace
