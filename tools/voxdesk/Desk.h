// The hardware that voxdesk works with. Two programs are made of the same commands: one whose desk is simulated
// (SimulatedDesk.cpp), or on Linux the devices that are plugged in (HardwareDesk.cpp); and on Windows one whose desk is
// the computer that it runs on (RealDesk.cpp).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Commands.h"

// Of speech: 16 kHz, mono.
inline double secondsOf(std::uint64_t samples) { return static_cast<double>(samples) / 16000; }

// A capture device of the computer, by its wave-in index.
struct SoundSource {
  std::string name;
  std::optional<double> seconds;  // until it has nothing more to say; nothing: it never ends
};

struct SoundEndpoint {
  std::string name;
  double volume = 0;  // 0 to 1
  bool muted = false;
};

struct SoundOutput {
  int rate = 0;  // Hz
  int channels = 0;
  std::optional<double> seconds;
};

// What the library leaves open, deliberately, when it has been stopped.
struct LeftOpen {
  std::size_t handles = 0;
  std::size_t comReferences = 0;
};

class Desk {
 public:
  virtual ~Desk() = default;

  // Plugs everything in, where that is ours to do.
  virtual void setUp() = 0;
  virtual double seconds() = 0;  // since the desk was made
  // Lets time pass.
  virtual void run(std::chrono::milliseconds time) = 0;
  // What the main job says when it begins.
  virtual std::string greeting() const = 0;
  // What is to be said first of all; empty: nothing.
  virtual std::string hint() const { return {}; }
  // What may help when no device has answered; empty: nothing.
  virtual std::string advice() const { return {}; }
  // What of a computer is not on this desk, as a sentence without its full stop; empty: nothing is missing.
  virtual std::string missing() const { return {}; }
  // Why this user may not open the interface, and what to do about it; empty when that is not the reason.
  virtual std::string denied(const std::string& path) {
    (void)path;
    return {};
  }
  // What looks like a HID interface and is none, a sentence each without its full stop.
  virtual std::vector<std::string> damaged() { return {}; }
  // How many devices are going to be announced; nothing when nobody knows.
  virtual std::optional<std::size_t> expectedDevices() const = 0;

  // Whose voice key the desk can hold, as "Wren"; empty when it takes a hand.
  virtual std::string voiceKeyOwner() const = 0;
  virtual void holdVoiceKey(bool down) = 0;
  // How long the devices have something to say, or to replay; nothing when nobody knows.
  virtual std::optional<double> speechSeconds() const = 0;

  virtual std::vector<SoundSource> microphones() = 0;
  virtual std::vector<SoundEndpoint> endpoints() = 0;
  virtual std::optional<SoundOutput> speaker() = 0;

  // HID devices among the older hardware that are plugged in.
  virtual std::size_t legacyHids() = 0;
  // How far recorded devices have carried, in sentences.
  virtual std::vector<std::string> replayed() { return {}; }
  // What the library has left open beyond what is by design, as a text; empty when nothing is, or nobody knows.
  virtual std::string leftOpen(const LeftOpen& byDesign) = 0;
};

// busy: somebody uses a simulated desk, so that there is something to watch.
std::unique_ptr<Desk> makeDesk(const Options& options, bool busy);

// Which of the two programs this is.
extern const bool kSimulated;
// What the help says of it.
extern const char* const kAbout;
// Where arguments ask for the other program, that is run in its place: its exit code.
std::optional<int> runOther(int argc, char** argv);
