// From a plugged-in device to an announced one, and back: exact bytes, orders and times.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/Desk.h"

namespace {

TEST(Connection, RunsThroughTheWholeSequence) {
  Desk desk;
  desk.machine.record(true);
  auto wren = desk.make("Wren");
  wren->serial = "SN0123456789abcdEF";
  desk.machine.plug(wren);
  desk.open();
  EXPECT_FALSE(desk.hub->IsConnect());
  desk.run(2500ms);

  // The pass at 950 ms starts the reader, whose heartbeats go out every second; the tick after the first answer
  // announces.
  EXPECT_EQ(frames(wren->received()), "f1:05 f1:0f(32) f1:11 f1:01 f1:0c f0:0d f1:05");
  std::vector<std::int64_t> times;
  for (const auto& frame : wren->received()) times.push_back(frame.at.count() / 1000);
  EXPECT_EQ(times, (std::vector<std::int64_t>{950, 952, 954, 1950, 2050, 2150, 2250}));
  EXPECT_EQ(wren->malformed(), 0U);
  EXPECT_EQ(desk.record.lines(), (Lines{"Log 43 VoxMouse Wren（编号：1）连接成功，发送到设备界面", "HidConnect 1",
                                        "MouseConnect 1 1", "MouseState 1 2 2 1 1600 80", "DongleState 1 2 2 4660 1"}));
  EXPECT_TRUE(desk.hub->IsConnect());
  // The serial number replaces whatever identity there is; here it comes before the state's address.
  EXPECT_EQ(CVoxDeviceInfo::Instance()->GetBluetoothID(), L"SN0123456789abcdEF");
  EXPECT_EQ(CVoxDeviceInfo::Instance()->GetBluetoothName(), L"VoxMouse Wren");

  // Whole reports on the wire, padded to the report length, frame first.
  const std::string log = desk.machine.log();
  EXPECT_NE(log.find("950.000 write 05fff1fec00500ef" + std::string(112, '0') + " (thread "), std::string::npos) << log;
  EXPECT_NE(log.find("2150.000 write 05fff0fec00d00ef" + std::string(112, '0') + " (thread "), std::string::npos);

  desk.close();
  const auto all = wren->received();
  EXPECT_EQ(all.back().code, 0x05) << "after CloseDevice nothing is live, so no AppExit";
}

TEST(Connection, OverBluetoothUsesTheSamePrefixAndAnswersWithout) {
  Desk desk;
  auto heron = desk.openWith("Heron Plus", sim::Link::bluetooth);
  EXPECT_EQ(frames(heron->received()), "f1:05 f1:0f(32) f1:11 f1:01 f1:0c f0:0d f1:05");
  EXPECT_EQ(desk.record.lines("MouseState"), Lines{"MouseState 1 7 1 1 1600 80"});
  EXPECT_TRUE(desk.record.lines("DongleState").empty()) << "no receiver over Bluetooth LE";
  EXPECT_EQ(desk.hub->GetDeviceConnectMode(1), DataChannel_BluetoothLE);
  EXPECT_EQ(CVoxDeviceInfo::Instance()->GetBluetoothID(), L"192-168-1-2-3-255");
  desk.hub->Release();
  EXPECT_EQ(heron->received().back(), (sim::HostFrame{.code = 0x02, .prefix = 0xF1, .payload = {}}));
}

TEST(Connection, SettlesEachModel) {
  const struct {
    const char* name;
    sim::Link link;
    MouseType model;
  } cases[] = {
      {"Tern", sim::Link::usb, MouseType_Tern},
      {"Tern", sim::Link::bluetooth, MouseType_Tern},
      {"Wren", sim::Link::usb, MouseType_Wren},
      {"Wren", sim::Link::bluetooth, MouseType_Wren},
      {"Finch", sim::Link::bluetooth, MouseType_Finch},
      {"Robin", sim::Link::bluetooth, MouseType_Robin},
      {"Heron", sim::Link::bluetooth, MouseType_Heron},
      {"Egret", sim::Link::bluetooth, MouseType_Egret},
      {"Heron Plus", sim::Link::usb, MouseType_HeronPlus},
      {"Heron Plus", sim::Link::bluetooth, MouseType_HeronPlus},
      {"Swift", sim::Link::usb, MouseType_Swift},
      {"Swift", sim::Link::bluetooth, MouseType_Swift},
  };
  Desk desk;
  desk.open();
  int number = 0;
  for (const auto& c : cases) {
    auto device = desk.connect(c.name, c.link);
    ++number;
    EXPECT_EQ(desk.hub->GetHidMouseType(number), c.model) << c.name;
    EXPECT_EQ(desk.hub->GetDeviceConnectMode(number), c.link == sim::Link::usb ? 2 : 1) << c.name;
    // A Swift alone is asked for its M keys; a Tern alone is not asked who it is.
    EXPECT_EQ(device->received(0x14).size(), c.model == MouseType_Swift ? 1U : 0U) << c.name;
    EXPECT_EQ(device->received(0x0F).size(), c.model == MouseType_Tern ? 0U : 1U) << c.name;
  }
  std::vector<int> numbers;
  std::vector<std::wstring> names;
  desk.hub->GetValidHidList(numbers, names);
  EXPECT_EQ(numbers, (std::vector<int>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  EXPECT_EQ(names[4], L"VoxMouse Finch");
  EXPECT_EQ(names[11], L"VoxMouse Swift");
  EXPECT_EQ(desk.hub->GetEffectiveDevice(), 12);
}

TEST(Connection, IdentifyAnswersOfOtherFamiliesAndSecondOnesAreIgnored) {
  Desk desk;
  desk.open();
  auto wren = desk.make("Wren");
  wren->answer(0x0F, {.silent = true});
  desk.machine.plug(wren);
  desk.run(3s);
  const sim::Bytes challenge(32, 1);
  wren->reply(0xA5, challenge);
  wren->reply(0xA6, challenge);
  wren->reply(0xA3, sim::Bytes(31, 1));
  desk.run(10ms);
  EXPECT_EQ(desk.hub->GetHidMouseType(1), MouseType_Wren);
  EXPECT_TRUE(wren->received(0x11).empty());
  wren->reply(0xA3, challenge);
  wren->reply(0xA2, challenge);
  desk.run(10ms);
  EXPECT_EQ(desk.hub->GetHidMouseType(1), MouseType_Heron);
  EXPECT_EQ(wren->received(0x11).size(), 1U);
}

TEST(Connection, SleepIsNoticedAfterFourSecondsAndWakingAnnouncesAgain) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  desk.run(3s);
  wren->forget();
  desk.record.clear();
  const auto before = desk.milliseconds();
  wren->sleep(true);
  ASSERT_TRUE(desk.machine.waitFor([&] { return !desk.record.lines("HidDisconnect").empty(); }, 10s));
  EXPECT_NEAR(static_cast<double>(desk.milliseconds() - before), 3500, 600);
  desk.run(1ms);
  EXPECT_EQ(wren->received(0x05).size(), 4U) << "the fourth attempt declares it asleep, and goes out all the same";
  EXPECT_EQ(desk.record.lines(),
            (Lines{"Log 44 VoxMouse Wren（编号：1）休眠，把该设备从界面上移除", "HidDisconnect 1"}));
  EXPECT_EQ(desk.hub->GetEffectiveDevice(), -1);
  desk.run(1s);
  EXPECT_FALSE(desk.hub->IsConnect());
  EXPECT_TRUE(CVoxDeviceInfo::Instance()->BluetoothIdIsEmpty());

  desk.run(20s);
  desk.record.clear();
  wren->forget();
  wren->sleep(false);
  desk.run(2500ms);
  EXPECT_EQ(desk.record.lines(), (Lines{"Log 43 VoxMouse Wren（编号：1）连接成功，发送到设备界面", "HidConnect 1",
                                        "MouseConnect 1 1", "MouseState 1 2 2 1 1600 80", "DongleState 1 2 2 4660 1"}));
  EXPECT_EQ(wren->received(0x0F).size(), 1U);
}

TEST(Connection, DeviceThatNeverAnswersIsNeitherAnnouncedNorAsleep) {
  Desk desk;
  desk.open();
  auto wren = desk.make("Wren");
  wren->sleep(true);
  desk.machine.plug(wren);
  desk.run(30s);
  EXPECT_TRUE(desk.record.lines().empty());
  EXPECT_EQ(wren->received().size(), 30U);
  EXPECT_EQ(desk.hub->setMKeyType_Key1(-1, MouseMKeyType_Screenshot), SetMKeyType_NotReady);
}

TEST(Connection, ReplugReusesTheReaderOfTheSameModel) {
  Desk desk;
  auto tern = desk.openWith("Tern");
  auto wren = desk.connect("Wren");
  wren->pressVoiceKey();
  desk.run(10ms);
  EXPECT_EQ(desk.hub->GetButtonState_Left(), ButtonDown);
  desk.record.clear();
  desk.machine.unplug(wren);
  desk.run(1ms);
  EXPECT_EQ(desk.record.lines(),
            (Lines{"Log 44 VoxMouse Wren（编号：2）拔出，把该设备从界面上移除", "HidDisconnect 2"}));
  EXPECT_EQ(desk.hub->GetButtonState_Left(), ButtonUp) << "what it held is released";
  EXPECT_TRUE(desk.hub->IsConnect());
  const auto handles = desk.machine.balance().handles;
  desk.machine.unplug(tern);
  desk.run(1ms);
  EXPECT_FALSE(desk.hub->IsConnect());

  for (int number = 3; number < 9; number += 2) {
    desk.machine.plug(tern);
    desk.machine.plug(wren);
    desk.run(3s);
    EXPECT_EQ(desk.hub->GetHidMouseType(number), MouseType_Tern);
    EXPECT_EQ(desk.hub->GetHidMouseType(number + 1), MouseType_Wren);
    desk.machine.unplug(wren);
    desk.machine.unplug(tern);
    desk.run(2s);
  }
  EXPECT_LE(desk.machine.balance().handles, handles) << "the handles of devices that have gone are closed";
}

TEST(Connection, AReplugThatIsFoundAtOnceIsServedAtOnce) {
  // Before the next tick of the heartbeat thread, which has ended all the same.
  Desk desk;
  auto tern = desk.openWith("Tern");
  ASSERT_TRUE(desk.machine.waitFor([&] { return desk.milliseconds() % 1000 == 940; }, 2s));
  desk.record.clear();
  desk.machine.unplug(tern);
  desk.machine.plug(tern);
  tern->forget();
  desk.run(3s);
  EXPECT_EQ(desk.record.lines("Log"), (Lines{"Log 44 VoxMouse Tern（编号：1）拔出，把该设备从界面上移除",
                                             "Log 43 VoxMouse Tern（编号：2）连接成功，发送到设备界面"}));
  EXPECT_EQ(desk.record.lines("HidConnect"), Lines{"HidConnect 2"});
  EXPECT_EQ(desk.hub->GetHidMouseType(2), MouseType_Tern);
  EXPECT_EQ(tern->received(0x05).size(), 3U) << "one heartbeat thread";
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
}

TEST(Connection, ADeviceIsServedAgainWhileItsEndIsStillBeingTold) {
  Desk desk;
  auto tern = desk.openWith("Tern");
  desk.record.during = [&](const std::string& message) {
    if (message == "HidDisconnect") desk.run(6s);
  };
  desk.machine.unplug(tern);
  desk.machine.plug(tern);
  desk.run(3s);
  EXPECT_EQ(desk.hub->GetHidMouseType(2), MouseType_Tern);
  EXPECT_EQ(desk.machine.balance().threads, 5U) << "discovery, the old read thread, and the three of a new reader";
  desk.close();  // while the old one is still in the client's hands
  EXPECT_EQ(desk.machine.balance().threads, 0U);
  EXPECT_EQ(desk.machine.forcedEnds(), 1U) << "the client kept it for more than two seconds";
}

TEST(Connection, HandlesThatDieAreReplacedWithoutAReplug) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  desk.record.clear();
  desk.machine.locked([&]() REQUIRES(sim::gate) { wren->loseHandles(); });
  desk.run(5s);
  EXPECT_EQ(desk.record.lines("Hid"), (std::vector<std::string>{"HidDisconnect 1", "HidConnect 2"}));
  desk.hub->ChooseWorkHidDevice(2);
  EXPECT_TRUE(desk.hub->OpenHidRecord());
}

TEST(Connection, OfAReaderWhoseThreadsDoNotAllStartNoneGoesOn) {
  Desk desk;
  auto tern = desk.make("Tern");
  desk.machine.plug(tern);
  desk.open();
  desk.machine.faults().fail("_beginthreadex", 1, 2);
  desk.run(1500ms);
  EXPECT_EQ(desk.record.lines(), Lines{}) << "what has not come in does not go";
  desk.machine.faults().repair();
  desk.run(3s);
  EXPECT_EQ(desk.record.lines("HidConnect"), Lines{"HidConnect 2"});
}

TEST(Connection, ReaderServesTheModelItHasSettledOn) {
  Desk desk;
  auto finch = desk.openWith("Finch", sim::Link::bluetooth);
  desk.machine.unplug(finch);
  desk.run(2s);
  desk.record.clear();
  finch->answer(0x0F, {.silent = true});
  desk.machine.plug(finch);
  desk.run(3s);
  EXPECT_EQ(desk.hub->GetHidMouseType(2), MouseType_Finch) << "the reused reader still says Finch";
  desk.machine.unplug(finch);
  desk.run(2s);
  // A Wren finds no idle reader that says Wren, and gets a new one.
  auto wren = desk.connect("Wren");
  EXPECT_EQ(desk.hub->GetHidMouseType(3), MouseType_Wren);
  desk.machine.plug(finch);
  desk.run(3s);
  EXPECT_EQ(desk.hub->GetHidMouseType(4), MouseType_Finch);
}

TEST(Discovery, OpensWhatIsUsableAndSkipsTheRest) {
  Desk desk;
  const auto id = [](int n) { return "7&" + std::to_string(n) + "&0&0000"; };
  const auto plug = [&](std::wstring path, std::uint16_t input = 64, std::uint16_t output = 64) {
    auto device = std::make_shared<sim::SilentHidDevice>(std::move(path), 0x6D8C, 0x6137, input, output);
    desk.machine.plug(device);
    return device;
  };
  plug(sim::usbHidPath("046d", "c077", id(1)));
  plug(sim::usbHidPath("6D8C", "6137", id(2)));
  plug(sim::usbHidPath("6d8c", "6137", id(3)), 39, 64);
  plug(sim::usbHidPath("6d8c", "6137", id(4)), 64, 39);
  plug(sim::usbHidPath("6d8c", "6137", id(5)), 101, 64);
  plug(sim::usbHidPath("6d8c", "6137", id(6)))->faults.refuseOpen = [](int) { return true; };
  plug(sim::usbHidPath("6d8c", "6137", id(7)))->faults.noAttributes = true;
  plug(sim::usbHidPath("6d8c", "6137", id(8)))->faults.noPreparsedData = true;
  plug(sim::usbHidPath("6d8c", "6137", id(9)))->faults.noCaps = true;
  auto shy = plug(sim::usbHidPath("6d8c", "6137", id(10)));
  shy->faults.refuseOpen = [](int open) { return open % 2 == 1; };
  const auto last = plug(sim::usbHidPath("046d", "c077", id(12)));
  desk.open();
  desk.run(3s);
  EXPECT_EQ(desk.record.lines(), (Lines(3, "Log 44 读写hid设备失败"))) << "once a pass, for the write handle alone";
  EXPECT_EQ(desk.machine.balance().handles, 4U) << "two locks, the discovery thread and its event";
  shy->faults.refuseOpen = nullptr;
  desk.machine.unplug(last);  // in the list, one of ours is where a foreign one was
  // Two interfaces of one device are two devices; the smallest usable and the largest readable reports are used.
  plug(sim::usbHidPath("6d8c", "6137", id(11), 1), 40, 40);
  plug(sim::usbHidPath("6d8c", "6137", id(11), 2), 100, 64);
  desk.machine.record(true);
  desk.run(1s);
  std::string log = desk.machine.log();
  std::size_t heartbeats = 0;
  for (std::size_t at = 0; (at = log.find("write 05fff1fec00500ef", at)) != std::string::npos; ++at) ++heartbeats;
  EXPECT_EQ(heartbeats, 3U);
}

TEST(Discovery, PathsAreParsedByTheirForm) {
  const auto usb = &CAudioHidCenter::ParseUsbHidPath;
  const auto ble = &CAudioHidCenter::ParseBluetoothHidPath;
  const struct {
    bool (*parse)(const std::string&, HidPathIdentity&);
    const char* path;
    const char* parts;  // the vendor, the product and the instance; empty: it is none
  } cases[] = {
      {usb, R"(\\?\hid#vid_0d8c&pid_0137&mi_03#7&1a2b3c4d&0&0000#{guid})", "0d8c 0137 7&1a2b3c4d&0&0000"},
      {usb, R"(\\?\hid#vid_0d8c&pid_0137#7&1#)", "0d8c 0137 7&1"},
      {usb, R"(\\?\hid#vid_0d8c&pid_0137#7&1)", ""},
      {usb, R"(\\?\hid#vid_0d8c&pid_0137##)", ""},
      {usb, R"(\\?\hid#vid_0d8c&pid_0137)", ""},
      {usb, R"(\\?\hid#vid_&pid_0137#7#)", ""},
      {usb, R"(\\?\hid#vid_0d8c&pid_&mi_1#7#)", ""},
      {usb, R"(\\?\hid#pid_0137&vid_0d8c#7#)", ""},
      {usb, R"(\\?\usb#vid_0d8c&pid_0137#7#)", ""},
      {usb, R"(\\?\hid#{x}_dev_vid&02248a_pid&8266_rev&0001#9#)", ""},
      {usb, "", ""},
      {ble, R"(\\?\hid#{00001812-0000-1000-8000-00805f9b34fb}_dev_vid&02248a_pid&8266_rev&0001_aabbccddeeff#9&1#{g})",
       "02248a 8266 9&1"},
      {ble, R"(\\?\hid#vid_0d8c&pid_0137#7&1#)", ""},
  };
  for (const auto& c : cases) {
    HidPathIdentity identity;
    EXPECT_EQ(c.parse(c.path, identity), *c.parts != 0) << c.path;
    EXPECT_EQ(identity.vid + " " + identity.pid + " " + identity.instance, *c.parts ? c.parts : "  ") << c.path;
  }
}

TEST(Connection, ADeviceThatHasGoneIsClosedThoughACopyHasIt) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  const CAudioHidCenter copy(*desk.hub);
  const auto handles = desk.machine.balance().handles;
  desk.machine.unplug(wren);
  desk.run(100ms);
  EXPECT_EQ(handles - desk.machine.balance().handles, 2U);
}

}  // namespace
