// Commands, queries and the replies that answer them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/Text.h"
#include "tests/Desk.h"
#include "tools/explore/Explore.h"

namespace {

class Commands : public ::testing::Test {
 protected:
  void SetUp() override {
    desk.open();
    wren = desk.connect("Wren");
    swift = desk.connect("Swift", sim::Link::bluetooth);
    forget();
  }
  void forget() {
    wren->forget();
    swift->forget();
    desk.record.clear();
  }
  // What arrived at a device, heartbeats apart.
  static std::vector<sim::HostFrame> commands(sim::VirtualMouse& device) {
    auto frames = device.received();
    std::erase_if(frames, [](const sim::HostFrame& frame) { return frame.code == 0x05; });
    return frames;
  }

  Desk desk;
  std::shared_ptr<sim::VirtualMouse> wren;   // 1
  std::shared_ptr<sim::VirtualMouse> swift;  // 2
};

using Frames = std::vector<sim::HostFrame>;

TEST_F(Commands, AddressOneDeviceOrAll) {
  CAudioHidCenter& hub = *desk.hub;
  hub.SetDpi(1, 1600);
  hub.SetDpi(-1, -1);
  hub.SetDpi(7, 400);
  hub.GetMouseState(2);
  hub.GetDongleState(-1);
  hub.getMKeyTypeList_Key2(-1);
  desk.run(20ms);
  EXPECT_EQ(commands(*wren), (Frames{{0x06, 0xF1, {0x06, 0x40}}, {0x06, 0xF1, {0x00, 0xFF}}, {0x0D, 0xF0, {}}}));
  EXPECT_EQ(commands(*swift), (Frames{{0x06, 0xF1, {0x00, 0xFF}}, {0x0C, 0xF1, {}}, {0x0D, 0xF0, {}}}));
  EXPECT_EQ(desk.record.lines("DpiSet"), (Lines{"DpiSet 1 1600 1", "DpiSet 1 255 1", "DpiSet 2 255 1"}));
  EXPECT_EQ(desk.record.lines("MouseState"), Lines{"MouseState 2 8 1 1 255 80"});
  EXPECT_EQ(desk.record.lines("DongleState"), Lines{"DongleState 1 2 2 4660 1"});

  // Queries take a number as it is.
  EXPECT_EQ(hub.GetHidMouseType(-1), MouseType_Unknown);
  EXPECT_EQ(hub.GetDeviceConnectMode(-1), DataChannel_Unknown);
  EXPECT_EQ(hub.GetMKeyType_Key1(2, 1), 2);
  EXPECT_EQ(hub.GetMKeyType_Key1(2, 2), 0);
  EXPECT_EQ(hub.GetMKeyType_Key1(-1, 1), 0);
  desk.machine.unplug(swift);
  desk.run(10ms);
  EXPECT_EQ(hub.GetEffectiveDevice(), 1);
}

TEST_F(Commands, RefusalsAndPowerReachTheClient) {
  wren->answer(0x06, {.refuse = true});
  desk.hub->SetDpi(1, 3200);
  wren->reportPower(33);
  wren->reply(0x69, {2});
  wren->reply(0x69, {9});
  desk.run(20ms);
  EXPECT_EQ(desk.record.lines(),
            (Lines{"PowerReport 1 33", "MouseConnect 1 2", "MouseConnect 1 0", "DpiSet 1 3200 0"}));
}

TEST_F(Commands, UrlIsTranslatedInPlace) {
  unsigned char good[] = {'A', 'b', '/', '9'};
  desk.hub->SetDownloadURL(1, good, 4);
  desk.run(10ms);
  EXPECT_EQ(commands(*wren), (Frames{{0x0E, 0xF1, {0x04, 0x05, 0x38, 0x26}}}));
  EXPECT_EQ(desk.record.lines(), Lines{"DownloadUrl 1 1"});
  forget();
  unsigned char colon[] = {'a', ':', 'b'};
  desk.hub->SetDownloadURL(1, colon, 3);
  desk.run(10ms);
  EXPECT_TRUE(commands(*wren).empty());
  EXPECT_EQ(colon[0], 0x04);
  EXPECT_EQ(colon[1], ':');
  // One that does not fit the 64-byte report is translated but not sent; 56 characters fit.
  for (const int length : {57, 56}) {
    std::vector<unsigned char> url(static_cast<std::size_t>(length), 'a');
    desk.hub->SetDownloadURL(1, url.data(), length);
    desk.run(10ms);
    EXPECT_EQ(commands(*wren).size(), length == 56 ? 1U : 0U);
    EXPECT_EQ(url.back(), 0x04);
  }
  desk.hub->SetDownloadURL(1, good, -5);
  EXPECT_EQ(wren->malformed(), 0U);
}

TEST_F(Commands, MKeyFunctionIsListedSetAndConfirmed) {
  CAudioHidCenter& hub = *desk.hub;
  EXPECT_EQ(hub.setMKeyType_Key1(1, MouseMKeyType_Screenshot), SetMKeyType_NotSupported) << "no list received yet";
  hub.getMKeyTypeList_Key1(1);
  desk.run(10ms);
  EXPECT_EQ(desk.record.lines(), Lines{"MKeyTypeSet 1 1 0201020304"});
  EXPECT_EQ(hub.setMKeyType_Key1(1, static_cast<MouseMKeyType>(9)), SetMKeyType_NotSupported);
  EXPECT_EQ(hub.setMKeyType_Key1(1, static_cast<MouseMKeyType>(258)), SetMKeyType_NotSupported);
  forget();
  const auto set = [&] { return hub.setMKeyType_Key1(1, MouseMKeyType_Screenshot); };
  EXPECT_EQ(timeOf(desk, [&] { EXPECT_EQ(set(), SetMKeyType_Confirmed); }), 50);
  EXPECT_EQ(commands(*wren), (Frames{{0x15, 0xF1, {3}}}));
  EXPECT_EQ(hub.GetMKeyType_Key1(1, 1), 3);
  EXPECT_TRUE(desk.record.lines().empty()) << "the answer to a set is no list";

  wren->answer(0x15, {.refuse = true});
  EXPECT_EQ(hub.setMKeyType_Key1(1, MouseMKeyType_HeldButton), SetMKeyType_OtherType);
  wren->answer(0x15, {.silent = true});
  EXPECT_EQ(timeOf(desk, [&] { EXPECT_EQ(set(), SetMKeyType_NoAnswer); }), 2500);
  EXPECT_EQ(hub.setMKeyType_Key1(5, MouseMKeyType_HeldButton), SetMKeyType_NotReady);

  forget();
  EXPECT_EQ(hub.setMKeyType_Key2(1, MouseMKeyType_Screenshot), SetMKeyType_Confirmed);
  EXPECT_EQ(hub.setMKeyType_Key2(5, MouseMKeyType_Screenshot), SetMKeyType_NotReady);
  desk.run(10ms);
  EXPECT_TRUE(commands(*wren).empty());

  // An answer of one byte is ignored, type and all.
  wren->reply(0xB3, {4});
  desk.run(10ms);
  EXPECT_EQ(hub.GetMKeyType_Key1(1, 1), 3);

  // A driver that keeps the request takes no longer.
  wren->faults.hangWrites = true;
  EXPECT_EQ(timeOf(desk, [&] { EXPECT_EQ(set(), SetMKeyType_NoAnswer); }), 2500);
}

TEST_F(Commands, SerialNumbersAreCheckedCharacterByCharacter) {
  CVoxDeviceInfo& info = *CVoxDeviceInfo::Instance();
  EXPECT_EQ(info.GetBluetoothID(), L"192-168-1-2-3-255");
  const auto send = [&](const std::string& serial) {
    wren->reply(0xB1, sim::Bytes(serial.begin(), serial.end()));
    desk.run(1ms);
    return sim::utf8(info.GetBluetoothID());
  };
  const std::string kept = "09azAZ012345678901";
  EXPECT_EQ(send(kept), kept);
  for (const char bad : {'-', '/', ':', '@', '[', '`', '{', '\0', '\x80', '\xFF', '\xB0', '\xE1'}) {
    std::string serial(18, '1');
    serial[7] = bad;
    EXPECT_EQ(send(serial), kept);
  }
  EXPECT_EQ(send(std::string(17, '1')), kept);
  EXPECT_EQ(send(std::string(19, '1')), kept);
  EXPECT_EQ(send(std::string(18, '1')), std::string(18, '1'));
}

TEST_F(Commands, RepliesOfAnotherLengthAreIgnored) {
  const struct {
    std::uint8_t code;
    std::vector<std::size_t> lengths;  // that are taken
  } cases[] = {{0x69, {1}}, {0x6A, {1}}, {0x6F, {1}}, {0x96, {3}}, {0x9C, {11}}, {0x9D, {3, 9}}, {0x9E, {1}}};
  for (const auto& c : cases) {
    for (std::size_t length = 0; length <= 13; ++length) {
      desk.record.clear();
      wren->reply(c.code, sim::Bytes(length, 0));
      desk.run(1ms);
      const bool taken = std::find(c.lengths.begin(), c.lengths.end(), length) != c.lengths.end();
      EXPECT_EQ(desk.record.lines().size(), taken ? 1U : 0U) << int{c.code} << " of " << length;
    }
  }
  desk.record.clear();
  wren->reply(0x9D, {1, 2, 2, 0, 0, 0, 0, 0, 0});
  wren->reply(0x6B, {1, 2, 3});
  desk.run(1ms);
  EXPECT_EQ(desk.record.lines(), (Lines{"DongleState 1 2 2 258 0", "VoiceOperate 1 0"}));
}

TEST_F(Commands, RecordingDevicesAreMatchedByName) {
  CAudioHidCenter& hub = *desk.hub;
  auto plus = desk.connect("Heron Plus", sim::Link::usb);  // 3
  auto tern = desk.connect("Tern");                        // 4
  const struct {
    const wchar_t* name;
    bool found;
    bool wren;
  } cases[] = {
      {L"麦克风 (VoxMouse Wren)", true, true}, {L"VoxMouse Kite", true, false},
      {L"Wren and Tern", true, false},         {L"VoxMouse Heron Plus", false, false},
      {L"VoxMouse Swift", true, false},        {L"wren", false, false},
      {L"VoxMouse Finch", false, false},       {L"", false, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(hub.RecordDeviceIsHidDevice(c.name), c.found) << sim::utf8(c.name);
    EXPECT_EQ(hub.WorkHidIsWren(), c.wren) << sim::utf8(c.name);
  }
  EXPECT_EQ(hub.GetHidName(static_cast<MouseType>(9)), L"VoxMouseB(未知类型)");
  EXPECT_EQ(hub.GetHidName(static_cast<MouseType>(-1)), L"VoxMouseB(未知类型)");
}

TEST_F(Commands, CallbacksCanBeTakenAwayAndMayCallTheHub) {
  // A callback that sends a command, closes the voice channel and asks a question, on its own read thread.
  CAudioHidCenter* hub = desk.hub.get();
  desk.record.during = [&](const std::string& what) {
    if (what != "PowerReport") return;
    hub->SetDpi(1, 800);
    hub->OpenHidRecord();
    hub->CloseHidRecord();
    hub->GetEffectiveDevice();
  };
  hub->ChooseWorkHidDevice(1);
  wren->answer(0x03, {.silent = true});
  wren->reportPower(10);
  desk.run(3s);
  EXPECT_EQ(desk.record.lines("DpiSet"), Lines{"DpiSet 1 800 1"});
  hub->SetCallback_DpiSet(nullptr, nullptr);
  hub->SetDpi(1, 900);
  desk.run(10ms);
  EXPECT_EQ(desk.record.lines("DpiSet").size(), 1U);
}

TEST(Lifecycle, AnAnswerThatComesJustWhenItIsLookedForIsWhole) {
  for (std::uint64_t seed = 1; seed <= seeds(30) && !HasFailure(); ++seed) {
    Desk desk({.seed = seed});
    auto swift = desk.openWith("Swift");
    for (int i = 0; i < 20; ++i) {
      const MouseMKeyType type = i % 2 == 0 ? MouseMKeyType_Screenshot : MouseMKeyType_HeldButton;
      swift->answer(0x15, {.delay = 48ms});
      EXPECT_EQ(desk.hub->setMKeyType_Key1(1, type), SetMKeyType_Confirmed) << "seed " << seed;
    }
  }
}

TEST(Lifecycle, HubWithoutDevicesAnswersEverything) {
  Desk desk;
  CAudioHidCenter& hub = *desk.hub;
  EXPECT_EQ(CAudioHidCenter::Instance(), &hub);
  EXPECT_FALSE(hub.ThreadIsClosed());
  EXPECT_FALSE(hub.OpenHidRecord());
  desk.open();
  EXPECT_TRUE(hub.CloseHidRecord());
  EXPECT_EQ(desk.deliveries, std::vector<int>{0}) << "the end mark";
  desk.run(2s);
  hub.CloseDevice();
  desk.run(100ms);
  EXPECT_FALSE(hub.ThreadIsClosed());
  hub.Release();
  EXPECT_EQ(hub.GetEffectiveDevice(), -1);
}

TEST(Lifecycle, ThreadIsClosedKeepsItsInvertedRule) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  EXPECT_FALSE(desk.hub->ThreadIsClosed()) << "discovery runs";
  desk.record.during = [&](const std::string&) { desk.run(500ms); };
  wren->reportPower(1);
  auto closing = desk.machine.spawn([&] { desk.hub->CloseDevice(); });
  desk.run(60ms);
  EXPECT_TRUE(desk.hub->ThreadIsClosed()) << "discovery has ended, the read thread has not";
  closing.join();
  EXPECT_FALSE(desk.hub->ThreadIsClosed());
}

TEST(Lifecycle, SecondOpenDeviceAndCopiesAreHarmless) {
  Desk desk;
  desk.open();
  auto wren = desk.openWith("Wren");
  EXPECT_EQ(desk.record.lines("HidConnect").size(), 1U) << "two discovery threads, one device";
  {
    CAudioHidCenter copy(*desk.hub);
    EXPECT_EQ(copy.GetHidMouseType(1), MouseType_Wren);
    copy = *desk.hub;
    EXPECT_EQ(copy.GetEffectiveDevice(), 1);
  }
  EXPECT_EQ(CAudioHidCenter::Instance(), desk.hub.get());
  EXPECT_EQ(desk.hub->GetEffectiveDevice(), 1);
}

}  // namespace
