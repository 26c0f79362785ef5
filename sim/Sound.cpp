#include "sim/Sound.h"

#include <cstring>

#include "sim/Machine.h"

namespace sim {

SoundSystem::~SoundSystem() {
  for (ComObject* object : objects) delete object;
}

std::int64_t SoundSystem::fault(const std::string& call) {
  const auto it = faults_.find(call);
  if (it == faults_.end() || it->second.after-- > 0) return 0;
  return it->second.result;
}

void SoundSystem::stalled(Kernel::Lock& lock, const std::string& call) {
  if (const auto it = stalls_.find(call); it != stalls_.end()) machine_.kernel().sleep(lock, it->second);
}

std::vector<std::uint8_t> mixFormat(int rate, int channels, bool isFloat, bool extensible) {
  WAVEFORMATEXTENSIBLE format{};
  WAVEFORMATEX& basic = format.Format;
  basic.wFormatTag = extensible ? WAVE_FORMAT_EXTENSIBLE : isFloat ? WAVE_FORMAT_IEEE_FLOAT : WAVE_FORMAT_PCM;
  basic.nChannels = static_cast<WORD>(channels);
  basic.nSamplesPerSec = static_cast<DWORD>(rate);
  basic.wBitsPerSample = isFloat ? 32 : 16;
  basic.nBlockAlign = static_cast<WORD>(channels * basic.wBitsPerSample / 8);
  basic.nAvgBytesPerSec = basic.nBlockAlign * basic.nSamplesPerSec;
  basic.cbSize = extensible ? sizeof format - sizeof basic : 0;
  format.Samples.wValidBitsPerSample = basic.wBitsPerSample;
  format.SubFormat = {isFloat ? 3U : 1U, 0, 0x10, {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}};
  std::vector<std::uint8_t> bytes(sizeof basic + basic.cbSize);
  std::memcpy(bytes.data(), &format, bytes.size());
  return bytes;
}

}  // namespace sim
