// The description of a desk: which devices are on it, and what happens to them.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "sim/Sound.h"
#include "sim/devices/Legacy.h"
#include "sim/devices/Mice.h"
#include "sim/devices/Recorded.h"

namespace sim {

// A moment of the user's hands.
struct DeskAction {
  enum class Kind { key, power, sleep, wake, unplug, plug };
  double at = 0;  // seconds since the desk was set up
  Kind kind = Kind::key;
  char key = '0';
  std::uint8_t power = 0;
};

struct DeskDevice {
  std::string model;
  Link link = Link::usb;
  std::optional<std::uint8_t> battery;
  std::optional<std::uint16_t> dpi;
  std::string serial{};
  std::optional<std::array<std::uint8_t, 6>> address{};
  std::vector<std::int16_t> speech{};
  std::vector<std::pair<std::uint8_t, Answering>> answers{};  // by command code
  UpdateScript firstUpdate{};  // how the device takes an update, and how its receiver does
  UpdateScript secondUpdate{};
  bool refuseOpen = false;
  bool failWrites = false;
  std::vector<DeskAction> timeline{};
};

struct DeskMicrophone {
  std::string name;
  std::vector<std::int16_t> hears;
};

struct DeskSpeaker {
  std::vector<std::int16_t> plays;  // frames of all channels
  int rate = 16000;
  int channels = 1;
  bool integers = false;  // mixes in integers, which the library refuses
};

struct DeskSound {
  std::vector<DeskMicrophone> microphones;
  std::vector<MixerDevice> mixers;
  std::vector<CaptureEndpoint> endpoints;
  std::optional<DeskSpeaker> speaker;
};

// Something that happens to older hardware.
struct DeskLegacyAction {
  enum class Kind { plug, unplug, press, release, key };
  double at = 0;
  Kind kind = Kind::plug;
  int code = 0;  // virtual key, or the key byte of a HID report
};

struct DeskLegacy {
  LegacyKind kind = LegacyKind::usbMouse;
  std::string serial;
  bool plugged = true;  // from the beginning
  std::vector<DeskLegacyAction> timeline;
};

struct DeskDescription {
  std::vector<DeskDevice> devices;
  DeskSound sound{};
  std::vector<DeskLegacy> legacy{};
  std::vector<Recording> recordings{};  // devices out of capture files
  std::vector<std::string> captures{};  // their files
  std::vector<std::string> warnings{};  // sentences
};

// What is wrong with a desk file, and where.
class DeskFileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A description in JSON; or a capture file: all its devices.
DeskDescription readDeskFile(const std::string& path);
// 16-bit PCM of any rate and number of channels.
DeskSpeaker readSpeakerFile(const std::string& path);
// A Wren on USB, a Heron Plus on Bluetooth LE, a Tern on USB. The Wren and the Tern hear `speech`.
// busy: somebody uses them, so that there is something to watch.
DeskDescription defaultDesk(const std::vector<std::int16_t>& speech, bool busy);

}  // namespace sim
