#include "tools/capture/Story.h"

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <memory>
#include <string_view>
#include <utility>

#include "hid/HidFrame.h"
#include "tools/capture/Chapters.h"

namespace capture {
namespace {

// What a read fails with when the client itself has ended it.
constexpr std::uint32_t kCancelled = 995;

const char* nameOf(DataChannel link) {
  switch (link) {
    case DataChannel_BluetoothLE:
      return "Bluetooth LE";
    case DataChannel_Usb:
      return "USB";
    case DataChannel_Receiver:
      return "receiver";
    default:
      return "unknown link";
  }
}

std::string fourDigits(std::uint16_t id) { return id != 0 ? fmt::format("{:04X}", id) : ""; }

std::string bytesOf(std::span<const std::uint8_t> report) {
  while (!report.empty() && report.back() == 0) report = report.first(report.size() - 1);
  return hexOf(report);
}

std::string errorText(std::uint32_t error) { return error != 0 ? " (error " + std::to_string(error) + ")" : ""; }

// What the numbers of a call mean, in their order.
constexpr std::pair<std::string_view, std::array<const char*, 5>> kValues[] = {
    {"log", {"category"}},
    {"debuglog", {"category"}},
    {"mkey", {"key"}},
    {"mouseconnect", {"state"}},
    {"voice", {"operation"}},
    {"dpi", {"DPI", "set"}},
    {"mousestate", {"model", "link", "word", "DPI", "battery"}},
    {"donglestate", {"model", "link", "word", "set"}},
    {"power", {"battery"}},
    {"url", {"accepted"}},
    {"update", {"link", "state"}},
    {"speechlost", {"missing", "late"}},
};

std::string toldWords(const Event& event) {
  const auto* known = std::find_if(std::begin(kValues), std::end(kValues),
                                   [&event](const auto& each) { return each.first == event.name; });
  std::string words;
  for (std::size_t i = 0; i < event.values.size(); ++i) {
    const char* const name = known != std::end(kValues) && i < known->second.size() ? known->second[i] : nullptr;
    words += (words.empty() ? "" : ", ") + (name ? name + std::string(" ") : "") + std::to_string(event.values[i]);
  }
  if (event.text.empty()) return words;
  return (words.empty() ? "" : words + ": ") + event.text;
}

class Teller {
 public:
  Teller(const Capture& capture, Story& story) : capture_(capture), story_(story) {
    for (const Interface& hid : capture.interfaces) {
      story.devices.push_back({.model = {},
                               .link = nameOf(hid.link),
                               .vendor = fourDigits(hid.vendor),
                               .product = fourDigits(hid.product),
                               .path = hid.path,
                               .serial = {},
                               .address = {},
                               .states = {}});
      followed_.push_back(std::make_unique<Followed>(story, followed_.size(), hid));
    }
  }

  void tell() {
    for (const Event& event : capture_.events) {
      const Time time = event.time - story_.start;
      if (event.kind == Kind::Told) {
        told(event, time);
      } else if (event.hid >= 0) {
        Followed& followed = *followed_[static_cast<std::size_t>(event.hid)];
        if (event.device >= 0) story_.devices[followed.device].number = event.device;
        happened(followed, event, time);
      }
    }
    std::map<std::uint8_t, RequestCount> counts;
    for (const auto& followed : followed_) end(*followed, counts);
    for (auto& [code, count] : counts) {
      std::sort(count.delays.begin(), count.delays.end());
      story_.requests.push_back(std::move(count));
    }
  }

 private:
  struct Followed {
    Followed(Story& story, std::size_t number, const Interface& described)
        : device(number),
          hid(described),
          model(&sheetOf(described)),
          requests(story, number),
          keys(story, number),
          voice(story, number),
          updates(story, number) {}
    const std::size_t device;
    const Interface& hid;
    const ModelSheet* model;
    std::optional<std::size_t> lastSent;
    Presence presence;
    Requests requests;
    Keys keys;
    Voice voice;
    Updates updates;
  };

  void told(const Event& event, Time time) {
    ++story_.counts.told;
    if (event.name == "dropped" && !event.values.empty() && event.values[0] > 0) {
      const std::string count = plural(static_cast<std::size_t>(event.values[0]), "event");
      story_.unusual.push_back({.time = time, .until = time, .kind = "dropped", .words = count + " not recorded"});
    }
    if (event.name == "audio" || event.name == "ota") return;
    story_.told.push_back({time, event.device, event.name, toldWords(event)});
    ++story_.counts.lines;
  }

