#include "sim/devices/VirtualMouse.h"

#include <algorithm>
#include <utility>

#include "sim/Machine.h"
#include "sim/devices/Mice.h"

namespace sim {
namespace {

// The wire, as docs/protocol.md gives it.
constexpr std::uint8_t kReportId = 0x05;
constexpr std::uint8_t kTernAudioId = 0x1A;
constexpr std::uint8_t kAudioId = 0x1B;
constexpr std::uint8_t kAudioMark = 0xAD;
constexpr std::uint8_t kPrefixDevice = 0xF1;
constexpr std::uint8_t kPrefixReceiver = 0xF0;

enum Command : std::uint8_t {
  appOpen = 0x01,
  appExit = 0x02,
  voiceOpen = 0x03,
  voiceStop = 0x04,
  heartbeat = 0x05,
  setDpi = 0x06,
  otaFirst = 0x07,
  otaLast = 0x0B,
  getMouseState = 0x0C,
  getDongleState = 0x0D,
  setDownloadUrl = 0x0E,
  identify = 0x0F,
  getMKeyTypes = 0x14,
  setMKeyType = 0x15,
};

enum Reply : std::uint8_t {
  heartbeatReply = 0x68,
  connectReply = 0x69,
  voiceOpenReply = 0x6A,
  voiceStopReply = 0x6B,
  powerReply = 0x6F,
  dpiReply = 0x96,
  mouseStateReply = 0x9C,
  dongleStateReply = 0x9D,
  downloadUrlReply = 0x9E,
  keyReply = 0x9F,
  identifyReplyBase = 0x9E,  // plus the model number
  serialReply = 0xB1,
  mKeyTypeReply = 0xB3,
};

std::uint8_t high(std::uint16_t value) { return static_cast<std::uint8_t>(value >> 8); }
std::uint8_t low(std::uint16_t value) { return static_cast<std::uint8_t>(value); }

// The frame in an output report; false when there is none.
bool parseHostFrame(std::span<const std::uint8_t> report, HostFrame& frame) {
  std::size_t at = 1;
  if (report.size() < 6 || report[0] != kReportId) return false;
  if (report[at] == 0xFF) {
    frame.prefix = report[at + 1];
    if (frame.prefix != kPrefixDevice && frame.prefix != kPrefixReceiver) return false;
    at += 2;
  }
  if (report.size() < at + 5 || report[at] != 0xFE || report[at + 1] != 0xC0) return false;
  frame.code = report[at + 2];
  const std::size_t length = report[at + 3];
  if (report.size() < at + 5 + length || report[at + 4 + length] != 0xEF) return false;
  frame.payload.assign(report.begin() + static_cast<std::ptrdiff_t>(at + 4),
                       report.begin() + static_cast<std::ptrdiff_t>(at + 4 + length));
  return true;
}

std::wstring pathOf(const LinkSheet& sheet, Link link, const std::string& instance) {
  return link == Link::usb ? usbHidPath(sheet.vendorInPath, sheet.productInPath, instance)
                           : bleHidPath(sheet.vendorInPath, sheet.productInPath, instance);
}

}  // namespace

VirtualMouse::VirtualMouse(const ModelSheet& sheet, const LinkSheet& presented, Link link, const std::string& instance)
    : HidDevice(pathOf(presented, link, instance), presented.vendor, presented.product),
      sheet_(sheet),
      link_(link),
      firmware_(sheet.update),
      receiverFirmware_(sheet.update) {}

void VirtualMouse::key(char code) {
  Machine::current().locked([&]() REQUIRES(gate) {
    const auto byte = static_cast<std::uint8_t>(code);
    sendInput(frameFor(keyReply, {&byte, 1}, kPrefixDevice));
  });
}

void VirtualMouse::pressVoiceKey() { key(sheet_.voiceKeyDown); }
void VirtualMouse::releaseVoiceKey() { key(sheet_.voiceKeyUp); }

void VirtualMouse::hear(std::vector<std::int16_t> speech) {
  Machine::current().locked([&]() REQUIRES(gate) { speech_ = std::move(speech); });
}

void VirtualMouse::reportPower(std::uint8_t level) {
  Machine::current().locked([&]() REQUIRES(gate) {
    power = level;
    sendInput(frameFor(powerReply, {&power, 1}, kPrefixDevice));
  });
}

void VirtualMouse::sleep(bool asleep) {
  Machine::current().locked([&]() REQUIRES(gate) {
    asleep_ = asleep;
    if (asleep) endVoice();
  });
}

void VirtualMouse::answer(std::uint8_t code, Answering answering) {
  Machine::current().locked([&]() REQUIRES(gate) { answering_[code] = answering; });
}

void VirtualMouse::send(Bytes report) {
  Machine::current().locked([&]() REQUIRES(gate) { sendInput(report); });
}

void VirtualMouse::reply(std::uint8_t code, Bytes payload) {
  Machine::current().locked([&]() REQUIRES(gate) { sendInput(frameFor(code, payload, kPrefixDevice)); });
}

void VirtualMouse::update(Updated which, UpdateScript script) {
  Machine::current().locked([&]() REQUIRES(gate) {
    thinking_[which == Updated::mouse ? 0 : 1] = script.thinking;
    (which == Updated::mouse ? firmware_ : receiverFirmware_).follow(std::move(script));
  });
}

void VirtualMouse::spoilUpdate(unsigned message, UpdateFault fault) {
  Machine::current().locked([&] {
    updateMessages_ = 0;
    spoiltMessage_ = message;
    spoiling_ = fault;
  });
}

FirmwareTarget VirtualMouse::firmware(Updated which) {
  std::optional<FirmwareTarget> copy;
  Machine::current().locked(
      [&]() REQUIRES(gate) { copy.emplace(which == Updated::mouse ? firmware_ : receiverFirmware_); });
  return *copy;
}

std::vector<HostFrame> VirtualMouse::received() {
  std::vector<HostFrame> copy;
  Machine::current().locked([&]() REQUIRES(gate) { copy = received_; });
  return copy;
}

std::vector<HostFrame> VirtualMouse::received(std::uint8_t code) {
  std::vector<HostFrame> frames = received();
  std::erase_if(frames, [code](const HostFrame& frame) { return frame.code != code; });
  return frames;
}

void VirtualMouse::forget() {
  Machine::current().locked([&]() REQUIRES(gate) { received_.clear(); });
}

std::uint64_t VirtualMouse::malformed() {
  std::uint64_t count = 0;
  Machine::current().locked([&]() REQUIRES(gate) { count = malformed_; });
  return count;
}

bool VirtualMouse::streaming() {
  bool result = false;
  Machine::current().locked([&]() REQUIRES(gate) { result = streaming_; });
  return result;
}

std::size_t VirtualMouse::spoken() {
  std::size_t count = 0;
  Machine::current().locked([&]() REQUIRES(gate) { count = spoken_; });
  return count;
}

void VirtualMouse::onOutput(std::span<const std::uint8_t> report) {
  HostFrame frame;
  if (!parseHostFrame(report, frame)) {
    ++malformed_;
    return;
  }
  frame.at = machine().kernel().now();
  received_.push_back(frame);
  if (received_.size() > 100'000) received_.erase(received_.begin(), received_.begin() + 50'000);
  if (asleep_) return;
  const auto own = answering_.find(frame.code);
  const auto common = answering_.find(0);
  const Answering how = own != answering_.end()      ? own->second
                        : common != answering_.end() ? common->second
                                                     : Answering{};
  if (how.silent) return;
  obey(frame, how.refuse);
}

void VirtualMouse::onUnplugged() { endVoice(); }

void VirtualMouse::endVoice() {
  streaming_ = false;
  ++stream_;
}

void VirtualMouse::obey(const HostFrame& frame, bool refuse) {
  const auto status = static_cast<std::uint8_t>(refuse ? 1 : 0);
  switch (frame.code) {
    case appOpen:
      respond(frame, connectReply, {1});
      if (!serial.empty()) respond(frame, serialReply, Bytes(serial.begin(), serial.end()));
      break;
    case voiceOpen:
      respond(frame, voiceOpenReply, {status});
      if (!refuse) openVoice();
      break;
    case voiceStop:
      endVoice();
      respond(frame, voiceStopReply, {});
      break;
    case heartbeat:
      respond(frame, heartbeatReply, {});
      break;
    case setDpi:
      if (frame.payload.size() != 2) break;
      if (!refuse) dpi = static_cast<std::uint16_t>(frame.payload[0] << 8 | frame.payload[1]);
      respond(frame, dpiReply, {frame.payload[0], frame.payload[1], status});
      break;
    case getMouseState: {
      Bytes payload{high(stateWord), low(stateWord), high(dpi), low(dpi), power};
      payload.insert(payload.end(), address.begin(), address.end());
      respond(frame, mouseStateReply, payload);
      break;
    }
    case getDongleState:
      if (link_ == Link::usb && frame.prefix == kPrefixReceiver) respond(frame, dongleStateReply, dongleState);
      break;
    case setDownloadUrl:
      respond(frame, downloadUrlReply, {status});
      break;
    case identify:
      // The host looks at the code and the length only; the firmware sends the challenge back.
      if (sheet_.identifies && frame.payload.size() == 32) {
        respond(frame, static_cast<std::uint8_t>(identifyReplyBase + sheet_.number), frame.payload);
      }
      break;
    case setMKeyType:
      if (frame.payload.size() != 1) break;
      if (!refuse) mKeyType = frame.payload[0];
      [[fallthrough]];
    case getMKeyTypes: {
      Bytes payload{mKeyType};
      payload.insert(payload.end(), mKeyTypes.begin(), mKeyTypes.end());
      respond(frame, mKeyTypeReply, payload);
      break;
    }
    default:  // appExit, identifyAck: nothing to say
      if (frame.code >= otaFirst && frame.code <= otaLast) obeyUpdate(frame);
      break;
  }
}

void VirtualMouse::obeyUpdate(const HostFrame& frame) {
  const bool receiver = frame.prefix == kPrefixReceiver;
  const auto fault = updateMessages_++ == spoiltMessage_ ? spoiling_ : std::nullopt;
  if (receiver && link_ != Link::usb) return;
  const auto outcome = (receiver ? receiverFirmware_ : firmware_).take(frame.code, frame.payload, fault);
  if (outcome.unplug) {
    // When the write has returned.
    machine().kernel().after(Time{0}, [this, self = shared_from_this()]() REQUIRES(gate) { unplugSelf(); });
  }
  if (!outcome.answer) return;
  const Bytes report =
      frameFor(outcome.answer->code, outcome.answer->payload, receiver ? kPrefixReceiver : kPrefixDevice);
  after(latency + thinking_[receiver ? 1 : 0], [this, report]() REQUIRES(gate) { sendInput(report); });
}

void VirtualMouse::unplugSelf() {
  if (plugged()) machine().hid().unplug(shared_from_this());
}

void VirtualMouse::respond(const HostFrame& frame, std::uint8_t code, Bytes payload) {
  const auto own = answering_.find(frame.code);
  const auto common = answering_.find(0);
  const Answering how = own != answering_.end()      ? own->second
                        : common != answering_.end() ? common->second
                                                     : Answering{};
  Bytes report = frameFor(code, payload, frame.prefix == kPrefixReceiver ? kPrefixReceiver : kPrefixDevice);
  if (how.garbled) report.back() = 0;
  after(latency + how.delay, [this, report = std::move(report), times = how.times]() REQUIRES(gate) {
    for (int i = 0; i < times; ++i) sendInput(report);
  });
}

// Over Bluetooth LE a device's own frames go without prefix.
Bytes VirtualMouse::frameFor(std::uint8_t code, std::span<const std::uint8_t> payload, std::uint8_t prefix) const {
  Bytes report{kReportId};
  if (link_ == Link::usb || prefix == kPrefixReceiver) {
    report.push_back(0xFF);
    report.push_back(prefix);
  }
  report.insert(report.end(), {0xFE, 0xC0, code, static_cast<std::uint8_t>(payload.size())});
  report.insert(report.end(), payload.begin(), payload.end());
  report.push_back(0xEF);
  return report;
}

void VirtualMouse::openVoice() {
  streaming_ = true;
  spoken_ = 0;
  sbc_ = {};
  // The codec of a Tern keeps its state from one stream to the next, on both sides.
  after(latency, [this, stream = ++stream_]() REQUIRES(gate) { streamNext(stream); });
}

void VirtualMouse::streamNext(unsigned stream) {
  if (!streaming_ || stream != stream_) return;
  const std::size_t before = spoken_;
  const Bytes report = nextAudioReport();
  const auto samples = static_cast<std::int64_t>(spoken_ - before);
  after(Time(samples * 1'000'000 / 16'000), [this, stream, report]() REQUIRES(gate) {
    if (!streaming_ || stream != stream_) return;
    sendInput(report);
    streamNext(stream);
  });
}

Bytes VirtualMouse::nextAudioReport() {
  const auto take = [this]<std::size_t Count>(std::array<std::int16_t, Count>& pcm) REQUIRES(gate) {
    for (std::int16_t& sample : pcm) {
      sample = spoken_ < speech_.size() ? speech_[spoken_] : std::int16_t{0};
      ++spoken_;
    }
  };
  Bytes report;
  if (sheet_.codec == SpeechCodec::asc) {
    report = link_ == Link::usb ? Bytes{kTernAudioId, 0xFF, kPrefixDevice} : Bytes{kTernAudioId};
    std::array<std::int16_t, AscEncoder::kSamples> pcm;
    take(pcm);
    const auto packet = asc_.encode(pcm);
    report.insert(report.end(), packet.begin(), packet.end());
    return report;
  }
  report = link_ == Link::usb ? Bytes{kReportId, kAudioMark} : Bytes{kAudioId, 0};
  for (int frame = 0; frame < 3; ++frame) {
    std::array<std::int16_t, SbcEncoder::kSamples> pcm;
    take(pcm);
    const auto chunk = sbc_.encode(pcm);
    report.insert(report.end(), chunk.begin(), chunk.end());
  }
  return report;
}

}  // namespace sim
