// The frames of the command/reply protocol, and the input reports that carry audio. docs/protocol.md describes the
// wire.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "VoxDevice/types.h"

// Host to device.
enum HidCommand : std::uint8_t {
  AppOpen = 0x01,
  AppExit = 0x02,
  VoiceOpen = 0x03,
  VoiceStop = 0x04,
  Heartbeat = 0x05,
  SetDpi = 0x06,
  OtaPrepare = 0x07,
  OtaOpen = 0x08,
  OtaData = 0x09,
  OtaAbort = 0x0A,
  OtaComplete = 0x0B,
  GetMouseState = 0x0C,
  GetDongleState = 0x0D,
  SetDownloadUrl = 0x0E,
  Identify = 0x0F,
  IdentifyAck = 0x11,
  GetMKeyTypeList = 0x14,
  SetMKeyType = 0x15,
};

// Device to host.
enum HidReply : std::uint8_t {
  HeartbeatReply = 0x68,
  DeviceConnectReply = 0x69,
  VoiceOpenReply = 0x6A,
  VoiceStopReply = 0x6B,
  DevicePowerReply = 0x6F,
  DpiReply = 0x96,
  OtaPrepareReply = 0x97,
  OtaOpenReply = 0x98,
  OtaDataReply = 0x99,
  OtaEndReply = 0x9A,
  OtaCompleteReply = 0x9B,
  MouseStateReply = 0x9C,
  DongleStateReply = 0x9D,
  DownloadUrlReply = 0x9E,
  MouseKeyReply = 0x9F,
  // From 0xA0 on, the answers to Identify: each model's sheet has its own.
  MouseSNReply = 0xB1,
  MKeyTypeReply = 0xB3,
  // Not on the wire: the codes that the parser gives to audio reports.
  AudioDataTern = 0xC1,
  AudioDataWren = 0xC2,
};

constexpr std::uint8_t kCommandReportId = 0x05;
// A device with a shorter report, in either direction, is not one of this family.
constexpr int kMinReportLength = 40;
// The longest input report that a reader takes.
constexpr int kMaxInputReportLength = 100;
constexpr std::size_t kMaxPayload = 255;
constexpr int kWrenPayload = 60;  // of an audio report
// Report id, prefix, magic, code, length, payload, end marker.
constexpr std::size_t kMaxFrame = 1 + 2 + 2 + 1 + 1 + kMaxPayload + 1;

// One parsed input report. It holds the payload itself: a thread that is ended by force while it handles a record
// loses nothing.
struct CHidData {
  CHidData() = default;
  CHidData(const CHidData&) = delete;  // data points into this object
  CHidData& operator=(const CHidData&) = delete;

  std::uint8_t reportId = 0;
  DataChannel channel = DataChannel_Unknown;
  std::uint8_t code = 0;               // a HidReply
  const std::uint8_t* data = nullptr;  // the payload; null when it is empty
  int length = 0;                      // of the payload, bytes

  // True when there is a payload of exactly `bytes` bytes.
  bool Has(int bytes) const noexcept { return data && length == bytes; }

 private:
  friend bool ParseReport(std::span<const std::uint8_t>, DataChannel, CHidData&) noexcept;
  std::array<std::uint8_t, kMaxPayload> payload_;  // filled as far as length says
};

// A number of a payload.
inline int BigEndian16(const std::uint8_t* bytes) noexcept { return bytes[0] * 256 + bytes[1]; }

// Writes one output frame for `channel` to the beginning of `out`. Without a payload pointer the frame has no payload,
// whatever `length` says. Returns the frame's length in bytes, 0 when the payload is longer than 255 bytes or the frame
// does not fit into `out`.
std::size_t BuildFrame(std::uint8_t code, const std::uint8_t* payload, int length, DataChannel channel,
                       std::span<std::uint8_t> out) noexcept;

// Parses one input report. Bytes beyond the end of `report` count as zero, so no length byte can lead out of it, and a
// frame that claims to be longer lacks its end marker. `channel` is the link of the reader that received the report.
// True when the report is one of the protocol's; `out` is filled only then.
bool ParseReport(std::span<const std::uint8_t> report, DataChannel channel, CHidData& out) noexcept;

// The usage code (USB HID Usage Tables, keyboard page) of a character of a URL. Case is lost on purpose. Nothing for a
// character that cannot be sent, the colon among them.
std::optional<std::uint8_t> HidUsageOf(std::uint8_t character) noexcept;
