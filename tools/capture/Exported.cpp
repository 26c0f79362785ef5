#include "tools/capture/Exported.h"

#include <charconv>
#include <utility>

namespace capture {
namespace {

enum Tag : std::uint16_t { kEnd = 0, kDissector = 12, kDirection = 35, kOtherDirection = 36 };
enum Direction : std::uint32_t { kSent = 0, kReceived = 1, kNone };

// A number at the beginning of a text; of anything else, and of what is too large, what was there before.
template <typename Number>
void number(std::string_view text, Number& value, int base = 10) {
  std::from_chars(text.data(), text.data() + text.size(), value, base);
}

// Of a list with commas.
std::vector<int> numbers(std::string_view text) {
  std::vector<int> values;
  while (!text.empty()) {
    number(text, values.emplace_back());
    text.remove_prefix(std::min(text.size(), text.find(',')));
    if (!text.empty()) text.remove_prefix(1);
  }
  return values;
}

// Calls `each` with the key and the value of each pair. "text" takes the rest.
template <typename Each>
void forPairs(std::string_view text, const Each& each) {
  while (!text.empty()) {
    const std::string_view pair = text.substr(0, text.starts_with("text=") ? text.size() : text.find(' '));
    text.remove_prefix(std::min(text.size(), pair.size() + 1));
    const auto equals = pair.find('=');
    if (equals != std::string_view::npos) each(pair.substr(0, equals), pair.substr(equals + 1));
  }
}

Kind kindOf(std::string_view name) {
  constexpr std::pair<std::string_view, Kind> kNames[] = {{"opened", Kind::Opened},
                                                          {"refused", Kind::Refused},
                                                          {"read-failed", Kind::ReadFailed},
                                                          {"write-failed", Kind::WriteFailed}};
  for (const auto& [known, kind] : kNames) {
    if (known == name) return kind;
  }
  return Kind::Told;
}

}  // namespace

void readPart(std::string_view comment, Capture& capture) {
  forPairs(comment, [&capture](std::string_view key, std::string_view value) {
    if (key == "part") number(value, capture.part);
    if (key == "of") capture.recording = value;
  });
}

bool readInterface(const Link& link, Interface& interface) {
  if (link.name == "client") return false;
  interface.path = link.name;
  forPairs(link.description, [&interface](std::string_view key, std::string_view value) {
    if (key == "vid") number(value, interface.vendor, 16);
    if (key == "pid") number(value, interface.product, 16);
    if (key == "in") number(value, interface.inputLength);
    if (key == "out") number(value, interface.outputLength);
    if (key == "former") interface.former = value == "1";
    if (key != "link") return;
    if (value == "ble") interface.link = DataChannel_BluetoothLE;
    if (value == "usb") interface.link = DataChannel_Usb;
    if (value == "receiver") interface.link = DataChannel_Receiver;
  });
  return true;
}

bool readExported(const Packet& packet, Event& event) {
  const Numbers data(packet.data, true);
  std::size_t at = 0;
  bool ours = false;
  std::uint32_t direction = kNone;
  for (std::uint16_t tag = data.u16(0); tag != kEnd; tag = data.u16(at)) {
    const std::size_t length = data.u16(at + 2);
    const Span value = data.part(at + 4, length);
    if (tag == kDissector) {
      ours = std::string_view(reinterpret_cast<const char*>(value.data()), value.size()).starts_with("voxmouse");
    }
    if (tag == kDirection) direction = Numbers(value, true).u32(0);
    // Some write 1 for sent and 2 for received, under a number that Wireshark has for a text.
    if (tag == kOtherDirection && length == 4) direction = Numbers(value, true).u32(0) - 1;
    at += 4 + (length + 3) / 4 * 4;
  }
  if (!ours || direction > kNone) return false;
  const Span report = data.part(at + 4);
  event.report.assign(report.begin(), report.end());
  event.time = packet.time;
  event.offset = packet.offset;
  std::string_view name;
  forPairs(packet.comment, [&](std::string_view key, std::string_view value) {
    if (key == "device") number(value, event.device);
    if (key == "thread") number(value, event.thread);
    if (key == "error") number(value, event.error);
    if (key == "values") event.values = numbers(value);
    if (key == "event") name = value;
    if (key == "text") event.text = value;
  });
  event.kind = !name.empty() ? kindOf(name) : direction == kSent ? Kind::Sent : Kind::Received;
  if (event.kind == Kind::Told) event.name = name;
  return !name.empty() || direction != kNone;
}

}  // namespace capture
