// A current model: the firmware's side of the command/reply protocol (docs/protocol.md).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "sim/Device.h"
#include "sim/devices/AscCodec.h"
#include "sim/devices/FirmwareTarget.h"
#include "sim/devices/SbcEncoder.h"

namespace sim {

struct ModelSheet;
struct LinkSheet;

enum class Link { usb, bluetooth };

// How a device answers one command.
struct Answering {
  bool silent = false;
  bool refuse = false;
  Time delay{0};  // on top of the device's latency
  int times = 1;
  bool garbled = false;  // the end marker is damaged
};

// A frame that the host has sent.
struct HostFrame {
  std::uint8_t code = 0;
  std::uint8_t prefix = 0;  // the second prefix byte, F0 or F1; 0 without prefix
  Bytes payload;
  Time at{0};
  bool operator==(const HostFrame& other) const {
    return code == other.code && prefix == other.prefix && payload == other.payload;
  }
};

// Public operations are called from above the seam, while the machine runs.
class VirtualMouse : public HidDevice {
 public:
  VirtualMouse(const ModelSheet& sheet, const LinkSheet& presented, Link link, const std::string& instance);

  const ModelSheet& sheet() const { return sheet_; }
  Link link() const { return link_; }

  // What the device reports. Change these before it is plugged in.
  std::uint16_t stateWord = 0x0001;
  std::uint16_t dpi = 1600;
  std::uint8_t power = 80;  // percent
  std::array<std::uint8_t, 6> address{0xC0, 0xA8, 0x01, 0x02, 0x03, 0xFF};
  std::string serial;                   // 18 characters, sent after AppOpen; none when empty
  Bytes dongleState{0x12, 0x34, 0x01};  // 3 or 9 bytes; over Bluetooth LE there is no receiver to answer
  std::uint8_t mKeyType = 2;
  Bytes mKeyTypes{1, 2, 3, 4};
  Time latency = std::chrono::milliseconds(2);

  // ---- The user's hands ----
  void key(char code);
  void pressVoiceKey();
  void releaseVoiceKey();
  // What its microphone hears from the next VoiceOpen on; then silence.
  void hear(std::vector<std::int16_t> speech);
  // An unasked report of the power level.
  void reportPower(std::uint8_t level);
  // Asleep, it answers nothing.
  void sleep(bool asleep);

  // ---- Misbehaviour ----
  // code: a command's code, or 0 for every command that has no entry of its own.
  void answer(std::uint8_t code, Answering answering);
  // Sends any report.
  void send(Bytes report);
  // Sends a reply in the framing of its link.
  void reply(std::uint8_t code, Bytes payload);

  // ---- Firmware updates ----
  // How the device (or its receiver) takes the next update.
  enum class Updated { mouse, receiver };
  void update(Updated which, UpdateScript script);
  // What goes wrong with the n-th message of the next update, from 0, whichever image it belongs to.
  void spoilUpdate(unsigned message, UpdateFault fault);
  // A copy of what it has got so far.
  FirmwareTarget firmware(Updated which);

  // ---- What it has seen ----
  std::vector<HostFrame> received();
  // Those with this code.
  std::vector<HostFrame> received(std::uint8_t code);
  void forget();
  std::uint64_t malformed();
  bool streaming();
  // Speech it has sent since the last VoiceOpen, in samples.
  std::size_t spoken();

 protected:
  void onOutput(std::span<const std::uint8_t> report) REQUIRES(gate) override;
  void onUnplugged() REQUIRES(gate) override;

 private:
  void obey(const HostFrame& frame, bool refuse) REQUIRES(gate);
  void obeyUpdate(const HostFrame& frame) REQUIRES(gate);
  void unplugSelf() REQUIRES(gate);
  void respond(const HostFrame& frame, std::uint8_t code, Bytes payload) REQUIRES(gate);
  Bytes frameFor(std::uint8_t code, std::span<const std::uint8_t> payload, std::uint8_t prefix) const;
  void openVoice() REQUIRES(gate);
  void endVoice() REQUIRES(gate);
  void streamNext(unsigned stream) REQUIRES(gate);
  Bytes nextAudioReport() REQUIRES(gate);

  const ModelSheet& sheet_;
  const Link link_;
  std::map<std::uint8_t, Answering> answering_ GUARDED_BY(gate);
  std::vector<HostFrame> received_ GUARDED_BY(gate);
  std::uint64_t malformed_ GUARDED_BY(gate) = 0;
  bool asleep_ GUARDED_BY(gate) = false;
  std::vector<std::int16_t> speech_ GUARDED_BY(gate);
  std::size_t spoken_ GUARDED_BY(gate) = 0;
  bool streaming_ GUARDED_BY(gate) = false;
  unsigned stream_ GUARDED_BY(gate) = 0;
  FirmwareTarget firmware_ GUARDED_BY(gate);
  FirmwareTarget receiverFirmware_ GUARDED_BY(gate);
  Time thinking_[2] GUARDED_BY(gate){};  // of the two, before each answer in an update
  SbcEncoder sbc_ GUARDED_BY(gate);
  AscEncoder asc_ GUARDED_BY(gate);
  unsigned updateMessages_ = 0;
  unsigned spoiltMessage_ = 0;
  std::optional<UpdateFault> spoiling_;
};

}  // namespace sim
