// Older hardware: what is plugged in, its keys, and the working mode that follows it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bench/Allocations.h"
#include "platform/os.h"
#include "sim/Text.h"
#include "sim/devices/Legacy.h"
#include "support/Worker.h"
#include "tests/Desk.h"
#include "tools/explore/Explore.h"

namespace {

using sim::LegacyKind;

constexpr int kXButton1 = 0x05, kXButton2 = 0x06, kF9 = 0x78, kF15 = 0x7E, kF19 = 0x82, kF20 = 0x83, kF23 = 0x86;

// A desk with an older-hardware facade. The events of its pollers and, once devices have been released, the files of
// HID devices stay open by design.
struct LegacyDesk : Desk {
  explicit LegacyDesk(const sim::MachineOptions& options = {}, int toggleButton = 1, int clickTimes = 1)
      : Desk(options) {
    CPreferences::Instance()->SetToggleButton(toggleButton);
    CPreferences::Instance()->SetVoiceClickTimes(clickTimes);
    leftOpen.handles = 1;
    mouse.emplace();
  }
  ~LegacyDesk() { mouse.reset(); }
  std::unique_ptr<sim::LegacyDevice> device(LegacyKind kind, const std::string& serial = {}) {
    return std::make_unique<sim::LegacyDevice>(machine, kind, serial);
  }
  sim::Peripherals& peripherals() { return machine.peripherals(); }
  std::string keys() {
    return std::string(mouse->GetKey_M_L() == ButtonDown ? "L" : "-") + (mouse->GetKey_M_R() == ButtonDown ? "R" : "-");
  }

