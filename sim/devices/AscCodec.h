// A stand-in for the closed speech codec of the Tern: continuously variable slope delta modulation, one bit a sample.
// The encoder is in the virtual device; the decoder is the loadable library asc_lib.dll.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "sim/Machine.h"

namespace sim {

class CvsdStep {
 public:
  // Takes one bit and returns the sample that it stands for.
  std::int16_t next(bool up);
  double estimate() const { return value_; }

 private:
  double value_ = 0;
  double step_ = 10;
  unsigned run_ = 0;
};

class AscEncoder {
 public:
  static constexpr std::size_t kSamples = 320;
  static constexpr std::size_t kBytes = 40;
  std::array<std::uint8_t, kBytes> encode(std::span<const std::int16_t, kSamples> pcm);

 private:
  CvsdStep step_;
};

// What the library has been called with.
struct AscCalls {
  std::vector<int> init;                       // the argument of each ASC_Decoder_Init
  std::vector<std::array<int, 2>> parameters;  // ASC_Set_Parameter
  std::vector<std::int16_t> vad;               // the 13 values of the last ASC_Set_VAD_Parameter
  int packets = 0;
  unsigned short lastId = 0;
  int lastConstant = 0;
};

// The library, to be installed as L"asc_lib.dll". Installing it starts a new count of calls.
Library ascLibrary();
const AscCalls& ascCalls();
// Makes ASC_Decoder report so many samples instead of 320 (0: as it should).
void ascReportSamples(int count);

}  // namespace sim
