// Keys: every model's layout, the shared buttons, the double click.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/Desk.h"
#include "tools/explore/Explore.h"

namespace {

// The four buttons and the actions since the last look, as "L R - - | MainMenu 16".
std::string look(Desk& desk) {
  std::string text;
  text += desk.hub->GetButtonState_Left() == ButtonDown ? "L" : "";
  text += desk.hub->GetButtonState_Right() == ButtonDown ? "R" : "";
  text += desk.hub->GetButtonState_Key1() == ButtonDown ? "1" : "";
  text += desk.hub->GetButtonState_Key2() == ButtonDown ? "2" : "";
  text += desk.hub->Tern_IsShortPress_R() ? "s" : "";
  for (const char* action : {"MainMenu 16", "PostMainMenu 8"}) {
    if (!desk.record.lines(action).empty()) text += text.empty() ? action : std::string("|") + action;
  }
  desk.record.clear();
  return text;
}

std::string press(Desk& desk, sim::VirtualMouse& device, const std::string& keys) {
  for (const char key : keys) device.key(key);
  desk.run(1ms);
  return look(desk);
}

TEST(Keys, EveryCellOfEveryLayout) {
  // After each key sequence: what is down. Each sequence begins with every button up.
  constexpr sim::Link usb = sim::Link::usb;
  constexpr sim::Link ble = sim::Link::bluetooth;
  const struct {
    const char* model;
    sim::Link link;
    const char* cells;
  } models[] = {{"Wren", usb, "0:L;09:;1:;@:;2:;3:;4:"},
                {"Finch", ble, "0:L;09:;1:R;1@:;2:PostMainMenu 8;3:MainMenu 16;4:"},
                {"Robin", ble, "0:L;09:;1:R;1@:;2:;3:"},
                {"Heron", ble, "0:L;09:;1:R;1@:;2:MainMenu 16;3:PostMainMenu 8"},
                {"Egret", ble, "0:L;09:;1:R;1@:;2:MainMenu 16;3:PostMainMenu 8"},
                {"Heron Plus", ble, "0:L;09:;1:R;1@:;2:MainMenu 16;3:;4:;C:"},
                {"Swift", ble, "0:;1:;4:;2:"},  // deliberately ignored
                {"Tern", usb,
                 "1:L;10:;19:;4:R;45:;4@:;2:;12:;42:R;3:s;43:s;13:L;I:L;4I:;1I:L;Z:R;1Z:L;4Z:R;1]:;4]:;]:;A:;^:;14:L;"
                 "41:R;0:;5:;6:"}};
  for (const auto& model : models) {
    std::istringstream cells(model.cells);
    for (std::string cell; std::getline(cells, cell, ';');) {
      const std::size_t colon = cell.find(':');
      Desk desk;
      auto device = desk.openWith(model.model, model.link);
      look(desk);
      EXPECT_EQ(press(desk, *device, cell.substr(0, colon)), cell.substr(colon + 1)) << model.model << " " << cell;
    }
  }
}

TEST(Keys, TernLongPressReleasesTheVoiceKeyWhenThePreferenceSaysSo) {
  Desk desk;
  auto tern = desk.openWith("Tern");
  CPreferences::Instance()->SetVoxButtonLongDown(1);
  EXPECT_EQ(press(desk, *tern, "1"), "L");
  EXPECT_EQ(press(desk, *tern, "Z"), "");
}

TEST(Keys, OneButtonIsDownAtATimeAndItsOwnerReleasesIt) {
  Desk desk;
  auto a = desk.openWith("Robin", sim::Link::bluetooth);      // 1
  auto b = desk.connect("Heron Plus", sim::Link::bluetooth);  // 2
  EXPECT_EQ(press(desk, *a, "1"), "R");
  EXPECT_EQ(press(desk, *b, "0"), "R");
  EXPECT_EQ(press(desk, *b, "@"), "R");
  EXPECT_EQ(press(desk, *b, "2"), "R|MainMenu 16") << "direct actions need no free buttons";
  EXPECT_EQ(press(desk, *a, "@"), "");
  EXPECT_EQ(press(desk, *b, "0"), "L");
  EXPECT_EQ(press(desk, *a, "9"), "L");
  // Replies of another length are no keys.
  b->reply(0x9F, {'9', '9'});
  b->reply(0x9F, {});
  desk.run(1ms);
  EXPECT_EQ(look(desk), "L");
  EXPECT_EQ(press(desk, *b, "9"), "");
}

TEST(Keys, ADeviceThatGoesReleasesWhatItHeldAndNothingElse) {
  Desk desk;
  auto a = desk.openWith("Robin", sim::Link::bluetooth);
  auto b = desk.connect("Heron Plus", sim::Link::bluetooth);
  for (const std::string key : {"0", "1"}) {
    const std::string down = key == "0" ? "L" : "R";
    EXPECT_EQ(press(desk, *b, key), down);
    desk.machine.unplug(a);
    desk.run(2s);
    EXPECT_EQ(look(desk), down) << "another device's";
    desk.machine.plug(a);
    desk.run(3s);
    desk.machine.unplug(b);
    desk.run(1ms);
    EXPECT_EQ(look(desk), "");
    desk.machine.plug(b);
    desk.run(3s);
  }
}

TEST(Keys, PollingChoosesTheWorkDevice) {
  Desk desk;
  auto wren = desk.openWith("Wren");                         // 1
  auto robin = desk.connect("Robin", sim::Link::bluetooth);  // 2
  EXPECT_FALSE(desk.hub->OpenHidRecord()) << "no work device yet";
  press(desk, *wren, "09");
  press(desk, *robin, "1");
  desk.hub->GetButtonState_Left();
  EXPECT_TRUE(desk.hub->WorkHidIsWren());
  desk.hub->GetButtonState_Right();
  EXPECT_FALSE(desk.hub->WorkHidIsWren());
  desk.hub->LeftKeyDown_Up();
  EXPECT_TRUE(desk.hub->WorkHidIsWren());
  desk.hub->GetButtonState_Key1();
  EXPECT_FALSE(desk.hub->OpenHidRecord()) << "nobody has pressed key 1";
}

TEST(Keys, CompletedPressIsSeenOnce) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  EXPECT_FALSE(desk.hub->LeftKeyDown_Up());
  press(desk, *wren, "0");
  EXPECT_FALSE(desk.hub->LeftKeyDown_Up());
  press(desk, *wren, "9");
  EXPECT_TRUE(desk.hub->LeftKeyDown_Up());
  EXPECT_FALSE(desk.hub->LeftKeyDown_Up());
}

