#include "sim/devices/Recorded.h"

#include <algorithm>
#include <utility>

#include "sim/Machine.h"

namespace sim {
namespace {

using std::chrono::milliseconds;

// The wire, as docs/protocol.md gives it.
constexpr std::uint8_t kReportId = 0x05;
constexpr std::uint8_t kPrefix = 0xFF;
constexpr std::uint8_t kPrefixDevice = 0xF1;
constexpr std::uint8_t kPrefixReceiver = 0xF0;
constexpr int kOpening = -1;  // what a host does before its first command
constexpr int kAppOpen = 0x01;
constexpr int kAppExit = 0x02;
constexpr int kVoiceOpen = 0x03;
constexpr int kVoiceStop = 0x04;
constexpr int kHeartbeat = 0x05;
constexpr int kOtaFirst = 0x07;
constexpr int kOtaLast = 0x0B;
constexpr int kIdentify = 0x0F;
constexpr int kIdentifyAck = 0x11;

struct Command {
  int code;
  const char* name;
  std::initializer_list<int> replies;
};

const Command kCommands[] = {
    {kAppOpen, "AppOpen", {0x69, 0xB1}},
    {kAppExit, "AppExit", {}},
    {kVoiceOpen, "VoiceOpen", {0x6A}},
    {kVoiceStop, "VoiceStop", {0x6B}},
    {kHeartbeat, "Heartbeat", {0x68}},
    {0x06, "SetDpi", {0x96}},
    {0x07, "OtaPrepare", {0x97}},
    {0x08, "OtaOpen", {0x98}},
    {0x09, "OtaData", {0x99}},
    {0x0A, "OtaAbort", {0x9A}},
    {0x0B, "OtaComplete", {0x9B}},
    {0x0C, "GetMouseState", {0x9C}},
    {0x0D, "GetDongleState", {0x9D}},
    {0x0E, "SetDownloadUrl", {0x9E}},
    {kIdentify,
     "Identify",
     {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD, 0xAE, 0xAF}},
    {kIdentifyAck, "IdentifyAck", {}},
    {0x14, "GetMKeyTypeList", {0xB3}},
    {0x15, "SetMKeyType", {0xB3}},
};

// One that is unanswered at the recording's very end was cut off: younger than any usual answer is old.
constexpr milliseconds kCutOff{50};
// A host looks for devices once a second: what it opened then was plugged in a while before.
constexpr milliseconds kFoundAfter{500};

bool isOfUpdate(int code) { return code >= kOtaFirst && code <= kOtaLast; }

bool isSpeech(std::span<const std::uint8_t> report) {
  return report.size() > 1 && (report[0] == 0x1A || report[0] == 0x1B || (report[0] == kReportId && report[1] == 0xAD));
}

}  // namespace

RecordedDevice::RecordedDevice(Recording recording)
    : HidDevice(recording.path, recording.vendor, recording.product, recording.inputLength, recording.outputLength),
      recording_(std::move(recording)) {
  learn();
  faults.refuseOpen = [this](int number) REQUIRES(gate) {
    const auto n = static_cast<std::size_t>(number);
    const bool refused = !refusals_.empty() && refusals_[std::min(n, refusals_.size() - 1)];
    if (!refused) opens();
    return refused;
  };
}

void RecordedDevice::start(Machine& machine, const std::shared_ptr<RecordedDevice>& device) {
  const auto& events = device->recording_.events;
  const Time found = events.empty() ? Time{0} : events.front().at;
  // A recording begins with the host's first look, about a second after the host does.
  if (found < kFoundAfter) return machine.plug(device);
  machine.after(found + kFoundAfter, [&machine, device]() REQUIRES(gate) { machine.hid().plug(device); });
}

RecordingUse RecordedDevice::use(Machine& machine) const {
  RecordingUse use;
  machine.locked([&]() REQUIRES(gate) { use = use_; });
  return use;
}

RecordedDevice::Key RecordedDevice::announcement() { return {kPrefixDevice, kAppOpen}; }

std::string RecordedDevice::nameOf(const Key& key) {
  const auto* known =
      std::find_if(std::begin(kCommands), std::end(kCommands), [&](const Command& c) { return c.code == key.code; });
  if (known != std::end(kCommands)) return known->name;
  return "command " + std::to_string(key.code);
}

// The code in a frame, whatever its end looks like, and whether it is to or from the receiver.
std::optional<RecordedDevice::Key> RecordedDevice::keyOf(std::span<const std::uint8_t> report) {
  if (report.size() < 6 || report[0] != kReportId) return std::nullopt;
  const std::size_t at = report[1] == kPrefix ? 3 : 1;
  if (report[at] != 0xFE || report[at + 1] != 0xC0) return std::nullopt;
  return Key{at == 3 && report[2] == kPrefixReceiver ? kPrefixReceiver : kPrefixDevice, report[at + 2]};
}

void RecordedDevice::learn() {
  common_ = {0, kOpening};
  lastOf_[common_] = recording_.events.empty() ? Time{0} : recording_.events.front().at;
  script_[common_].emplace_back();
  bool first = true;
  Answer* gone = nullptr;  // until it is back
  Time goneAt{0};
  const auto begin = [&](Time at) {
    if (gone) {
      gone->back = std::max<Time>(at - goneAt - kFoundAfter, milliseconds(50));
      script_[{0, kOpening}].emplace_back();
    }
    common_ = {0, kOpening};
    lastOf_[common_] = at;
    first = false;
    gone = nullptr;
  };
  for (const Recording::Event& event : recording_.events) {
    // A bus does not tell of openings.
    if (gone && (event.kind == Recording::Kind::sent || event.kind == Recording::Kind::received)) begin(event.at);
    switch (event.kind) {
      case Recording::Kind::refused:
        refusals_.push_back(true);
        break;
      case Recording::Kind::opened:
        refusals_.push_back(false);
        if (first || gone) begin(event.at);
        break;
      case Recording::Kind::gone:
        if (gone) break;
        goneAt = event.at;
        gone = &add(common_, {event.at - lastOf_[common_], Answer::Kind::gone});
        break;
      case Recording::Kind::sent:
        if (const auto key = keyOf(event.report)) {
          script_[*key].emplace_back();
          lastOf_[*key] = event.at;
          if (*key == announcement() || key->code == kVoiceOpen || isOfUpdate(key->code)) common_ = *key;
        }
        break;
      case Recording::Kind::received:
        ++use_.recorded;
        attribute(event);
        break;
    }
  }
  forgetCutOff();
}

void RecordedDevice::attribute(const Recording::Event& event) {
  const auto latest = [this](std::initializer_list<Key> keys) {
    const Key* found = nullptr;
    for (const Key& key : keys) {
      const auto last = lastOf_.find(key);
      if (last != lastOf_.end() && (!found || last->second > lastOf_[*found])) found = &last->first;
    }
    return found ? *found : common_;
  };
  const auto belongsTo = [&](const Key& key, Answer::Kind kind) {
    add(key, {event.at - lastOf_[key], kind, event.report});
  };
  if (isSpeech(event.report)) {
    const Key key = latest({{kPrefixDevice, kVoiceOpen}, {kPrefixDevice, kVoiceStop}});
    return belongsTo(key, key.code == kVoiceOpen ? Answer::Kind::speech : Answer::Kind::report);
  }
  Key key = common_;
  if (const auto reply = keyOf(event.report)) {
    Time last = Time::min();
    for (const Command& command : kCommands) {
      const auto sent = lastOf_.find({reply->prefix, command.code});
      if (std::find(command.replies.begin(), command.replies.end(), reply->code) == command.replies.end() ||
          sent == lastOf_.end() || sent->second < last) {
        continue;
      }
      key = sent->first;
      last = sent->second;
    }
  }
  belongsTo(key, Answer::Kind::report);
}

RecordedDevice::Answer& RecordedDevice::add(const Key& key, Answer answer) {
  return script_[key].back().emplace_back(std::move(answer));
}

void RecordedDevice::forgetCutOff() {
  for (auto& [key, occurrences] : script_) {
    // (The end of an update is never answered.)
    if (occurrences.size() > 1 && occurrences.back().empty() && recording_.length - lastOf_[key] < kCutOff &&
        !isOfUpdate(key.code)) {
      occurrences.pop_back();
    }
  }
}

void RecordedDevice::onOutput(std::span<const std::uint8_t> report) {
  const auto key = keyOf(report);
  if (!key) return;
  if (key->code == kVoiceOpen || key->code == kVoiceStop) ++voice_;
  happens(*key);
}

void RecordedDevice::opens() {
  if (!std::exchange(opened_, true)) happens({0, kOpening});
}

void RecordedDevice::happens(const Key& key) {
  const auto known = script_.find(key);
  if (known == script_.end()) {
    if (key.code != kAppExit && key.code != kIdentifyAck) ++use_.unanswerable[nameOf(key)];
    return;
  }
  const std::size_t n = next_[key]++;
  if (n >= known->second.size() && key.code == kOpening) return;  // only what was seen then
  if (n >= known->second.size() && key.code != kHeartbeat) ++use_.repeated[nameOf(key)];
  for (Answer& answer : known->second[std::min(n, known->second.size() - 1)]) {
    after(answer.delay, [this, &answer, voice = voice_]() REQUIRES(gate) { act(answer, voice); });
  }
}

void RecordedDevice::act(Answer& answer, unsigned voice) {
  if (answer.kind == Answer::Kind::speech && voice != voice_) return;
  if (answer.kind == Answer::Kind::gone) return go(answer);
  if (!std::exchange(answer.used, true)) ++use_.used;
  sendInput(answer.report);
}

void RecordedDevice::go(const Answer& answer) {
  Machine& machine = this->machine();
  const auto self = shared_from_this();
  machine.hid().unplug(self);
  if (answer.back)
    machine.kernel().after(*answer.back, [&machine, self]() REQUIRES(gate) { machine.hid().plug(self); });
}

}  // namespace sim
