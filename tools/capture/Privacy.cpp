#include "tools/capture/Privacy.h"

#include <algorithm>

#include "hid/HidFrame.h"

namespace capture {

namespace {

constexpr std::uint8_t kTernAudio = 0x1A;
constexpr std::uint8_t kWrenAudio = 0x1B;
constexpr std::uint8_t kAudioMark = 0xAD;
constexpr std::uint8_t kPrefix = 0xFF;
constexpr std::uint8_t kPrefixDevice = 0xF1;
constexpr std::size_t kSerial = 18;
constexpr std::size_t kAddress = 6;
constexpr std::size_t kAddressAt = 5;   // in a mouse's state
constexpr std::size_t kReceiverAt = 3;  // of a receiver's six bytes, in its state

// Where a report's codec data begins; nothing for one without.
std::size_t speechAt(std::span<const std::uint8_t> report) {
  if (report.size() < 4) return report.size();
  if (report[0] == kTernAudio) return report[1] == kPrefix && report[2] == kPrefixDevice ? 3 : 1;
  if (report[0] == kWrenAudio || (report[0] == kCommandReportId && report[1] == kAudioMark)) return 2;
  return report.size();
}

// The payload of a frame with this code; of a damaged one, all that follows its head.
std::span<std::uint8_t> payloadOf(std::span<std::uint8_t> report, std::uint8_t code) {
  for (const std::size_t magic : {1U, 3U}) {
    if (report.size() < magic + 4 || report[0] != kCommandReportId || report[magic] != 0xFE ||
        report[magic + 1] != 0xC0 || report[magic + 2] != code) {
      continue;
    }
    const auto rest = report.subspan(magic + 4);
    const std::size_t length = report[magic + 3];
    return length < rest.size() && rest[length] == 0xEF ? rest.first(length) : rest;
  }
  return {};
}

std::string digits(std::size_t number, std::size_t length) {
  std::string text = std::to_string(number);
  return text.size() < length ? std::string(length - text.size(), '0') + text : text.substr(text.size() - length);
}

}  // namespace

std::string Privacy::invent(const std::string& true_, std::size_t length) {
  const auto [found, isNew] = invented_.try_emplace({length, true_});
  if (isNew) found->second = digits(invented_.size(), length);
  return found->second;
}

void Privacy::clean(std::span<std::uint8_t> report) {
  std::fill(report.begin() + static_cast<std::ptrdiff_t>(std::min(speechAt(report), report.size())), report.end(),
            std::uint8_t{0});
  const auto serial = payloadOf(report, MouseSNReply);
  if (!serial.empty()) {
    const auto digits = serial.first(std::min(serial.size(), kSerial));
    const std::string invented = invent(std::string(digits.begin(), digits.end()), kSerial);
    std::copy_n(invented.begin(), std::min(serial.size(), kSerial), serial.begin());
  }
  for (const auto& [code, at] : {std::pair{MouseStateReply, kAddressAt}, {DongleStateReply, kReceiverAt}}) {
    const auto state = payloadOf(report, code);
    if (state.size() < at + kAddress) continue;
    const auto address = state.subspan(at, kAddress);
    const std::string invented = invent(std::string(address.begin(), address.end()), kAddress);
    std::transform(invented.begin(), invented.end(), address.begin(),
                   [](char digit) { return static_cast<std::uint8_t>(digit - '0'); });
  }
}

// ...hid#vid_248a&pid_8266#INSTANCE#{class}, ...hid#{service}_dev_vid&02248a_pid&8266_rev&0001_ADDRESS#INSTANCE#{class}
std::string Privacy::cleanPath(const std::string& path) {
  const std::size_t first = path.find('#');
  const std::size_t second = path.find('#', first + 1);
  if (first == std::string::npos || second == std::string::npos) return path;
  const std::size_t third = std::min(path.find('#', second + 1), path.size());
  std::string hardware = path.substr(first, second - first);
  const std::size_t address = hardware.rfind('_');
  constexpr std::size_t kHexAddress = 12;
  if (address != std::string::npos && hardware.size() - address - 1 == kHexAddress) {
    hardware.replace(address + 1, kHexAddress, invent(hardware.substr(address + 1), kHexAddress));
  }
  return path.substr(0, first) + hardware + "#invented" + invent(path.substr(second, third - second), 4) +
         path.substr(third);
}

}  // namespace capture
