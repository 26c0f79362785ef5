// Lengths as Windows counts them, and what is no descriptor.
#include "sim/linux/ReportDescriptor.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Each collection: "page:usage", then for each direction the id and length of every report, and the longest.
std::string told(const Bytes& bytes) {
  const auto descriptor = sim::parseReportDescriptor(bytes);
  if (!descriptor) return "none";
  std::string text = descriptor->numbered ? "numbered" : "plain";
  for (const auto& each : descriptor->collections) {
    text += "; " + std::to_string(each.usagePage) + ":" + std::to_string(each.usage) + " in";
    for (const auto& [id, length] : each.input) text += " " + std::to_string(id) + "=" + std::to_string(length);
    text += " max " + std::to_string(each.inputLength()) + " out";
    for (const auto& [id, length] : each.output) text += " " + std::to_string(id) + "=" + std::to_string(length);
    text += " max " + std::to_string(each.outputLength());
  }
  return text;
}

const Bytes kVendor{0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01};
const Bytes kMouse{0x05, 0x01, 0x09, 0x02, 0xA1, 0x01};
const Bytes kEnd{0xC0};
const Bytes kBytes63In{0x75, 0x08, 0x95, 0x3F, 0x81, 0x02};
const Bytes kPush{0xA4};
const Bytes kPop{0xB4};

TEST(ReportDescriptor, TellsTheLengthsOfEachCollection) {
  const struct {
    const char* what;
    Bytes bytes;
    const char* expected;
  } cases[] = {
      {"nothing", {}, "plain"},
      {"without ids", join({kVendor, {0x75, 0x08, 0x95, 0x07, 0x81, 0x02, 0x95, 0x40, 0x91, 0x02}, kEnd}),
       "plain; 65280:1 in 0=8 max 8 out 0=65 max 65"},
      {"ids of different lengths",
       join({kVendor, {0x85, 0x05}, kBytes63In, {0x91, 0x02, 0x85, 0x1A, 0x95, 0x14, 0x81, 0x02, 0x91, 0x02}, kEnd}),
       "numbered; 65280:1 in 5=64 26=21 max 64 out 5=64 26=21 max 64"},
      {"bits are filled up", join({kMouse, {0x75, 0x01, 0x95, 0x03, 0x81, 0x02, 0x95, 0x06, 0x81, 0x02}, kEnd}),
       "plain; 1:2 in 0=3 max 3 out max 0"},
      {"two collections",
       join({kMouse, {0x85, 0x01, 0x75, 0x08, 0x95, 0x04, 0x81, 0x02}, kEnd, kVendor, {0x85, 0x05}, kBytes63In, kEnd}),
       "numbered; 1:2 in 1=5 max 5 out max 0; 65280:1 in 5=64 max 64 out max 0"},
      {"collections inside", join({kMouse, {0x09, 0x01, 0xA1, 0x00, 0x75, 0x08, 0x95, 0x02, 0x81, 0x02}, kEnd, kEnd}),
       "plain; 1:2 in 0=3 max 3 out max 0"},
      {"features are no reports to read", join({kVendor, {0x75, 0x08, 0x95, 0x07, 0xB1, 0x02}, kEnd}),
       "plain; 65280:1 in max 0 out max 0"},
      {"a usage with its page", {0x0B, 0x34, 0x12, 0x0C, 0x00, 0xA1, 0x01, 0xC0}, "plain; 12:4660 in max 0 out max 0"},
      {"a page that comes after the usage",
       {0x05, 0x0C, 0x09, 0x02, 0x05, 0x01, 0xA1, 0x01, 0xC0},
       "plain; 1:2 in max 0 out max 0"},
      {"pushed and popped", join({kVendor, {0x75, 0x08, 0x95, 0x02}, kPush, {0x95, 0x09}, kPop, {0x81, 0x02}, kEnd}),
       "plain; 65280:1 in 0=3 max 3 out max 0"},
      {"a long item is passed over", join({{0xFE, 0x02, 0xF0, 0xC0, 0xC0}, kVendor, kBytes63In, kEnd}),
       "plain; 65280:1 in 0=64 max 64 out max 0"},
      {"the longest that there is", join({kVendor, {0x75, 0x08, 0x96, 0x00, 0x20, 0x81, 0x02}, kEnd}),
       "plain; 65280:1 in 0=8193 max 8193 out max 0"},
      // Hostile ones.
      {"longer", join({kVendor, {0x75, 0x08, 0x96, 0x01, 0x20, 0x81, 0x02}, kEnd}), "none"},
      {"absurd", join({kVendor, {0x77, 0xFF, 0xFF, 0xFF, 0xFF, 0x97, 0xFF, 0xFF, 0xFF, 0xFF, 0x81, 0x02}, kEnd}),
       "none"},
      {"no end", join({kVendor, kBytes63In}), "none"},
      {"an end too many", kEnd, "none"},
      {"cut off in an item", {0x05}, "none"},
      {"cut off in a long item", {0xFE, 0x03, 0x00, 0x00}, "none"},
      {"a field outside", kBytes63In, "none"},
      {"popped from nothing", kPop, "none"},
      {"pushed without end", Bytes(65, 0xA4), "none"},
      {"collections without end", Bytes(130, 0xA1), "none"},
      {"id 0", join({kVendor, {0x85, 0x00}, kBytes63In, kEnd}), "none"},
      {"an id of two bytes", join({kVendor, {0x86, 0x05, 0x01}, kBytes63In, kEnd}), "none"},
      {"with ids and without", join({kVendor, kBytes63In, {0x85, 0x05}, kBytes63In, kEnd}), "none"},
      {"longer than Linux takes", Bytes(4097, 0x00), "none"},
  };
  for (const auto& each : cases) EXPECT_EQ(told(each.bytes), each.expected) << each.what;
}

}  // namespace
