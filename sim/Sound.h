// The machine's sound: microphones behind wave-in, mixers, capture endpoints, and a render endpoint that plays.
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "platform/audio_types.h"
#include "sim/Kernel.h"

namespace sim {

class Machine;

// A capture device of wave-in, and what its driver does with buffers.
struct Microphone {
  explicit Microphone(std::wstring deviceName) : name(std::move(deviceName)) {}

  std::wstring name;                // the first 32 characters count
  std::vector<std::int16_t> hears;  // 16 kHz mono while a recording runs; then silence
  std::size_t heard = 0;            // samples so far
  // Habits of the driver.
  bool halfFull = false;      // returns buffers that are half full
  unsigned emptyEvery = 0;    // returns every n-th buffer empty
  bool overstates = false;    // claims more bytes than the buffer holds
  bool returnsTwice = false;  // says twice that a buffer is back
  Time late{0};               // before it says that a buffer is back
  bool keepsOne = false;      // does not give the last buffer back when it is reset
  Time jitter{0};             // fills a buffer so much later at most, at random; less than a buffer's time
  unsigned pulls = 0;         // how often it has been pulled out: who has opened it before has no driver
};

// A mixer with its wave-in destination.
struct MixerDevice {
  struct Source {
    DWORD componentType = MIXERLINE_COMPONENTTYPE_SRC_MICROPHONE;
    DWORD lineId = 1;
  };
  std::wstring name;
  std::vector<Source> sources{};
  DWORD bound = 65535;
  bool hasDestination = true;
  std::map<DWORD, DWORD> volumes{};  // by line: what has been set
};

struct CaptureEndpoint {
  std::wstring name;
  float volume = 0.5F;
  bool sessionMuted = false;  // of the program's own session (ISimpleAudioVolume)
  bool muted = false;         // the endpoint's (IAudioEndpointVolume)
};

// What plays, in the format that the engine mixes in.
struct RenderEndpoint {
  std::wstring name = L"Speakers";
  std::vector<std::uint8_t> mixFormat;  // a WAVEFORMATEX and what belongs to it
  std::vector<std::int16_t> plays;      // frames of all channels; then nothing
  std::size_t played = 0;               // samples so far
  REFERENCE_TIME period = 100'000;      // 100 ns
  std::size_t packetFrames = 0;         // 0: as many as a period has
  std::vector<DWORD> flags;             // of the packets, in turn; none: 0
  Time jitter{0};                       // a period ends so much later at most, at random; less than a period
  unsigned pulls = 0;                   // how often it has been pulled out: streams from before are invalid
};

// A mix format: 32-bit float or 16-bit integer, plain or extensible.
std::vector<std::uint8_t> mixFormat(int rate, int channels, bool isFloat, bool extensible);

// How the library has initialised its audio client.
struct ClientSetup {
  DWORD flags = 0;
  REFERENCE_TIME bufferDuration = 0;
  REFERENCE_TIME periodicity = 0;
  WORD formatTag = 0;
  WORD bits = 0;
  WORD blockAlign = 0;
  DWORD bytesPerSecond = 0;
};

// Every COM object goes with the machine: one that is used after its last Release is found out, and nothing breaks.
class ComObject {
 public:
  explicit ComObject(const char* interfaceName) : name(interfaceName) {}
  virtual ~ComObject() = default;
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;
  virtual void released() REQUIRES(gate) {}  // for the last time

  const char* const name;
  ULONG references = 1;
};

// A time from none to `most`, from the machine's own sequence.
inline Time jitter(Kernel& kernel, Time most) REQUIRES(gate) {
  if (most.count() <= 0) return Time{0};
  return Time(static_cast<std::int64_t>(kernel.random() % static_cast<std::uint64_t>(most.count() + 1)));
}

// What of a name fits into a field of a fixed size.
inline void fillName(WCHAR (&field)[MAXPNAMELEN], const std::wstring& name) {
  std::copy_n(name.begin(), std::min<std::size_t>(name.size(), MAXPNAMELEN), field);
}

class SoundSystem {
 public:
  explicit SoundSystem(Machine& machine) : machine_(machine) {}
  ~SoundSystem();
  SoundSystem(const SoundSystem&) = delete;
  SoundSystem& operator=(const SoundSystem&) = delete;

  std::vector<std::shared_ptr<Microphone>> microphones;
  std::vector<MixerDevice> mixers;
  std::vector<CaptureEndpoint> endpoints;
  RenderEndpoint speaker;
  bool hasSpeaker = false;

  // Pulls a microphone, or the speaker, out, also while they are recorded. Putting it back: microphones, hasSpeaker.
  void pullOut(const std::shared_ptr<Microphone>& microphone);
  void pullOutSpeaker();

  // ---- What the machine sees; all zero after a clean stop ----
  struct Open {
    std::size_t preparedHeaders = 0;
    std::size_t comReferences = 0;
    std::size_t apartments = 0;
    std::size_t taskMemory = 0;
    std::size_t mmcssTasks = 0;
    bool operator==(const Open&) const = default;
  };
  Open open;
  ClientSetup clientSetup;
  std::set<ComObject*> objects;  // with references
  std::set<void*> taskMemory;
  void add(std::unique_ptr<ComObject> object);

  Machine& machine() { return machine_; }

 private:
  Machine& machine_;
  std::vector<std::unique_ptr<ComObject>> allObjects_;  // released ones, too
};

}  // namespace sim