TEST(Keys, AShortPressThatComesJustWhenItIsAskedForIsToldOnce) {
  for (std::uint64_t seed = 1; seed <= seeds(20) && !HasFailure(); ++seed) {
    Desk desk({.seed = seed});
    auto tern = desk.openWith("Tern");
    auto hand = desk.machine.spawn([&] {
      for (int i = 0; i < 20; ++i) {
        tern->key('3');
        desk.run(50ms);
      }
    });
    int told = 0;
    for (int i = 0; i < 1200; ++i) {
      told += desk.hub->Tern_IsShortPress_R() ? 1 : 0;
      desk.run(1ms);
    }
    hand.join();
    EXPECT_EQ(told, 20) << "seed " << seed;
  }
}

TEST(Keys, AnUnreadShortPressIsForgottenWithTheTern) {
  Desk desk;
  auto tern = desk.openWith("Tern");
  for (const int chosen : {1, -1}) {
    tern->key('3');
    desk.run(1ms);
    desk.hub->ChooseWorkHidDevice(chosen);
    EXPECT_FALSE(desk.hub->WorkHidIsWren());
    EXPECT_EQ(desk.hub->Tern_IsShortPress_R(), chosen == 1);
  }
}

// Presses and releases a detector at given milliseconds; what was logged and posted, and the outcome.
struct Clicks {
  std::vector<int> edges;  // press, release, press, ...
  Lines expected;
  VoxClickMode outcome;
};