  void happened(Followed& followed, const Event& event, Time time) {
    Device& device = story_.devices[followed.device];
    switch (event.kind) {
      case Kind::Opened:
        if (device.states.empty() || device.states.back().name != "awake")
          followed.presence.enter(device, time, "opened");
        break;
      case Kind::Refused:
        followed.presence.enter(device, time, "refused");
        story_.note(time, followed.device, "refused",
                    event.error != 0 ? "could not be opened" + errorText(event.error)
                                     : "is of no use: its reports are too short or too long");
        break;
      case Kind::ReadFailed:
        ends(followed, event, time);
        break;
      case Kind::WriteFailed:
        notWritten(followed, event, time);
        break;
      case Kind::Sent:
        ++story_.counts.sent;
        sent(followed, event, time);
        break;
      case Kind::Received:
        ++story_.counts.received;
        received(followed, event, time);
        break;
      case Kind::Told:
        break;
    }
  }

  std::size_t addFrame(const Followed& followed, const Event& event, Time time, const Decoded& report) {
    story_.frames.push_back({.time = time,
                             .device = followed.device,
                             .sent = event.kind != Kind::Received,
                             .receiver = report.receiver,
                             .wrong = report.form == Form::Damaged || report.refuses,
                             .name = report.name,
                             .words = report.words,
                             .bytes = bytesOf(event.report),
                             .note = {}});
    return story_.frames.size() - 1;
  }

  void sent(Followed& followed, const Event& event, Time time) {
    Device& device = story_.devices[followed.device];
    if (device.states.empty()) followed.presence.enter(device, time, "opened");
    const Decoded report = decode(event.report, true, followed.hid, *followed.model);
    const Passed passed{time, true, addFrame(followed, event, time, report), report};
    followed.lastSent = passed.frame;
    if (report.form != Form::Frame) return;
    const bool farewell = followed.updates.isFarewell(report);
    followed.updates.pass(passed);
    if (!farewell) followed.requests.pass(passed);
    followed.voice.pass(passed);
    const bool asleep = report.code == Heartbeat && followed.requests.heartbeatsInARow() >= 3;
    if (asleep && device.states.back().name == "awake") followed.presence.enter(device, time, "asleep");
  }

  void received(Followed& followed, const Event& event, Time time) {
    Device& device = story_.devices[followed.device];
    const Decoded report = decode(event.report, false, followed.hid, *followed.model);
    if (report.form == Form::Frame || report.form == Form::Speech) followed.presence.enter(device, time, "awake");
    device.receiver = device.receiver || report.receiver;
    if (report.form == Form::Speech) {
      ++story_.counts.speech;
      return followed.voice.pass({time, false, 0, report});
    }
    const Passed passed{time, false, addFrame(followed, event, time, report), report};
    if (report.form == Form::Other) ++story_.counts.other;
    if (report.form == Form::Damaged) {
      ++story_.counts.damaged;
      story_.note(time, followed.device, "damaged",
                  report.words.empty() ? report.name : report.name + " " + report.words);
    }
    if (report.form == Form::OlderKeys) return followed.keys.pass(passed, *followed.model);
    if (report.form != Form::Frame) return;
    if (report.refuses) story_.note(time, followed.device, "refused", report.name + ": " + report.words);
    if (const ModelSheet* named = FindByIdentifyReply(report.code)) followed.model = named;
    learn(device, report);
    followed.updates.pass(passed);
    followed.requests.pass(passed);
    followed.voice.pass(passed);
    followed.keys.pass(passed, *followed.model);
  }

  static void learn(Device& device, const Decoded& report) {
    const auto& payload = report.payload;
    switch (report.code) {
      case MouseStateReply:
        device.dpi = payload[2] << 8 | payload[3];
        device.battery = payload[4];
        device.address = report.words.substr(report.words.rfind(' ') + 1);
        break;
      case DevicePowerReply:
        device.battery = payload[0];
        break;
      case DpiReply:
        if (!report.refuses) device.dpi = payload[0] << 8 | payload[1];
        break;
      case MouseSNReply:
        device.serial = report.words;
        break;
      default:
        break;
    }
  }

