#include "sim/Replay.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <map>
#include <stdexcept>

#include "capture/Capture.h"
#include "sim/Text.h"

namespace sim {
namespace {

using Kind = Recording::Kind;

constexpr std::uint16_t kLeastLength = 64;  // of reports whose length the file does not tell
constexpr int kMostLength = 0xFFFF;

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
  std::map<std::string, std::size_t> places;
  std::vector<std::size_t> placeOf;  // of each interface
  for (const capture::Interface& interface : file.interfaces) {
    const auto [place, isNew] = places.try_emplace(interface.path, replay.devices.size());
    placeOf.push_back(place->second);
    if (isNew) replay.devices.emplace_back().path = wide(interface.path);
    Recording& device = replay.devices[place->second];
    // What an interface tells later, when it is open, counts.
    if (interface.vendor != 0) device.vendor = interface.vendor;
    if (interface.product != 0) device.product = interface.product;
  }
  const std::int64_t began = file.events.empty() ? 0 : file.events.front().time;
  for (const capture::Event& event : file.events) {
    const auto kind = kindOf(event.kind);
    const auto at = std::chrono::microseconds(std::max<std::int64_t>(event.time - began, 0));
    for (Recording& device : replay.devices) device.length = std::max<Time>(device.length, at);
    if (!kind || event.interface < 0 || static_cast<std::size_t>(event.interface) >= placeOf.size()) continue;
    replay.devices[placeOf[static_cast<std::size_t>(event.interface)]].events.push_back({at, *kind, event.report});
  }
  for (std::size_t i = 0; i < file.interfaces.size(); ++i) {
    const capture::Interface& interface = file.interfaces[i];
    Recording& device = replay.devices[placeOf[i]];
    device.inputLength = lengthOf(interface.inputLength, device.events, Kind::received);
    device.outputLength = lengthOf(interface.outputLength, device.events, Kind::sent);
  }
  for (Recording& device : replay.devices) {
    std::stable_sort(device.events.begin(), device.events.end(),
                     [](const auto& a, const auto& b) { return a.at < b.at; });
  }
  std::erase_if(replay.devices, [](const Recording& device) { return device.events.empty(); });
  if (replay.devices.empty()) {
    throw std::runtime_error(path + ": no report of a device of ours is in this capture" +
                             (file.problem.empty() ? "" : "; " + file.problem));
  }
  return replay;
}

}  // namespace sim