void click(Desk& desk, const Clicks& clicks, const char* name) {
  SCOPED_TRACE(name);
  KzCheckDoubleClick detector;
  desk.record.clear();
  int now = clicks.edges[0];
  bool down = true;
  for (const int edge : clicks.edges) {
    desk.run(std::chrono::milliseconds(edge - now));
    now = edge;
    detector.SetKeyState(down ? ButtonDown : ButtonUp);
    detector.SetKeyState(down ? ButtonDown : ButtonUp);  // a level that is fed again is no edge
    down = !down;
  }
  EXPECT_EQ(desk.record.lines(), clicks.expected);
  EXPECT_EQ(detector.GetClickMode(), clicks.outcome);
}

TEST(DoubleClick, FollowsTheStateMachineAlsoAcrossTheWrapOfTheTicks) {
  const auto logged = [](const char* numbers) {
    return Lines{std::string("Log 33 语音键双击：") + numbers, "PostMainMenu 8"};
  };
  const std::pair<const char*, Clicks> cases[] = {
      {"double click", {{1000, 1100, 1200, 1300}, logged("0  100  200  300"), ClickDouble}},
      {"just in time", {{1000, 1100, 1200, 1399}, logged("0  100  200  399"), ClickDouble}},
      {"too late", {{1000, 1100, 1200, 1400}, {}, ClickNone}},
      {"the second click becomes the first",
       {{1000, 1100, 1200, 1400, 1450, 1550}, logged("0  200  250  350"), ClickDouble}},
      {"the second click was too long", {{1000, 1100, 1200, 1600, 1650, 1700}, {}, ClickNone}},
      {"first press held", {{1000, 1400, 1450, 1500}, {}, ClickNone}},
      {"first click expired at the second press", {{1000, 1100, 1400, 1450}, {}, ClickNone}},
      {"and begins anew there", {{1000, 1100, 1400, 1450, 1500, 1600}, logged("0  50  100  200"), ClickDouble}},
      {"three quick clicks count once", {{1000, 1050, 1100, 1150, 1200, 1250}, logged("0  50  100  150"), ClickNone}},
  };
  for (const DWORD firstTick : {DWORD{1'000'000}, DWORD{0} - 250}) {
    for (const auto& [name, clicks] : cases) {
      Desk desk({.firstTick = firstTick});
      CPreferences::Instance()->SetVoiceClickTimes(2);
      click(desk, clicks, name);
      CPreferences::Instance()->SetVoiceClickTimes(1);
      click(desk, {clicks.edges, {}, ClickNone}, "single mode");
    }
  }
}

TEST(DoubleClick, WithoutNetworkIsRememberedAndNotPosted) {
  Desk desk;
  CPreferences::Instance()->SetVoiceClickTimes(2);
  CEnvironmentMonitor::SetNet(false);
  click(desk, {{1000, 1100, 1200, 1300}, {"Log 33 语音键双击：0  100  200  300"}, ClickDoubleNoNet}, "no network");
}

TEST(DoubleClick, ReachesTheClientThroughTheHub) {
  Desk desk;
  CPreferences::Instance()->SetVoiceClickTimes(2);
  desk.makeHub();  // takes the preferences
  auto tern = desk.openWith("Tern");
  // What was told, and the outcome.
  const auto send = [&](const std::string& keys) {
    desk.record.clear();
    for (const char key : keys) {
      tern->key(key);
      desk.run(100ms);
    }
    return std::pair(desk.record.lines(), desk.hub->GetClickMode_L());
  };
  using Result = std::pair<Lines, VoxClickMode>;
  EXPECT_EQ(send("1010"), Result({"Log 33 语音键双击：0  100  200  300", "PostMainMenu 8"}, ClickDouble));
  EXPECT_EQ(send("10"), Result({}, ClickNone));
  EXPECT_EQ(send("2"), Result({"PostMainMenu 8"}, ClickDouble)) << "the device's own double click is not logged";
  send("1");
  desk.machine.unplug(tern);
  desk.run(100ms);
  EXPECT_EQ(desk.hub->GetClickMode_L(), ClickNone) << "cleared with the button it held";
}

}  // namespace
