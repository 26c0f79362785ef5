// What a HID report descriptor says of the reports.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace sim {

// A top-level collection: an interface of its own to Windows.
struct TopCollection {
  std::uint16_t usagePage = 0;
  std::uint16_t usage = 0;
  // Bytes of each report with its id, which Windows counts also where a device has none: that is id 0.
  std::map<std::uint8_t, std::uint16_t> input;
  std::map<std::uint8_t, std::uint16_t> output;

  // The longest, as the lengths of HIDP_CAPS; 0: there is none.
  std::uint16_t inputLength() const;
  std::uint16_t outputLength() const;
};

struct ReportDescriptor {
  bool numbered = false;  // reports begin with their id on the wire
  std::vector<TopCollection> collections;
};

// Nothing, when it is not one: the descriptor comes from a device.
std::optional<ReportDescriptor> parseReportDescriptor(std::span<const std::uint8_t> bytes);

}  // namespace sim