  std::optional<CFormerMouse> mouse;
};

bool has(const std::vector<int>& keys, int key) { return std::find(keys.begin(), keys.end(), key) != keys.end(); }

std::string joined(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += (text.empty() ? "" : "|") + line;
  return text;
}

TEST(Detection, WalksTheListsByTheirRules) {
  const std::wstring mouse = LR"(\\?\usb#vid_0d8c&pid_0132#mouse01#{guid})";
  const std::wstring mouse134 = LR"(\\?\usb#vid_0d8c&pid_0134#mouse34#{guid})";
  const std::wstring pen = LR"(\\?\usb#vid_0d8c&pid_0132#7vx0pipit9#{guid})";
  const std::wstring ql = LR"(\\?\usb#vid_0d8c&pid_0134#vx9ql01#{guid})";
  const std::wstring lateMark = LR"(\\?\usb#vid_0d8c&pid_0132#abc#vx0pipit)";
  const std::wstring noEnd = LR"(\\?\usb#vid_0d8c&pid_0132#abcdef)";
  const std::wstring upper = LR"(\\?\usb#VID_0D8C&PID_0132#mouse01#{guid})";
  const std::wstring foreign = LR"(\\?\usb#vid_046d&pid_c077#x#{guid})";
  const struct {
    std::vector<std::wstring> paths;
    int kind;
    VoxHardWare initial;
    const wchar_t* identity;
    bool onlyQl;
  } cases[] = {
      {{}, 1, HardWare_Mouse, L"no_ID", false},
      {{foreign, upper}, 1, HardWare_Mouse, L"no_ID", false},
      {{mouse}, 1, HardWare_Mouse, L"mouse01", false},
      {{foreign, mouse134, mouse}, 1, HardWare_Mouse, L"mouse34", false},
      {{pen}, 2, HardWare_LaserPen, L"7vx0pipit9", false},
      {{pen, mouse}, 3, HardWare_Mouse, L"7vx0pipit9", false},
      {{noEnd}, 1, HardWare_Mouse, L"no_ID", false},
      {{noEnd, pen}, 3, HardWare_Mouse, L"7vx0pipit9", false},
      // Deliberately the two walks differ in where they look for the pen's mark.
      {{lateMark}, 1, HardWare_LaserPen, L"abc", false},
      {{ql}, 1, HardWare_Mouse, L"vx9ql01", true},
      {{ql, noEnd}, 1, HardWare_Mouse, L"vx9ql01", true},
      {{ql, mouse}, 1, HardWare_Mouse, L"vx9ql01", false},
      {{ql, pen}, 3, HardWare_Mouse, L"vx9ql01", false},
      // A path that is too long to be read ends the list.
      {{mouse, L"usb#" + std::wstring(600, L'x'), pen}, 1, HardWare_Mouse, L"mouse01", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.paths.empty() ? "" : sim::utf8(c.paths[0]));
    LegacyDesk desk;
    for (const std::wstring& path : c.paths) desk.peripherals().usb.push_back({.path = path});
    desk.peripherals().media.push_back({.hardwareIds = {"USB\\VID_0D8C&PID_0132&REV_0100&MI_00"}});
    EXPECT_EQ(desk.mouse->ReCheckHardwareKind(), c.kind);
    EXPECT_EQ(CVoxDeviceInfo::Instance()->GetFormerDeviceID(), c.identity);
    EXPECT_EQ(CFormerMouse::InitVoxHardwareKind(), c.initial);
    desk.mouse->Init();
    desk.run(3900ms);
    EXPECT_EQ(desk.mouse->IsConnect(), 0) << "looked at for the last time when nothing was there";
    desk.run(200ms);
    EXPECT_EQ(desk.mouse->IsConnect(), c.onlyQl ? -1 : 0);
  }
  LegacyDesk desk;
  desk.peripherals().usb = {{.path = pen, .answers = false}, {.path = mouse}};
  EXPECT_EQ(desk.mouse->ReCheckHardwareKind(), 1) << "what cannot be opened does not count";
}

TEST(Detection, TellsTheRevisionBySoundFunction) {
  const std::string rev1 = "USB\\VID_0D8C&PID_0134&REV_0100&MI_00";
  const std::string rev2 = "USB\\VID_0D8C&PID_0135&REV_0200&MI_00";
  using Devices = std::vector<std::vector<std::string>>;
  LegacyDesk desk;
  const auto connect = [&](const Devices& devices) {
    desk.peripherals().media.clear();
    for (const auto& ids : devices) desk.peripherals().media.push_back({.hardwareIds = ids});
    return desk.mouse->IsConnect();
  };
  // The revision is seen in what the imitation sends: the key of the second revision, or the other. Where something is
  // found, it follows at the next look.
  const struct {
    Devices devices;
    int result, imitated;
  } steps[] = {
      {{}, -1, kXButton1},
      {{{"PCI\\VEN_10EC"}, {}, {"x", rev2}}, 2, kXButton1},
      {{{"x", rev2}}, 0, kF19},
      {{{rev1, rev2}}, 0, kF19},
      {{{rev1, rev2}}, 0, kF19},  // both: the revision known so far
      {{{rev1}}, 0, kF19},
      {{{rev1, rev2}}, 0, kXButton1},
      {{{rev1, rev2}}, 0, kXButton1},
      {{{"USB\\vid_0d8c&pid_0132&rev_0100&mi_00"}}, -1, kXButton1},  // another spelling
      {{{"VID_0D8C&PID_0132&REV", "_0100&MI_00"}}, 0, kXButton1},    // the texts run together
      // A thousand devices, and one with more text than there is room for.
      {Devices(3000, {"PCI\\VEN_10EC"}), -1, kXButton1},
      {{{std::string(16383, 'x')}}, -1, kXButton1},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    EXPECT_EQ(connect(step.devices), step.result);
    desk.mouse->ImitateKeyM_L();
    EXPECT_EQ(desk.peripherals().keyboard.sentReleases.back(), step.imitated);
  }
  EXPECT_DEATH(connect({{std::string(16384, 'x')}}), "media device 0 have 16384 bytes");
}

TEST(UsbKeys, EveryPairForEveryLayoutAndTheImitationOfTheirRelease) {
  const struct {
    int toggleButton;
    std::vector<int> left, right;  // of the second revision, and of the first
  } layouts[] = {{1, {kF19, kXButton1}, {kF20, kXButton2}},
                 {2, {kF20, kF9}, {kF19, kXButton1}},
                 {0, {kF20, kXButton2}, {kF19, kXButton1}}};
  for (const auto& layout : layouts) {
    SCOPED_TRACE(layout.toggleButton);
    for (const std::size_t first : {0U, 1U}) {
      LegacyDesk desk({}, layout.toggleButton);
      desk.device(LegacyKind::usbMouseRev2)->plug();
      for (int i = 0; i < (first == 0 ? 2 : 0); ++i) EXPECT_EQ(desk.mouse->IsConnect(), 0);
      desk.mouse->ImitateKeyM_L();
      desk.mouse->ImitateKeyM_R();
      EXPECT_EQ(desk.peripherals().keyboard.sentReleases, (std::deque{layout.left[first], layout.right[first]}));
    }
    LegacyDesk desk({}, layout.toggleButton);
    auto usb = desk.device(LegacyKind::usbMouse);
    desk.mouse->StartCheck();
    desk.run(120ms);
    for (const int key : {kXButton1, kXButton2, kF9, kF19, kF20}) {
      usb->press(key);
      desk.run(30ms);
      EXPECT_EQ(desk.keys(), std::string(has(layout.left, key) ? "L" : "-") + (has(layout.right, key) ? "R" : "-"))
          << key;
      usb->press(key, false);
      desk.run(30ms);
      EXPECT_EQ(desk.keys(), "--");
    }
  }
}

TEST(UsbKeys, ArePolledEvery13MillisecondsWhileChecking) {
  LegacyDesk desk;
  auto usb = desk.device(LegacyKind::usbMouse);
  usb->press(kF19);
  desk.run(1s);
  EXPECT_EQ(desk.keys(), "--") << "idle";
  desk.mouse->StartCheck();
  desk.mouse->StartCheck();
  EXPECT_EQ(desk.record.lines(), Lines{"DebugLog 45 连接了VoxMouse硬件，开始键值检测"});
  desk.run(110ms);
  EXPECT_EQ(desk.keys(), "L-");
  const auto waits = desk.machine.waits();
  desk.run(1300ms);
  EXPECT_NEAR(static_cast<double>(desk.machine.waits() - waits), 200, 3) << "a cycle waits twice";
  usb->press(kF19, false);
  desk.run(14ms);
  EXPECT_EQ(desk.keys(), "--");
  EXPECT_FALSE(desk.mouse->LeftKeyDown_Up()) << "nobody saw it down";
  usb->press(kF19);
  desk.run(14ms);
  EXPECT_FALSE(desk.mouse->LeftKeyDown_Up());
  usb->press(kF19, false);
  desk.run(14ms);
  EXPECT_TRUE(desk.mouse->LeftKeyDown_Up());
  EXPECT_FALSE(desk.mouse->LeftKeyDown_Up());
  desk.record.clear();
  desk.mouse->StopCheck();
  desk.mouse->StopCheck();
  EXPECT_EQ(desk.record.lines("DebugLog"), Lines(2, "DebugLog 45 未连接VoxMouse硬件，停止键值检测"));
}

TEST(UsbKeys, PollingAllocatesNothing) {
  // As many allocations as a thread that makes the same calls and nothing else: all of them are the machine's.
  const auto inHundredSeconds = [](bool byHand) {
    sim::Machine machine;
    std::optional<CFormerMouse_Usb> usb;
    if (byHand) {
      machine.spawn([never = os::CreateEventW(nullptr, FALSE, FALSE, nullptr)] {
        for (;;) {
          os::WaitForSingleObject(never, 10);
          for (const int key : {kXButton1, kF19, kXButton2, kF20}) os::GetAsyncKeyState(key);
          os::WaitForSingleObject(never, 3);
        }
      });
    } else {
      usb.emplace().StartCheck();
    }
    machine.sleep(1s);
    const std::int64_t before = allocations();
    machine.sleep(100s);
    return allocations() - before;
  };
  const std::int64_t machines = inHundredSeconds(true);
  EXPECT_EQ(inHundredSeconds(false), machines);
  EXPECT_GT(machines, 100 * 1000 / 13) << "it did poll";
}

TEST(LaserPen, AnswersItsKeysAndImitatesTheirRelease) {
  LegacyDesk desk;
  const CFormerLaserPen pen;
  sim::Keyboard& keyboard = desk.peripherals().keyboard;
  const struct {
    VoxButtonState (CFormerLaserPen::*getter)() const;
    std::vector<int> keys;
  } getters[] = {{&CFormerLaserPen::GetKey_P_subtitle, {0x87, 0x81}},
                 {&CFormerLaserPen::GetKey_P_translate, {0x85, 0x7F}},
                 {&CFormerLaserPen::GetKey_P_control, {0x86, 0x80}},
                 {&CFormerLaserPen::GetKey_P_disturb, {0x21, 0x22}},
                 {&CFormerLaserPen::GetKey_P_close, {kF15}}};
  for (const auto& g : getters) {
    pen.GetKey_P_close();  // forgets what was tapped
    for (int key = 1; key < 256; ++key) {
      const bool its = has(g.keys, key);
      keyboard.press(key);
      EXPECT_EQ((pen.*g.getter)(), its ? ButtonDown : ButtonUp) << key;
      keyboard.release(key);
      keyboard.press(key);
      keyboard.release(key);
      EXPECT_EQ((pen.*g.getter)(), its && key == kF15 ? ButtonDown : ButtonUp)
          << key << ": tapped since the last query";
      EXPECT_EQ((pen.*g.getter)(), ButtonUp) << key;
    }
  }
  pen.ImitateKeyP_subtitle();
  EXPECT_EQ(keyboard.sentReleases, (std::deque{0x87, 0x81, 0x85, 0x7F}));
  keyboard.sentReleases.clear();
  pen.ImitateKeyP_control();
  EXPECT_EQ(keyboard.sentReleases, (std::deque{0x86, 0x80, 0x87, 0x81, 0x85, 0x7F}));
}

TEST(LegacyHid, KeysOfBothKindsAndTheirArming) {
  LegacyDesk desk({}, 1, 2);
  auto mouse = desk.device(LegacyKind::hidMouse);
  auto lark = desk.device(LegacyKind::voiceKeyboard);
  mouse->plug();
  lark->plug();
  desk.mouse->StartCheck();
  sim::LegacyDevice& m = *mouse;
  sim::LegacyDevice& k = *lark;
  const auto send = [&](sim::LegacyDevice& device, const std::vector<std::uint8_t>& codes) {
    desk.run(1s);
    desk.record.clear();
    for (const std::uint8_t code : codes) {
      device.hid()->key(code);
      desk.run(20ms);
    }
    return desk.keys();
  };
  const std::string low = "Tray 1 语音键盘电量低，请充电";
  const struct {
    sim::LegacyDevice& device;
    std::vector<std::uint8_t> codes;
    const char* keys;
    HidDeviceKind kind;
    std::string told{};
  } steps[] = {
      {k, {0x21}, "L-", HidKind_VoiceKeyboard},
      {m, {0x11}, "-R", HidKind_Mouse},
      {k, {0x11}, "-R", HidKind_VoiceKeyboard},
      {k, {0x00}, "--", HidKind_Mouse},  // a constant, deliberately
      {k, {0x41, 0x41, 0x41}, "--", HidKind_Mouse, "Log 23 检测到 语音键盘 导航键按下，打开VoxMouse导航|MainMenu 8"},
      {k, {0x51}, "--", HidKind_Mouse},  // not armed
      {k, {0x00, 0x51, 0x51}, "--", HidKind_Mouse, "Log 38 检测到 语音键盘 截图键按下|MainMenu 16"},
      {k, {0x65, 0x65, 0x41}, "--", HidKind_Mouse, low + "|" + low},  // a warning arms nothing
      {m, {0x21, 0x41}, "--", HidKind_Mouse},                         // a mouse has no such keys
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(&step - steps);
    EXPECT_EQ(send(step.device, step.codes), step.keys);
    EXPECT_EQ(joined(desk.record.lines()), step.told);
    EXPECT_EQ(CDeviceData::Instance()->GetHidDeviceKind(), step.kind);
  }
  send(k, {0x00, 0x21, 0x00, 0x21, 0x00});
  EXPECT_EQ(desk.record.lines("PostMainMenu"), Lines{"PostMainMenu 8"});
  EXPECT_EQ(desk.mouse->GetClickMode_L(), ClickDouble);

  // Both sources count.
  desk.peripherals().keyboard.press(kF19);
  EXPECT_EQ(send(m, {0x00}), "L-");
  EXPECT_EQ(send(m, {0x11}), "LR");
  desk.peripherals().keyboard.release(kF19);
  EXPECT_EQ(send(m, {0x21}), "L-");
  send(m, {0x00});

  // One is pulled out and comes back: the other goes on.
  mouse->unplug();
  desk.run(10ms);
  EXPECT_EQ(send(k, {0x21}), "L-");
  mouse->plug();
  desk.run(3100ms);
  EXPECT_EQ(send(m, {0x11}), "-R");
  EXPECT_EQ(desk.machine.balance().threads, 4U) << "poller, rescan, two readers";
  desk.mouse->StopCheck();
  desk.run(100ms);
  EXPECT_EQ(desk.keys(), "--");
  EXPECT_EQ(desk.machine.balance().threads, 1U);
  desk.leftOpen.handles += 2;  // the files of released devices stay open
}

TEST(LegacyHid, RefusedDevicesAreForgottenAtTheNextStart) {
  LegacyDesk desk;
  auto brief = std::make_shared<sim::LegacyHid>("0132", "7&short&0&0000", 3, std::uint16_t{7});
  auto shy = std::make_shared<sim::LegacyHid>("0135", "7&shy&0&0000", 2);
  auto long100 = std::make_shared<sim::LegacyHid>("0132", "7&long&0&0000", 3, std::uint16_t{100});  // more than is read
  shy->faults.refuseOpen = [](int) { return true; };
  for (const auto& device : {brief, shy, long100}) desk.machine.plug(device);
  desk.mouse->StartCheck();
  desk.run(10s);
  brief->inputLength = brief->outputLength = 8;
  shy->faults.refuseOpen = nullptr;
  desk.run(10s);
  brief->key(0x21);
  desk.run(20ms);
  EXPECT_EQ(desk.keys(), "--") << "refused once, refused until it stops";
  desk.mouse->StopCheck();
  desk.run(50ms);
  desk.mouse->StartCheck();
  desk.run(50ms);
  brief->key(0x21);
  desk.run(20ms);
  EXPECT_EQ(desk.keys(), "L-");
  desk.machine.unplug(brief);
  desk.machine.unplug(shy);
  desk.run(100ms);
}

TEST(LegacyHid, ADeviceWhoseReaderDoesNotStartIsTriedAgain) {
  LegacyDesk desk;
  auto device = desk.device(LegacyKind::hidMouse);
  device->plug();
  desk.machine.faults().fail("_beginthreadex", 1, 1);  // the rescan's starts
  desk.mouse->StartCheck();
  desk.run(1s);
  desk.machine.faults().repair();
  desk.run(3s);
  device->hid()->key(0x21);
  desk.run(20ms);
  EXPECT_EQ(desk.keys(), "L-");
  desk.leftOpen.handles += 1;
}

TEST(LegacyHid, AStartIsNeverLost) {
  for (std::uint64_t seed = 1; seed <= 300 && !::testing::Test::HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    LegacyDesk desk({.seed = seed});
    auto device = desk.device(LegacyKind::hidMouse);
    device->plug();
    desk.mouse->StartCheck();
    desk.run(40ms);
    desk.mouse->StopCheck();
    desk.run(std::chrono::milliseconds(seed % 40));
    // The client and the mode switch, in the instant in which the re-check thread ends.
    auto other = desk.machine.spawn([&] { desk.mouse->StartCheck(); });
    desk.mouse->StartCheck();
    other.join();
    desk.run(3100ms);
    EXPECT_EQ(desk.machine.balance().threads, 3U) << "poller, rescan, one reader";
    device->hid()->key(0x21);
    desk.run(20ms);
    EXPECT_EQ(desk.keys(), "L-");
    desk.mouse->StopCheck();
    desk.run(100ms);
    desk.mouse.reset();
    desk.close();
    desk.leftOpen.handles = desk.machine.balance().handles;
    EXPECT_LE(desk.leftOpen.handles, 3U) << "the poller's event, the files of released devices";
  }
}

TEST(ModeSwitch, FollowsTheUserForAnHour) {
  LegacyDesk desk;
  auto usb = desk.device(LegacyKind::usbMouse);
  auto pen = desk.device(LegacyKind::laserPen);
  CFormerLaserPen penKeys;
  CSoftModeSwitch modes;
  bool veto = false;
  const CSoftModeSwitch::PauseCallback pause = [](void* context) { return *static_cast<bool*>(context); };
  const std::string toPen = "MainWndWork 2|Log 33 程序切换到“激光笔”模式|Tray 1 程序切换到“鼠标”模式";
  const std::string toMouse = "MainWndWork 2|Log 33 程序切换到“鼠标”模式|Tray 1 程序切换到“鼠标”模式";
  const std::string stopped = "DebugLog 45 未连接VoxMouse硬件，停止键值检测";
  const std::string started = "DebugLog 45 连接了VoxMouse硬件，开始键值检测";
  // And the mode then.
  const auto happens = [&](sim::Time time) {
    desk.record.clear();
    desk.run(time);
    return joined(desk.record.lines()) + " -> " + std::to_string(CPreferences::Instance()->GetHardWare());
  };

  modes.StartCheck(nullptr, nullptr, nullptr, desk.hub.get(), &penKeys);
  EXPECT_EQ(desk.machine.balance().threads, 1U) << "not without a mouse";
  // Also right after a stop.
  for (const int stop : {0, 1, 2}) {
    if (stop == 1) modes.Release();
    if (stop == 2) modes.StopCheck();
    modes.StartCheck(reinterpret_cast<void*>(pause), &veto, &*desk.mouse, desk.hub.get(), &penKeys);
    if (stop < 2) desk.run(1s);
  }
  EXPECT_TRUE(modes.ThreadIsClosed()) << "always";
  pen->plug();
  EXPECT_EQ(happens(7949ms), " -> 1");
  EXPECT_EQ(happens(2ms), toPen + "|" + stopped + " -> 2") << "at the first check";
  EXPECT_EQ(CVoxDeviceInfo::Instance()->GetFormerDeviceID(), L"vx0pipit7");
  EXPECT_EQ(happens(8s), " -> 2");

  usb->plug();  // both: nothing by itself, but the mouse's keys are watched
  EXPECT_EQ(happens(8s), started + " -> 2");
  usb->press(kF19);
  EXPECT_EQ(happens(230ms), toMouse + " -> 1");
  usb->press(kF19, false);
  desk.peripherals().keyboard.press(kF23);
  veto = true;
  EXPECT_EQ(happens(1s), " -> 1") << "not now";
  veto = false;
  EXPECT_EQ(happens(110ms), toPen + " -> 2");
  desk.peripherals().keyboard.release(kF23);

  // A current model's voice key counts, too, beside a pen.
  usb->unplug();
  auto wren = desk.openWith("Wren");
  desk.run(16s);
  wren->pressVoiceKey();
  EXPECT_EQ(happens(110ms), toMouse + " -> 1");
  wren->releaseVoiceKey();
  EXPECT_EQ(happens(20s), " -> 1") << "pen and current model: both";
  CDeviceData::Instance()->SetHardwareChecked(false);
  desk.run(8s);
  desk.peripherals().keyboard.press(kF23);
  EXPECT_EQ(happens(20s), " -> 1") << "the client does not want it";
  desk.peripherals().keyboard.release(kF23);
  CDeviceData::Instance()->SetHardwareChecked(true);
  desk.machine.unplug(wren);
  desk.run(3s);
  EXPECT_EQ(happens(8s), toPen + "|" + stopped + " -> 2");

  // The rest of the hour: mouse and pen take turns.
  const Lines expected{toMouse + "|" + started + " -> 1", toPen + "|" + stopped + " -> 2"};
  for (int turn = 0; turn < 100; ++turn) {
    pen->unplug();
    usb->plug();
    EXPECT_EQ(happens(16s), expected[0]);
    pen->plug();
    usb->unplug();
    EXPECT_EQ(happens(16s), expected[1]);
  }
  modes.StopCheck();
  desk.run(60ms);
  usb->plug();
  EXPECT_EQ(happens(20s), " -> 2");
}

// A desk with a voice keyboard, whose client may be busy.
struct BusyDesk : LegacyDesk {
  explicit BusyDesk(const sim::MachineOptions& options = {}) : LegacyDesk(options) { lark->plug(); }
  ~BusyDesk() { mouse.reset(); }
  std::size_t threads() { return machine.balance().threads; }
  // Whether a key of the device is seen.
  bool reads(sim::LegacyDevice& device) {
    run(20ms);
    device.hid()->key(0x11);
    run(15ms);
    const bool down = mouse->GetKey_M_R() == ButtonDown;
    device.hid()->key(0x00);
    run(15ms);
    return down;
  }