  void notWritten(Followed& followed, const Event& event, Time time) {
    // Our own recorder has told of the report before; a bus tells of it here.
    if (!event.report.empty()) {
      ++story_.counts.sent;
      const Decoded report = decode(event.report, true, followed.hid, *followed.model);
      followed.lastSent = addFrame(followed, event, time, report);
    }
    std::string name = "a report";
    if (followed.lastSent) {
      Frame& frame = story_.frames[*followed.lastSent];
      frame.wrong = true;
      frame.note = "not written" + errorText(event.error);
      name = frame.name;
      followed.requests.notWritten(*followed.lastSent);
    }
    story_.note(time, followed.device, "failed", name + " could not be written" + errorText(event.error));
  }

  void ends(Followed& followed, const Event& event, Time time) {
    const bool closed = event.error == kCancelled;
    followed.presence.enter(story_.devices[followed.device], time, closed ? "closed" : "gone");
    followed.requests.forget();
    followed.keys.release(time);
    followed.voice.close(time);
    followed.updates.close(closed ? "cut off by the client" : "the device went away");
    if (!closed) story_.note(time, followed.device, "gone", "the device has gone" + errorText(event.error));
  }

  void end(Followed& followed, std::map<std::uint8_t, RequestCount>& counts) {
    const Time time = story_.length;
    Device& device = story_.devices[followed.device];
    device.model = shortName(*followed.model);
    if (followed.hid.former) device.model = "older device";
    followed.presence.end(device, time);
    followed.requests.end(time, counts);
    followed.keys.end(time);
    followed.voice.close(time);
    followed.updates.close("cut off by the end of the recording");
  }

  const Capture& capture_;
  Story& story_;
  std::vector<std::unique_ptr<Followed>> followed_;
};

}  // namespace

void Presence::enter(Device& device, Time time, const char* state) {
  if (!device.states.empty() && device.states.back().name == state) return;
  end(device, time);
  device.states.push_back({time, time, state});
}

void Presence::end(Device& device, Time time) {
  if (!device.states.empty()) device.states.back().to = time;
}

std::string Device::title() const {
  const std::string name = model.empty() ? "unknown model" : model;
  return number >= 0 ? "#" + std::to_string(number) + " " + name : name;
}

void Story::note(Time time, std::size_t device, const char* kind, const std::string& words, Time until) {
  until = std::max(time, until);
  const auto of = static_cast<int>(device);
  constexpr std::size_t kNear = 32;  // so many of other devices may have come between
  for (std::size_t back = 1; back <= std::min(kNear, unusual.size()); ++back) {
    Unusual& before = unusual[unusual.size() - back];
    if (before.device != of) continue;
    if (before.kind != kind || before.words != words) break;
    ++before.times;
    before.until = until;
    return;
  }
  unusual.push_back({time, until, 1, of, kind, words});
}

Story tell(const Capture& capture, Time slow) {
  Story story;
  story.source = capture.source;
  story.problem = capture.problem;
  story.leftOut = capture.leftOut;
  story.slow = slow;
  const auto [first, last] = std::minmax_element(capture.events.begin(), capture.events.end(),
                                                 [](const Event& a, const Event& b) { return a.time < b.time; });
  if (first != capture.events.end()) {
    story.start = first->time;
    story.length = last->time - first->time;
  }
  Teller(capture, story).tell();
  const auto byTime = [](const auto& a, const auto& b) { return a.time < b.time; };
  const auto byBeginning = [](const auto& a, const auto& b) { return a.from < b.from; };
  std::stable_sort(story.frames.begin(), story.frames.end(), byTime);
  std::stable_sort(story.unusual.begin(), story.unusual.end(), byTime);
  std::stable_sort(story.told.begin(), story.told.end(), byTime);
  std::stable_sort(story.keys.begin(), story.keys.end(), byBeginning);
  std::stable_sort(story.speech.begin(), story.speech.end(), byBeginning);
  std::stable_sort(story.updates.begin(), story.updates.end(), byBeginning);
  return story;
}

std::string milliseconds(Time time) { return fmt::format("{:.1f} ms", static_cast<double>(time) / 1000); }

std::string plural(std::size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

}  // namespace capture
