// Streams of frames through the decoder, held against the codec written down a second time.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "audio/SbcDecoder.h"
#include "sim/devices/SbcReference.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  CSbcDecoder decoder;
  reference::Decoder expected;
  std::vector<std::int16_t> pcm;
  for (std::size_t at = 0; at + 3 <= size; at += CSbcDecoder::kFrameBytes) {
    auto& frame = decoder.Input();
    frame.fill(0);
    std::copy_n(data + at, std::min(frame.size(), size - at), frame.begin());
    const int result = decoder.DecodeFrame();
    if (result != expected.decode(frame.data(), pcm)) std::abort();
    if (result >= 0 && std::memcmp(decoder.StereoPcm().data(), pcm.data(), pcm.size() * 2) != 0) std::abort();
  }
  return 0;
}
