// The wire: frames out, reports in.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "hid/HidFrame.h"
#include "tests/Desk.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes build(std::uint8_t code, const Bytes* payload, int length, int channel, std::size_t room = 64) {
  Bytes out(room);
  out.resize(BuildFrame(code, payload ? payload->data() : nullptr, length, static_cast<DataChannel>(channel), out));
  return out;
}

TEST(Frame, IsBuiltForEachChannel) {
  const Bytes dpi{0x06, 0x40};
  const struct {
    const Bytes* payload;
    int length, channel;
    const char* expected;
  } cases[] = {
      {nullptr, 0, 0, "05fec00100ef"},      {nullptr, 0, 1, "05fff1fec00100ef"}, {nullptr, 0, 2, "05fff1fec00100ef"},
      {nullptr, 0, 3, "05fff0fec00100ef"},  {nullptr, 0, 4, "05fec00100ef"},     {nullptr, 5, 1, "05fff1fec00100ef"},
      {&dpi, 2, 2, "05fff1fec001020640ef"}, {&dpi, 0, 2, "05fff1fec00100ef"},
  };
  for (const auto& c : cases) EXPECT_EQ(hex(build(1, c.payload, c.length, c.channel)), c.expected);
}

TEST(Frame, ThatDoesNotFitIsNotBuilt) {
  const Bytes payload(300, 0x55);
  EXPECT_EQ(build(1, &payload, 56, 1, 64).size(), 64U);  // the longest for 64 bytes
  EXPECT_TRUE(build(1, &payload, 57, 1, 64).empty());
  EXPECT_EQ(build(1, &payload, 255, 1, 300).size(), 263U);
  EXPECT_TRUE(build(1, &payload, 256, 1, 300).empty());
  EXPECT_TRUE(build(1, &payload, -1, 1, 300).empty());
}

TEST(Report, IsParsedOrRejected) {
  const struct {
    const char* name;
    Bytes report;
    int link;     // of the reader
    int channel;  // expected; 0: rejected
    int code;
    Bytes payload;
  } cases[] = {
      {"no prefix", {5, 0xFE, 0xC0, 0x96, 3, 1, 0x90, 0, 0xEF}, 2, 1, 0x96, {1, 0x90, 0}},
      {"device prefix", {5, 0xFF, 0xF1, 0xFE, 0xC0, 0x68, 0, 0xEF}, 1, 2, 0x68, {}},
      {"receiver prefix", {5, 0xFF, 0xF0, 0xFE, 0xC0, 0x9D, 1, 7, 0xEF}, 2, 3, 0x9D, {7}},
      {"unknown prefix", {5, 0xFF, 0xF2, 0xFE, 0xC0, 0x68, 0, 0xEF}, 2, 0, 0, {}},
      {"no magic after the prefix", {5, 0xFF, 0xF1, 0xFF, 0xC0, 0x68, 0, 0xEF}, 2, 0, 0, {}},
      {"second magic byte", {5, 0xFE, 0xC1, 0x68, 0, 0xEF}, 2, 0, 0, {}},
      {"no end marker", {5, 0xFE, 0xC0, 0x96, 3, 1, 0x90, 0, 0xEE}, 2, 0, 0, {}},
      {"other second byte", {5, 0xFD, 0xC0, 0x68, 0, 0xEF}, 2, 0, 0, {}},
      {"other report", {6, 0xFE, 0xC0, 0x68, 0, 0xEF}, 2, 0, 0, {}},
      {"nothing", {}, 2, 0, 0, {}},
      {"length beyond the report", {5, 0xFE, 0xC0, 0x96, 255, 1, 0x90, 0, 0xEF}, 2, 0, 0, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CHidData data;
    const bool parsed = ParseReport(c.report, static_cast<DataChannel>(c.link), data);
    ASSERT_EQ(parsed, c.channel != 0);
    if (!parsed) continue;
    EXPECT_EQ(data.reportId, 5);
    EXPECT_EQ(data.channel, c.channel);
    EXPECT_EQ(data.code, c.code);
    ASSERT_EQ(data.length, static_cast<int>(c.payload.size()));
    EXPECT_EQ(data.data == nullptr, c.payload.empty());
    EXPECT_TRUE(std::equal(c.payload.begin(), c.payload.end(), data.data));
  }
}

TEST(Report, WithAudioGivesItsPayload) {
  Bytes numbered(64);
  for (std::size_t i = 0; i < numbered.size(); ++i) numbered[i] = static_cast<std::uint8_t>(i + 100);
  const auto with = [&](Bytes head) {
    Bytes report = numbered;
    std::copy(head.begin(), head.end(), report.begin());
    return report;
  };
  const struct {
    Bytes report;
    int link, channel, code, length;
    std::size_t from;
  } cases[] = {
      {with({0x1A}), 1, 1, 0xC1, 40, 1},
      {with({0x1A, 0xFF, 0xF1}), 1, 1, 0xC1, 40, 1},
      {with({0x1A, 0xFF, 0xF1}), 2, 2, 0xC1, 40, 3},
      {with({0x1A, 0xFF, 0xF0}), 2, 0, 0, 0, 0},
      {with({0x1B}), 2, 1, 0xC2, 60, 2},
      {with({0x05, 0xAD}), 2, 1, 0xC2, 60, 2},
  };
  for (const auto& c : cases) {
    CHidData data;
    ASSERT_EQ(ParseReport(c.report, static_cast<DataChannel>(c.link), data), c.channel != 0);
    if (c.channel == 0) continue;
    EXPECT_EQ(data.channel, c.channel);
    EXPECT_EQ(data.code, c.code);
    EXPECT_EQ(data.reportId, c.report[0]);
    ASSERT_EQ(data.length, c.length);
    EXPECT_TRUE(std::equal(data.data, data.data + c.length, c.report.begin() + static_cast<std::ptrdiff_t>(c.from)));
  }
  // A short report yields what was there, then zeros.
  CHidData data;
  Bytes brief = with({0x1B});
  brief.resize(40);
  ASSERT_TRUE(ParseReport(brief, DataChannel_Usb, data));
  EXPECT_EQ(data.data[37], 139);
  EXPECT_TRUE(std::all_of(data.data + 38, data.data + 60, [](int byte) { return byte == 0; }));
}

TEST(UrlCharacters, AreKeyboardUsages) {
  const std::string known = "abzABZ1290-=./";
  const Bytes usages{0x04, 0x05, 0x1D, 0x04, 0x05, 0x1D, 0x1E, 0x1F, 0x26, 0x27, 0x2D, 0x2E, 0x37, 0x38};
  for (std::size_t i = 0; i < known.size(); ++i) {
    EXPECT_EQ(HidUsageOf(static_cast<std::uint8_t>(known[i])), usages[i]) << known[i];
  }
  int count = 0;
  for (int c = 0; c < 256; ++c) count += HidUsageOf(static_cast<std::uint8_t>(c)).has_value() ? 1 : 0;
  EXPECT_EQ(count, 66);
  EXPECT_FALSE(HidUsageOf(':'));
}

}  // namespace
