#include "sim/Replay.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>
#include <stdexcept>

#include "sim/Text.h"
#include "sim/devices/Mice.h"
#include "tools/capture/Capture.h"

namespace sim {
namespace {

using Kind = Recording::Kind;

constexpr std::uint16_t kLeastLength = 64;  // of reports whose length the file does not tell
constexpr int kMostLength = 0xFFFF;
constexpr std::chrono::hours kLongest{24};            // that anybody waits for
constexpr std::chrono::hours kLatest{24 * 365 * 10};  // what adds up to more is no time

std::optional<Kind> kindOf(capture::Kind kind) {
  switch (kind) {
    case capture::Kind::Sent:
      return Kind::sent;
    case capture::Kind::Received:
      return Kind::received;
    case capture::Kind::Opened:
      return Kind::opened;
    case capture::Kind::Refused:
      return Kind::refused;
    case capture::Kind::ReadFailed:
      return Kind::gone;
    default:
      return std::nullopt;
  }
}

std::uint16_t lengthOf(int told, const std::vector<Recording::Event>& events, Kind kind) {
  if (told > 0) return static_cast<std::uint16_t>(std::min(told, kMostLength));
  std::size_t longest = kLeastLength;
  for (const Recording::Event& event : events) {
    if (event.kind == kind) longest = std::max(longest, event.report.size());
  }
  return static_cast<std::uint16_t>(std::min<std::size_t>(longest, kMostLength));
}

// What a device calls itself, where the file does not tell its identifier.
const ModelSheet* modelOf(const Recording& device) {
  constexpr std::uint8_t kFirstReply = 0x9E;  // to Identify, and the model's number more
  for (const Recording::Event& event : device.events) {
    if (event.kind != Kind::received || event.report.size() < 6) continue;
    if (event.report[0] == 0x1A) return findModel("Tern");
    const std::size_t magic = event.report[1] == 0xFF ? 3 : 1;
    if (event.report[0] != 0x05 || event.report[magic] != 0xFE || event.report[magic + 1] != 0xC0) continue;
    for (const ModelSheet& sheet : modelSheets()) {
      if (sheet.identifies && event.report[magic + 2] == kFirstReply + sheet.number) return &sheet;
    }
  }
  return nullptr;
}

// False when nobody knows the device, and so no client will look at it.
bool identify(Recording& device, std::size_t number) {
  if (device.vendor != 0) return true;
  const ModelSheet* sheet = modelOf(device);
  if (!sheet) return false;
  const LinkSheet& link = sheet->usb ? *sheet->usb : *sheet->bluetooth;
  const std::string instance = "recorded" + std::to_string(number);
  device.vendor = link.vendor;
  device.product = link.product;
  device.path = sheet->usb ? usbHidPath(link.vendorInPath, link.productInPath, instance)
                           : bleHidPath(link.vendorInPath, link.productInPath, instance);
  return true;
}

}  // namespace

bool isCapture(const std::string& path) {
  std::array<unsigned char, 4> magic{};
  std::ifstream file(pathOf(path), std::ios::binary);
  file.read(reinterpret_cast<char*>(magic.data()), magic.size());
  constexpr std::array<unsigned char, 4> kMagics[] = {
      {0x0A, 0x0D, 0x0D, 0x0A}, {0xD4, 0xC3, 0xB2, 0xA1}, {0xA1, 0xB2, 0xC3, 0xD4},
      {0x4D, 0x3C, 0xB2, 0xA1}, {0xA1, 0xB2, 0x3C, 0x4D},
  };
  return std::find(std::begin(kMagics), std::end(kMagics), magic) != std::end(kMagics);
}

Replay readReplay(const std::string& path) {
  const capture::Capture file = capture::readFile(pathOf(path));
  Replay replay{.devices = {}, .problem = file.problem};
  for (const capture::Interface& hid : file.interfaces) {
    replay.devices.push_back({.path = wide(hid.path), .vendor = hid.vendor, .product = hid.product});
  }
  std::int64_t began = 0;
  std::int64_t ended = 0;
  if (!file.events.empty()) {
    const auto earlier = [](const auto& a, const auto& b) { return a.time < b.time; };
    const auto [first, last] = std::minmax_element(file.events.begin(), file.events.end(), earlier);
    began = first->time;
    ended = last->time;
  }
  for (const capture::Event& event : file.events) {
    const auto kind = kindOf(event.kind);
    if (!kind || event.hid < 0) continue;
    const auto at = std::min<Time>(std::chrono::microseconds(event.time - began), kLatest);
    replay.devices[static_cast<std::size_t>(event.hid)].events.push_back({at, *kind, event.report});
  }
  for (std::size_t i = 0; i < replay.devices.size(); ++i) {
    Recording& device = replay.devices[i];
    device.inputLength = lengthOf(file.interfaces[i].inputLength, device.events, Kind::received);
    device.outputLength = lengthOf(file.interfaces[i].outputLength, device.events, Kind::sent);
    device.length = std::min<Time>(std::chrono::microseconds(ended - began), kLongest);
  }
  for (Recording& device : replay.devices) {
    std::stable_sort(device.events.begin(), device.events.end(),
                     [](const auto& a, const auto& b) { return a.at < b.at; });
  }
  for (std::size_t i = 0; i < replay.devices.size(); ++i) {
    if (identify(replay.devices[i], i + 1) || replay.devices[i].events.empty()) continue;
    replay.problem += (replay.problem.empty() ? "" : "; ") + std::string("device ") + std::to_string(i + 1) +
                      " is of an unknown model: the capture holds neither its descriptor nor its answer to Identify";
  }
  std::erase_if(replay.devices, [](const Recording& device) { return device.events.empty(); });
  if (replay.devices.empty()) {
    throw std::runtime_error(path + ": no report of a device of ours is in this capture" +
                             (file.problem.empty() ? "" : "; " + file.problem));
  }
  return replay;
}

}  // namespace sim
