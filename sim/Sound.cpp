#include "sim/Sound.h"

#include <cstring>
#include <new>

#include "sim/Machine.h"

namespace sim {

SoundSystem::~SoundSystem() {
  for (void* memory : taskMemory) ::operator delete(memory);
}

void SoundSystem::add(std::unique_ptr<ComObject> object) {
  objects.insert(object.get());
  ++open.comReferences;
  allObjects_.push_back(std::move(object));
}

void SoundSystem::pullOut(const std::shared_ptr<Microphone>& microphone) {
  std::erase(microphones, microphone);
  ++microphone->pulls;
}

void SoundSystem::pullOutSpeaker() {
  hasSpeaker = false;
  ++speaker.pulls;
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