  std::unique_ptr<sim::LegacyDevice> lark = device(LegacyKind::voiceKeyboard);
};

TEST(LegacyThreads, AreReleasedInsideTheirOwnMessages) {
  const struct {
    const char* message;
    std::uint8_t key;
    const char* told;
  } cases[] = {{"Log 23", 0x41, "Log 23 检测到 语音键盘 导航键按下，打开VoxMouse导航"},
               {"MainMenu", 0x41, "Log 23 检测到 语音键盘 导航键按下，打开VoxMouse导航|MainMenu 8"},
               {"Tray", 0x65, "Tray 1 语音键盘电量低，请充电"}};
  for (const auto& c : cases) {
    for (const bool destroys : {false, true}) {
      SCOPED_TRACE(c.message);
      BusyDesk desk;
      std::optional<CFormerMouse_Hid> hid(std::in_place);
      hid->StartCheck();
      desk.run(20ms);
      std::int64_t took = -1;
      desk.record.during = [&](const std::string& message) {
        if (message == c.message) took = timeOf(desk, [&] { destroys ? hid.reset() : hid->Release(); });
      };
      desk.lark->hid()->key(c.key);
      desk.run(50ms);
      EXPECT_EQ(joined(desk.record.lines()), c.told) << "and nothing more";
      EXPECT_TRUE(took >= 0 && took < 50) << took;
      EXPECT_EQ(desk.threads(), 1U) << "the facade's poller";
      if (!destroys) {
        EXPECT_TRUE(hid->ThreadIsClosed());
        hid->StartCheck();
        desk.run(20ms);
        desk.lark->hid()->key(0x21);
        desk.run(5ms);
        EXPECT_EQ(hid->GetKey_M_L(), ButtonDown);
        hid->Release();
      }
      desk.leftOpen.handles += destroys ? 1 : 2;
    }
  }
}

TEST(LegacyThreads, AStopInsideAMessageOfThePollersLeavesNoKeyDown) {
  LegacyDesk desk({}, 1, 2);
  sim::Keyboard& keyboard = desk.peripherals().keyboard;
  desk.mouse->StartCheck();
  desk.run(120ms);
  keyboard.press(kF20);
  const auto doubleClick = [&] {
    for (int i = 0; i < 2; ++i) {
      keyboard.press(kF19);
      desk.run(50ms);
      EXPECT_EQ(desk.keys(), "LR");
      keyboard.release(kF19);
      desk.run(50ms);
    }
    return desk.mouse->GetClickMode_L();
  };
  EXPECT_EQ(doubleClick(), ClickDouble);
  desk.run(1s);
  desk.record.during = [&](const std::string& message) {
    if (message == "PostMainMenu") desk.mouse->StopCheck();
  };
  EXPECT_EQ(doubleClick(), ClickNone);
  EXPECT_EQ(desk.record.lines("PostMainMenu"), Lines(2, "PostMainMenu 8"));
  EXPECT_EQ(desk.keys(), "--");
}

TEST(LegacyThreads, TwoMessagesThatReleaseEachOthersThreadsBothReturn) {
  BusyDesk desk;
  auto second = desk.device(LegacyKind::voiceKeyboard, "second");
  second->plug();
  desk.mouse->StartCheck();
  desk.run(20ms);
  int released = 0;
  desk.record.during = [&, mouse = &*desk.mouse](const std::string&) {
    desk.run(10ms);
    EXPECT_EQ(timeOf(desk, [&] { mouse->Release(); }), 100);
    ++released;
  };
  desk.lark->hid()->key(0x65);
  second->hid()->key(0x65);
  desk.run(1ms);
  EXPECT_LE(timeOf(desk, [&] { desk.mouse.reset(); }), 120);
  EXPECT_EQ(released, 2);
  EXPECT_EQ(desk.threads(), 0U);
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
  desk.leftOpen.handles += 2;
}

TEST(LegacyThreads, StartRightAfterTheyWereStopped) {
  using Stop = void (*)(CFormerMouse&);
  const Stop stops[] = {[](CFormerMouse& mouse) { mouse.StopCheck(); },
                        [](CFormerMouse& mouse) { mouse.CloseThread(); }, [](CFormerMouse& mouse) { mouse.Release(); }};
  for (const Stop stop : stops) {
    BusyDesk desk;
    auto ql = desk.device(LegacyKind::usbMouseQl);
    ql->plug();
    desk.mouse->Init();
    desk.mouse->StartCheck();
    EXPECT_TRUE(desk.reads(*desk.lark));
    stop(*desk.mouse);
    desk.mouse->Init();
    desk.mouse->StartCheck();
    EXPECT_FALSE(desk.mouse->ThreadIsClosed());
    EXPECT_TRUE(desk.reads(*desk.lark));
    EXPECT_EQ(desk.mouse->IsConnect(), 0);
    desk.run(4s);
    EXPECT_EQ(desk.mouse->IsConnect(), -1) << "the variant was looked for";
    desk.leftOpen.handles += 2;
  }
  for (const bool release : {false, true}) {
    BusyDesk desk;
    CFormerLaserPen keys;
    CSoftModeSwitch modes;
    auto pen = desk.device(LegacyKind::laserPen);
    pen->plug();
    const auto start = [&] { modes.StartCheck(nullptr, nullptr, &*desk.mouse, desk.hub.get(), &keys); };
    start();
    desk.run(1s);
    release ? modes.Release() : modes.StopCheck();
    start();
    desk.run(7940ms);
    EXPECT_EQ(desk.record.lines("MainWndWork"), Lines{});
    desk.run(20ms);
    EXPECT_EQ(desk.record.lines("MainWndWork"), Lines{"MainWndWork 2"});
  }
}

TEST(LegacyThreads, EndWithin50MillisecondsFromWhereverTheyWait) {
  for (int moment = 0; moment < 120; moment += 7) {
    BusyDesk desk;
    CFormerLaserPen keys;
    CSoftModeSwitch modes;
    desk.mouse->Init();
    desk.mouse->StartCheck();
    modes.StartCheck(nullptr, nullptr, &*desk.mouse, desk.hub.get(), &keys);
    desk.run(std::chrono::milliseconds(200 + moment));
    EXPECT_EQ(desk.threads(), 5U) << "poller, rescan, reader, variant, switch";
    desk.mouse->StopCheck();
    desk.run(std::chrono::milliseconds(moment));
    desk.mouse->CloseThread();
    modes.StopCheck();
    desk.run(50ms);
    EXPECT_TRUE(desk.mouse->ThreadIsClosed());
    EXPECT_EQ(desk.threads(), 0U);
    EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    desk.leftOpen.handles += 1;
  }
}

TEST(LegacyThreads, OfAModeSwitchTouchNothingOnceItIsReleased) {
  LegacyDesk desk;
  CPreferences::Instance()->SetHardWare(HardWare_LaserPen);
  auto usb = desk.device(LegacyKind::usbMouse);
  auto pen = desk.device(LegacyKind::laserPen);
  usb->plug();
  pen->plug();
  for (sim::UsbDevice& each : desk.peripherals().usb) each.openTime = 5s;
  CFormerLaserPen keys;
  CSoftModeSwitch modes;
  modes.StartCheck(nullptr, nullptr, &*desk.mouse, desk.hub.get(), &keys);
  desk.run(10'200ms);
  EXPECT_EQ(timeOf(desk, [&] { modes.Release(); }), 2000) << "the first look at the devices is not over";
  desk.run(10s);
  EXPECT_EQ(desk.machine.balance().threads, 1U) << "the poller, as ever: the older mouse is not started any more";
}

TEST(LegacyThreads, AreSharedByCopiesAndEndWithTheLast) {
  BusyDesk desk;
  desk.mouse->Release();  // the poller
  std::optional<CFormerMouse_Usb> usb(std::in_place);
  CFormerMouse_Usb other;
  std::optional<CFormerMouse_Usb> copy(*usb);
  EXPECT_EQ(desk.threads(), 2U);
  other = *copy;
  EXPECT_EQ(desk.threads(), 1U) << "the last of its copies was assigned to";
  usb->StartCheck();
  EXPECT_TRUE(other.IsChecking());
  desk.peripherals().keyboard.press(kF19);
  desk.run(150ms);
  EXPECT_EQ(other.GetKey_M_L(), ButtonDown);
  usb.reset();
  copy->StopCheck();
  EXPECT_EQ(other.GetKey_M_L(), ButtonUp);
  other.StartCheck();
  desk.run(150ms);
  EXPECT_EQ(copy->GetKey_M_L(), ButtonDown);
  copy.reset();
  EXPECT_FALSE(other.ThreadIsClosed());
  other.Release();
  EXPECT_TRUE(other.ThreadIsClosed());
  EXPECT_EQ(desk.threads(), 0U);

  CFormerLaserPen keys;
  std::optional<CSoftModeSwitch> modes(std::in_place);
  modes->StartCheck(nullptr, nullptr, &*desk.mouse, desk.hub.get(), &keys);
  std::optional<CSoftModeSwitch> following(*modes);
  modes.reset();
  auto pen = desk.device(LegacyKind::laserPen);
  pen->plug();
  desk.run(8s);
  EXPECT_EQ(desk.record.lines("MainWndWork"), Lines{"MainWndWork 2"});
  EXPECT_EQ(desk.threads(), 1U);
  following.reset();
  EXPECT_EQ(desk.threads(), 0U);

  std::optional<CFormerMouse> facade(*desk.mouse);
  facade->Init();
  facade->StartCheck();
  EXPECT_TRUE(desk.reads(*desk.lark));
  facade.reset();
  EXPECT_EQ(desk.threads(), 3U) << "rescan, reader, variant";
  desk.mouse.reset();
  EXPECT_EQ(desk.threads(), 0U);
  desk.leftOpen.handles += 3;
}

TEST(LegacyThreads, CallsThatMeetTheLastDestructorFindEverythingEnded) {
  BusyDesk desk;
  desk.mouse->Init();
  desk.mouse->StartCheck();
  desk.run(20ms);
  int meetings = 0;
  desk.record.during = [&, mouse = &*desk.mouse](const std::string& message) {
    if (message != "Tray") return;
    desk.run(10ms);
    CFormerMouse copy(*mouse);
    for (CFormerMouse* each : {mouse, &copy}) {
      EXPECT_LE(timeOf(desk, [&] { each->Release(); }), 50);
      each->Init();
      each->StartCheck();
      EXPECT_TRUE(each->ThreadIsClosed());
      EXPECT_EQ(each->GetKey_M_L(), ButtonUp);
      EXPECT_EQ(each->GetClickMode_L(), ClickNone);
      ++meetings;
    }
  };
  desk.lark->hid()->key(0x65);
  desk.run(5ms);
  EXPECT_LE(timeOf(desk, [&] { desk.mouse.reset(); }), 100);
  EXPECT_EQ(meetings, 2);
  EXPECT_EQ(desk.threads(), 0U);
  desk.run(4s);
  EXPECT_EQ(desk.threads(), 0U);
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
  desk.leftOpen.handles += 1;
}

TEST(LegacyThreads, ADriverOrAClientThatDoesNotReturnIsLeftOrEnded) {
  for (const bool pulled : {false, true}) {
    BusyDesk desk;
    desk.lark->hid()->faults.ignoreCancel = true;
    desk.mouse->StartCheck();
    desk.run(20ms);
    desk.mouse->StopCheck();
    desk.run(50ms);
    EXPECT_EQ(desk.threads(), 2U) << "poller, reader";
    EXPECT_EQ(timeOf(desk, [&] { desk.mouse->Release(); }), 2000);
    EXPECT_TRUE(desk.mouse->ThreadIsClosed());
    EXPECT_EQ(timeOf(desk, [&] { desk.mouse.reset(); }), 2000);
    EXPECT_EQ(desk.threads(), 1U);
    EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    pulled ? desk.lark->unplug() : desk.lark->hid()->key(0x41);
    desk.run(1ms);
    EXPECT_EQ(desk.threads(), 0U);
    EXPECT_EQ(desk.record.lines("MainMenu"), Lines{});
    desk.leftOpen.handles += pulled ? 0 : 1;
  }
  BusyDesk desk;
  desk.mouse->StartCheck();
  desk.run(20ms);
  desk.record.during = [&](const std::string&) { desk.run(1h); };
  desk.lark->hid()->key(0x65);
  desk.run(20ms);
  EXPECT_EQ(timeOf(desk, [&] { desk.mouse->Release(); }), 2000);
  EXPECT_EQ(desk.machine.forcedEnds(), 1U) << "inside the client's code";
  EXPECT_EQ(desk.threads(), 0U);
  desk.record.during = nullptr;
  desk.mouse->StartCheck();
  EXPECT_TRUE(desk.reads(*desk.lark));
  desk.leftOpen.handles += 2;
}

TEST(LegacyThreads, AReleaseEndsNobodyWhoWasAskedOnlyJustNow) {
  BusyDesk desk;
  auto stuck = desk.device(LegacyKind::hidMouse);
  stuck->plug();
  stuck->hid()->faults.ignoreCancel = true;
  desk.mouse->StartCheck();
  desk.run(20ms);
  const auto release = [&] { desk.mouse->Release(); };
  auto first = desk.machine.spawn(release);  // waits two seconds for the driver
  desk.run(1900ms);
  desk.mouse->StartCheck();
  desk.run(20ms);
  desk.record.during = [&](const std::string&) { desk.run(300ms); };
  desk.lark->hid()->key(0x65);
  desk.run(20ms);
  auto second = desk.machine.spawn(release);
  first.join();
  second.join();
  EXPECT_EQ(desk.machine.forcedEnds(), 0U) << "the client had no more than a tenth of a second";
  stuck->unplug();
  desk.run(1ms);
  EXPECT_EQ(desk.threads(), 0U);
  desk.leftOpen.handles += 2;
}

// Clients that call anything, on threads of their own and inside messages, while devices come and go.
struct Turmoil {
  explicit Turmoil(Trial& run) : random(run), desk(run.machine) {
    CPreferences::Instance()->SetHardWare(HardWare_LaserPen);
    desk.record.during = [this](const std::string&) { inMessage(); };
    devices.push_back(std::move(desk.lark));
    devices.push_back(desk.device(LegacyKind::voiceKeyboard, "second"));
    devices.push_back(desk.device(LegacyKind::hidMouse));
    devices.push_back(desk.device(LegacyKind::usbMouse));
    devices.push_back(desk.device(LegacyKind::laserPen));
    for (const auto& device : devices) {
      if (device->hid()) device->hid()->faults.refuseOpen = [this](int) { return openings++, random() % 8 == 0; };
    }
  }

  void run() {
    std::vector<sim::Machine::Spawned> clients;
    for (std::uint64_t i = 2 + random() % 2; i > 0; --i) clients.push_back(desk.machine.spawn([this] { client(); }));
    for (auto& thread : clients) thread.join();
    if (random.chance(2)) desk.run(random.within(9000));
    // The last copies go, while messages still call them.
    EXPECT_LE(timeOf(desk, [&] { modes.reset(); }), 2000 + late());
    theModes = nullptr;
    if (random.chance(4)) theMouse->CloseThread();
    EXPECT_LE(timeOf(desk, [&] { desk.mouse.reset(); }), 2000 + late());
    theMouse = nullptr;
    const std::size_t told = desk.record.lines().size();
    for (const auto& device : devices) use(*device);
    desk.run(100ms);
    for (const auto& device : devices) device->unplug();  // the driver lets go
    desk.run(100ms);
    EXPECT_EQ(desk.record.lines().size(), told) << "nothing runs on";
    EXPECT_EQ(desk.threads(), 0U);
    EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    desk.close();
    // The poller's event, and the files of devices that were plugged in when they were released.
    desk.leftOpen.handles = desk.machine.balance().handles;
    EXPECT_TRUE(desk.leftOpen.handles >= 1 && desk.leftOpen.handles <= 1 + openings);
  }

  // Milliseconds that a coarse timer adds.
  std::int64_t late() const { return random.coarse() ? 32 : 0; }
  void client() {
    CFormerMouse mouse(*theMouse);
    CSoftModeSwitch switches(*theModes);
    for (int i = 0; i < 12; ++i) {
      desk.run(random.chance(3) ? random.within(4000) : random.within(60));
      use(*devices[static_cast<std::size_t>(random() % devices.size())]);
      operate(random.chance(2) ? mouse : *theMouse, random.chance(2) ? &switches : theModes, 2000 + late());
    }
  }
  void use(sim::LegacyDevice& device) {
    if (!device.plugged()) return device.plug();
    if (random.chance(5)) return device.unplug();
    if (!device.hid()) return device.press(random.chance(2) ? kF19 : kF23, random.chance(2));
    device.hid()->faults.ignoreCancel = random.chance(6);
    device.hid()->faults.failReads = random.chance(12);
    static constexpr std::uint8_t codes[] = {0x00, 0x11, 0x21, 0x41, 0x51, 0x65};
    device.hid()->key(codes[random() % 6]);
  }
  // switches: null when there are none any more. bound: milliseconds that a release may take.
  void operate(CFormerMouse& mouse, CSoftModeSwitch* switches, std::int64_t bound) {
    const std::function<void()> operations[] = {
        [&] { mouse.StopCheck(); },
        [&] { mouse.CloseThread(); },
        [&] { EXPECT_LE(timeOf(desk, [&] { mouse.Release(); }), bound); },
        [&] {
          CFormerMouse_Hid hid;
          hid.StartCheck();
          desk.run(random.within(40));  // its only copy goes, here or inside a message
        },
        [&] { mouse.StartCheck(); },
        [&] { CFormerMouse(mouse).StartCheck(); },
        [&] {
          mouse.Init();
          mouse.LeftKeyDown_Up();
          mouse.IsConnect();
        },
        [&] { mouse.ReCheckHardwareKind(); },
        [&] { EXPECT_LE(timeOf(desk, [&] { switches->Release(); }), bound); },
        [&] { switches->StopCheck(); },
        [&] {
          CSoftModeSwitch copy(*switches);
          copy.StartCheck(reinterpret_cast<void*>(pause), this, theMouse, desk.hub.get(), &keys);
        }};
    operations[random() % (switches ? 11 : 8)]();
  }
  void inMessage() {
    if (depth > 2) return;
    ++depth;
    if (random.chance(4)) desk.run(random.within(200));
    if (theMouse && random.chance(3))
      operate(*theMouse, theModes, CWorker::CurrentStopEvent() ? 100 + late() : 2000 + late());
    --depth;
  }
  static bool pause(void* context) {
    static_cast<Turmoil*>(context)->inMessage();
    return false;
  }

  Trial& random;
  BusyDesk desk;
  std::vector<std::unique_ptr<sim::LegacyDevice>> devices;
  CFormerLaserPen keys;
  std::optional<CSoftModeSwitch> modes{std::in_place};
  // As long as they may be called: also while they go.
  CFormerMouse* theMouse = &*desk.mouse;
  CSoftModeSwitch* theModes = &*modes;
  std::size_t openings = 0;
  int depth = 0;
};

const Scenario legacy("legacy", "legacy worker", [](Trial& run) { Turmoil(run).run(); });

TEST(LegacyThreads, SurviveAnyCallAtAnyMoment) { explore(legacy, 200); }

}  // namespace
