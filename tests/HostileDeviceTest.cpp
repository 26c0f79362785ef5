// Devices that lie, jam, hang and vanish: nothing may crash, leak, read or write outside a buffer, or wait for ever.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "hid/ReaderVariants.h"
#include "support/LogLine.h"
#include "tests/Desk.h"

namespace {

sim::Bytes keyFrame(std::uint8_t key) { return {0x05, 0xFF, 0xF1, 0xFE, 0xC0, 0x9F, 1, key, 0xEF}; }

constexpr std::uint8_t kCodes[] = {0x69, 0x6A, 0x6F, 0x96, 0x98, 0x99, 0x9C, 0x9D, 0x9E, 0x9F, 0xA0, 0xB1, 0xB3};

TEST(HostileDevice, LengthBytesCannotLeaveTheReport) {
  Desk desk;
  auto wren = desk.make("Wren");
  wren->inputLength = 100;
  desk.machine.plug(wren);
  desk.open();
  desk.run(3s);
  desk.record.clear();
  for (int length = 0; length < 256; ++length) {
    for (const std::uint8_t code : kCodes) {
      sim::Bytes report{0x05, 0xFF, 0xF1, 0xFE, 0xC0, code, static_cast<std::uint8_t>(length)};
      report.resize(100, 0xEE);  // no end marker anywhere
      wren->send(report);
      desk.run(1ms);
    }
  }
  EXPECT_EQ(desk.record.lines(), Lines{});
  wren->send(keyFrame('0'));
  desk.run(1ms);
  EXPECT_EQ(desk.hub->GetButtonState_Left(), ButtonDown) << "still listening";
}

TEST(HostileDevice, AShortReadDoesNotShowTheReportBeforeIt) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  const sim::Bytes power{0x05, 0xFF, 0xF1, 0xFE, 0xC0, 0x6F, 1, 50, 0xEF};
  wren->send(power);
  desk.run(1ms);
  wren->faults.shortRead = 8;  // all but the end marker, which the report before had at the same place
  wren->send(power);
  desk.run(1ms);
  EXPECT_EQ(desk.record.lines("PowerReport"), Lines{"PowerReport 1 50"});
}

TEST(HostileDevice, MKeyListKeepsToItsHundredBytes) {
  Desk desk;
  {
    CHidDeviceReader_Tern reader;
    std::vector<std::uint8_t> report{0x05, 0xFF, 0xF1, 0xFE, 0xC0, 0xB3, 255};
    for (int i = 0; i < 255; ++i) report.push_back(static_cast<std::uint8_t>(i));
    report.push_back(0xEF);
    reader.mKeyQuery = 1;
    CHidData reply;
    ASSERT_TRUE(ParseReport(report, DataChannel_Usb, reply));
    reader.OnReport(reply);
    EXPECT_EQ(reader.mKeyType, 0);
    EXPECT_EQ(reader.mKeyList[99], 99);
  }
  ASSERT_EQ(desk.record.lines("MKeyTypeSet").size(), 1U);
  EXPECT_EQ(desk.record.lines("MKeyTypeSet")[0].size(), std::string("MKeyTypeSet -1 1 ").size() + 200);
}

TEST(HostileDevice, LogLinesFitTheirBuffers) {
  // The longest line that the library makes.
  const LogLine<48> longest(CAudioHidCenter::GetHidName(MouseType_HeronPlus), L"（编号：", 2147483647,
                            L"）连接成功，发送到设备界面");
  EXPECT_EQ(std::wstring(longest.Text()), L"VoxMouse Heron Plus（编号：2147483647）连接成功，发送到设备界面");
  const LogLine<8> cut(L"12345", -2147483647 - 1, L"more");
  EXPECT_EQ(std::wstring(cut.Text()), L"12345-2");
}

TEST(HostileDevice, RandomReportsAreHarmless) {
  for (const char* model : {"Tern", "Wren", "Swift"}) {
    Desk desk;
    auto device = desk.openWith(model);
    std::mt19937 random(7);
    for (int i = 0; i < 20'000; ++i) {
      sim::Bytes report(64);
      for (auto& byte : report) byte = static_cast<std::uint8_t>(random());
      const sim::Bytes head{0x05, 0xFF, static_cast<std::uint8_t>(random() % 2 == 0 ? 0xF0 : 0xF1), 0xFE, 0xC0};
      if (random() % 4 != 0) std::copy(head.begin(), head.end(), report.begin());
      if (random() % 4 != 0) report[5] = static_cast<std::uint8_t>(0x68 + random() % 0x60);
      if (const std::size_t length = report[6] = static_cast<std::uint8_t>(random() % 50); random() % 4 != 0) {
        report[7 + length] = 0xEF;
      }
      if (random() % 8 == 0) report[0] = static_cast<std::uint8_t>(0x1A + random() % 2);
      device->send(report);
      if (i % 16 == 0) desk.run(1ms);
    }
    // Whatever it has claimed to be by now, it still answers.
    desk.hub->GetMouseState(1);
    desk.record.clear();
    desk.run(10ms);
    EXPECT_EQ(desk.record.lines("MouseState").size(), 1U) << model;
  }
}

TEST(HostileDevice, AHangingWriteIsCancelledWhenTheDeviceGoes) {
  Desk desk;
  auto tern = desk.openWith("Tern");
  tern->faults.hangWrites = true;
  desk.run(1500ms);
  tern->faults.hangWrites = false;
  desk.machine.unplug(tern);
  desk.machine.plug(tern);
  desk.record.clear();
  desk.run(4s);
  EXPECT_EQ(desk.record.lines("Log 44"), Lines{"Log 44 VoxMouse Tern（编号：1）拔出，把该设备从界面上移除"});
  EXPECT_EQ(desk.record.lines("MouseState"), Lines{"MouseState 2 1 2 1 1600 80"});
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
}

TEST(HostileDevice, FailedWritesAreIgnored) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  desk.hub->ChooseWorkHidDevice(1);
  wren->faults.failWrites = true;
  EXPECT_EQ(timeOf(desk, [&] { EXPECT_FALSE(desk.hub->OpenHidRecord()); }), 1000);
  desk.run(5s);
  EXPECT_EQ(desk.record.lines("HidDisconnect"), Lines{"HidDisconnect 1"}) << "it cannot be heard: asleep";
  wren->faults.failWrites = false;
  desk.run(3s);
  EXPECT_EQ(desk.hub->GetEffectiveDevice(), 1);
}

}  // namespace
