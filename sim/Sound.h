// The machine's sound: microphones behind wave-in, mixers, capture endpoints, and a render endpoint that plays.
#pragma once

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
  bool muted = false;
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

// A COM object that is not released goes with the machine.
class ComObject {
 public:
  virtual ~ComObject() = default;
};

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

  // Makes a call fail with this result, after so many that succeed. Names as "waveInOpen", "IAudioClient::Start".
  void fail(const std::string& call, std::int64_t result, int after = 0) { faults_[call] = {result, after}; }
  void repair() {
    faults_.clear();
    stalls_.clear();
  }
  // Makes a call of wave-in or of an audio interface take so long.
  void stall(const std::string& call, Time time) { stalls_[call] = time; }
  void stalled(Kernel::Lock& lock, const std::string& call);
  // 0 when the call is to succeed.
  std::int64_t fault(const std::string& call);

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
  std::set<ComObject*> objects;

  Machine& machine() { return machine_; }

 private:
  struct Fault {
    std::int64_t result;
    int after;
  };
  Machine& machine_;
  std::map<std::string, Fault> faults_;
  std::map<std::string, Time> stalls_;
};

}  // namespace sim
