#include "sim/devices/AscCodec.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>

namespace sim {
namespace {

constexpr double kSmallestStep = 10;
constexpr double kLargestStep = 1280;
constexpr double kStepLeak = 1 - 1.0 / 128;
constexpr double kValueLeak = 1 - 1.0 / 32;

struct DecoderLibrary {
  AscCalls calls;
  std::map<unsigned short, CvsdStep> decoders;
  int reportedSamples = 0;
} library;

extern "C" {

std::uint16_t ascDecoderInit(int argument) {
  library.calls.init.push_back(argument);
  const auto id = static_cast<unsigned short>(library.calls.init.size());
  library.decoders[id] = {};
  return id;
}

int ascSetParameter(int first, int second) {
  library.calls.parameters.push_back({first, second});
  return 0;
}

std::int16_t ascDecoder(const unsigned char* packet, short* out, unsigned short id, int constant) {
  ++library.calls.packets;
  library.calls.lastId = id;
  library.calls.lastConstant = constant;
  CvsdStep& decoder = library.decoders[id];
  for (std::size_t i = 0; i < AscEncoder::kSamples; ++i) out[i] = decoder.next((packet[i / 8] >> (7 - i % 8) & 1) != 0);
  return static_cast<std::int16_t>(library.reportedSamples != 0 ? library.reportedSamples : int{AscEncoder::kSamples});
}

int ascSetVadParameter(void* block) {
  library.calls.vad.resize(13);
  std::memcpy(library.calls.vad.data(), block, 26);
  return 0;
}

void ascOutputFile() {}
}

template <class Function>
FARPROC address(Function* function) {
  return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(function));
}

}  // namespace

std::int16_t CvsdStep::next(bool up) {
  run_ = (run_ << 1 | (up ? 1U : 0U)) & 7U;
  // Three equal bits in a row: the slope is too flat.
  step_ = run_ == 0 || run_ == 7 ? std::min(kLargestStep, step_ + 40) : std::max(kSmallestStep, step_ * kStepLeak);
  value_ = std::clamp(value_ * kValueLeak + (up ? step_ : -step_), -32768.0, 32767.0);
  return static_cast<std::int16_t>(std::lround(value_));
}

std::array<std::uint8_t, AscEncoder::kBytes> AscEncoder::encode(std::span<const std::int16_t, kSamples> pcm) {
  std::array<std::uint8_t, kBytes> packet{};
  for (std::size_t i = 0; i < kSamples; ++i) {
    const bool up = pcm[i] > step_.estimate();
    step_.next(up);
    if (up) packet[i / 8] = static_cast<std::uint8_t>(packet[i / 8] | 0x80 >> i % 8);
  }
  return packet;
}

Library ascLibrary() {
  library = {};
  return {{"ASC_Decoder_Init", address(&ascDecoderInit)},
          {"ASC_Set_Parameter", address(&ascSetParameter)},
          {"ASC_Decoder", address(&ascDecoder)},
          {"ASC_Set_VAD_Parameter", address(&ascSetVadParameter)},
          {"Output_Decoder_PCM_File", address(&ascOutputFile)},
          {"Output_Decoder_Tail_File", address(&ascOutputFile)}};
}

const AscCalls& ascCalls() { return library.calls; }

void ascReportSamples(int count) { library.reportedSamples = count; }

}  // namespace sim
