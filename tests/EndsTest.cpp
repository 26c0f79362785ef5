// How things end: stops on one thread while others are inside, drivers that do not come back, clients that keep a
// callback, copies. The desk checks at the end of each that nothing is left open.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/os.h"
#include "tests/Desk.h"
#include "tests/RandomClients.h"

namespace {

using Lines = std::vector<std::string>;

// ---- While other threads are inside ----

TEST(Ends, EveryWaitingOperationReturnsWhenTheHubStops) {
  using Ending = void (*)(Desk&);
  constexpr Ending kEndings[] = {[](Desk& desk) { desk.hub->CloseDevice(); }, [](Desk& desk) { desk.hub->Release(); },
                                 [](Desk& desk) { desk.hub.reset(); }};
  struct Waiting {
    std::uint8_t command;
    std::function<int(CAudioHidCenter&)> operation;
    int notReady;
  };
  const Waiting waitings[] = {
      {0x03, [](CAudioHidCenter& hub) { return int{hub.OpenHidRecord()}; }, 0},
      {0x04, [](CAudioHidCenter& hub) { return int{hub.CloseHidRecord()}; }, 1},
      {0x15, [](CAudioHidCenter& hub) { return int{hub.setMKeyType_Key1(-1, MouseMKeyType_Screenshot)}; },
       SetMKeyType_NotReady},
  };
  for (const Ending ending : kEndings) {
    for (const Waiting& waiting : waitings) {
      Desk desk;
      desk.open();
      auto swift = desk.connect("Swift");
      desk.hub->ChooseWorkHidDevice(1);
      if (waiting.command == 0x04) {
        ASSERT_TRUE(desk.hub->OpenHidRecord());
      }
      swift->answer(waiting.command, {.silent = true});
      CAudioHidCenter* hub = desk.hub.get();
      int result = -1;
      std::int64_t returned = 0;
      auto client = desk.machine.spawn([&] {
        result = waiting.operation(*hub);
        returned = desk.milliseconds();
      });
      desk.run(200ms);
      const auto began = desk.milliseconds();
      EXPECT_LE(timeOf(desk, [&] { ending(desk); }), 50);
      client.join();
      EXPECT_LE(returned - began, 50);
      EXPECT_EQ(result, waiting.notReady) << int{waiting.command};
      EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    }
  }
}

TEST(Ends, ADriverThatKeepsAWriteKeepsNobodyElse) {
  // A write that comes back when it is cancelled, and one whose driver lets go of nothing for 10 s.
  for (const bool ignoreCancel : {false, true}) {
    for (const int end : {0, 1, 2}) {
      Desk desk;
      desk.open();
      auto wren = desk.connect("Wren");
      auto tern = desk.connect("Tern");
      ASSERT_TRUE(desk.machine.waitFor([&] { return desk.milliseconds() % 1000 == 500; }, 2s));  // between heartbeats
      wren->faults.writeTime = 10s;
      wren->faults.ignoreCancel = ignoreCancel;
      EXPECT_LE(timeOf(desk, [&] { desk.hub->SetDpi(1, 800); }), kBound) << "the first to meet it";
      EXPECT_LE(timeOf(desk, [&] { desk.hub->GetMouseState(-1); }), kBound) << "the next";
      EXPECT_EQ(tern->received(0x0C).size(), 2U) << "the other device is asked all the same";
      tern->forget();
      const auto took = timeOf(desk, [&] {
        if (end == 1) desk.hub->CloseDevice();
        if (end == 2) {
          desk.hub.reset();
        } else {
          desk.hub->Release();
        }
      });
      EXPECT_LE(took, kBound);
      EXPECT_EQ(tern->received(0x02).size(), end == 0 ? 1U : 0U) << "AppExit, where something is live";
      EXPECT_EQ(desk.machine.balance().threads, ignoreCancel ? 1U : 0U) << "the one inside the driver";
      desk.run(10s);
      EXPECT_EQ(desk.machine.balance().threads, 0U) << "it has freed what it held";
      EXPECT_EQ(desk.machine.forcedEnds(), 0U);
    }
  }
}

TEST(Ends, ADriverThatKeepsAReadIsLeftAlone) {
  Desk desk;
  desk.open();
  auto wren = desk.connect("Wren");
  wren->faults.ignoreCancel = true;
  wren->reportPower(1);
  desk.run(10ms);  // the next read is the one that is kept
  EXPECT_LE(timeOf(desk, [&] { desk.hub->Release(); }), kBound);
  EXPECT_EQ(desk.machine.balance().threads, 1U);
  desk.hub.reset();
  desk.record.clear();
  wren->reportPower(2);
  desk.run(10ms);
  EXPECT_EQ(desk.record.lines(), Lines{}) << "nobody is told any more";
  EXPECT_EQ(desk.machine.forcedEnds(), 0U);
}

// ---- Clients that stop inside what they are told ----

TEST(Ends, AHubMayBeStoppedOrDestroyedInsideAnyMessage) {
  static Desk* desk;
  static int end;
  static std::string where;
  class Stopper : public VoxMessageSink {
   public:
    void Log(const wchar_t*, LogType type) override { stop("Log " + std::to_string(int{type})); }
    void HidConnect(int) override { stop("HidConnect"); }
    void HidDisconnect(int) override { stop("HidDisconnect"); }
    static void stop(const std::string& what) {
      if (what != where || !desk->hub) return;
      EXPECT_LE(timeOf(*desk,
                       [] {
                         if (end == 0) desk->hub->CloseDevice();
                         if (end == 1) desk->hub->Release();
                         if (end == 2) desk->hub.reset();
                       }),
                50)
          << what;
      where.clear();
    }
  };
  for (const char* message : {"Log 43", "Log 44", "HidConnect", "HidDisconnect"}) {
    for (end = 0; end < 3; ++end) {
      Desk mine;
      desk = &mine;
      Stopper stopper;
      where = message;
      auto wren = mine.make("Wren");
      auto shy = mine.make("Tern");  // its write handle cannot be opened: a line of the discovery thread's
      if (where == "Log 44") {
        shy->faults.refuseOpen = [](int open) { return open % 2 == 1; };
        mine.machine.plug(shy);
      }
      VoxMessage::SetSink(&stopper);
      mine.machine.plug(wren);
      mine.open();
      mine.run(3s);
      if (std::string(message) == "HidDisconnect") mine.machine.unplug(wren);
      mine.run(3s);
      EXPECT_EQ(where, "") << message << " was told";
      EXPECT_EQ(mine.machine.balance().threads, 0U);
      VoxMessage::SetSink(nullptr);
    }
  }
}

TEST(Ends, AMessageThatIsKeptTooLongIsEndedWithItsThreadAndNothingElse) {
  // On the discovery thread, which has a handle of a device in hand; on a heartbeat thread; on a read thread.
  static DWORD time;
  static std::string where;
  static bool finished;
  class Slow : public VoxMessageSink {
    void Log(const wchar_t*, LogType type) override { wait("Log " + std::to_string(int{type})); }
    void HidConnect(int) override { wait("HidConnect"); }
    void HidDisconnect(int) override { wait("HidDisconnect"); }
    static void wait(const std::string& what) {
      if (what != where) return;
      where.clear();
      os::Sleep(time);
      finished = true;
    }
  } slow;
  for (const char* message : {"Log 44", "HidConnect", "HidDisconnect"}) {
    for (const DWORD milliseconds : {1500U, 9000U}) {
      Desk desk;
      time = milliseconds;
      where = message;
      finished = false;
      auto tern = desk.make("Tern");
      const bool onDiscovery = where == "Log 44";
      if (onDiscovery) tern->faults.refuseOpen = [](int open) { return open % 2 == 1; };
      desk.machine.plug(tern);
      VoxMessage::SetSink(&slow);
      desk.open();
      if (std::string(message) == "HidDisconnect") {
        desk.run(3s);
        desk.machine.unplug(tern);
      }
      ASSERT_TRUE(desk.machine.waitFor([&] { return where.empty(); }, 5s));
      EXPECT_LE(timeOf(desk, [&] { desk.hub->Release(); }), kBound);
      EXPECT_EQ(finished, milliseconds < kBound) << message;
      EXPECT_EQ(desk.machine.forcedEnds(), milliseconds < kBound ? 0U : 1U);
      desk.hub.reset();
      EXPECT_EQ(desk.machine.balance(), sim::Balance{}) << message;
      VoxMessage::SetSink(nullptr);
    }
  }
}

TEST(Ends, NothingIsToldAfterCloseDevice) {
  // A receiver that is just being told when it is called: on the heartbeat thread, which has more to say.
  static bool inside;
  static Record* record;
  class Slow : public VoxMessageSink {
    void Log(const wchar_t*, LogType) override { record->add("Log"); }
    void HidConnect(int device) override {
      inside = true;
      os::Sleep(300);
      inside = false;
      record->add("HidConnect " + std::to_string(device));
    }
    void HidDisconnect(int device) override { record->add("HidDisconnect " + std::to_string(device)); }
  } slow;
  Desk desk;
  record = &desk.record;
  inside = false;
  VoxMessage::SetSink(&slow);
  auto wren = desk.make("Wren");
  desk.machine.plug(wren);
  desk.open();
  ASSERT_TRUE(desk.machine.waitFor([] { return inside; }, 5s));
  desk.hub->CloseDevice();
  EXPECT_FALSE(inside);
  desk.record.clear();
  desk.machine.unplug(wren);
  desk.run(3s);
  EXPECT_EQ(desk.record.lines(), Lines{});
  VoxMessage::SetSink(nullptr);
}

// ---- Devices that go and come ----

TEST(Ends, ADeviceThatGoesWhileItIsAnnouncedLeavesNoGhost) {
  static std::shared_ptr<sim::VirtualMouse> wren;
  static Desk* desk;
  class Unplugger : public VoxMessageSink {
    void Log(const wchar_t* text, LogType type) override {
      if (type == LogType_DeviceConnected && wren->plugged()) {
        desk->machine.unplug(wren);
        os::Sleep(100);
      }
      desk->record.Log(text, type);
    }
    void HidConnect(int device) override { desk->record.HidConnect(device); }
    void HidDisconnect(int device) override { desk->record.HidDisconnect(device); }
  } unplugger;
  Desk mine;
  desk = &mine;
  wren = mine.make("Wren");
  VoxMessage::SetSink(&unplugger);
  mine.machine.plug(wren);
  mine.open();
  mine.run(4s);
  EXPECT_EQ(mine.record.lines("Hid"), Lines{"HidDisconnect 1"});
  EXPECT_EQ(mine.record.last(), "HidDisconnect 1");
  EXPECT_FALSE(mine.hub->IsConnect());
  VoxMessage::SetSink(nullptr);
  mine.close();
  wren.reset();
}

TEST(Ends, ASilentDeviceThatComesBackIsNotLiveForAnInstant) {
  Desk desk;
  desk.open();
  auto tern = desk.connect("Tern");
  desk.machine.unplug(tern);
  desk.run(2s);
  tern->sleep(true);
  desk.machine.plug(tern);
  for (int i = 0; i < 3000; ++i) {
    desk.run(1ms);
    ASSERT_FALSE(desk.hub->IsConnect()) << i;
    ASSERT_EQ(desk.hub->GetEffectiveDevice(), -1) << i;
  }
}

TEST(Ends, ReplugsOfASwiftKeepNothing) {
  Desk desk;
  desk.open();
  auto swift = desk.connect("Swift");
  std::size_t handles = 0;
  for (int i = 0; i < 20; ++i) {
    desk.machine.unplug(swift);
    desk.run(1s);
    desk.machine.plug(swift);
    desk.run(3s);
    if (i == 0) handles = desk.machine.balance().handles;
  }
  EXPECT_EQ(desk.hub->GetHidMouseType(21), MouseType_Swift);
  EXPECT_EQ(desk.machine.balance().handles, handles);
  EXPECT_EQ(desk.machine.balance().threads, 4U);
}

// ---- Copies and several hubs ----

TEST(Ends, ACopyMayOutliveItsOriginal) {
  Desk desk;
  desk.open();
  auto wren = desk.connect("Wren");
  wren->hear(std::vector<std::int16_t>(16000, 1000));
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  CAudioHidCenter copy(*desk.hub);
  CAudioHidCenter assigned;
  assigned = *desk.hub;
  EXPECT_EQ(copy.GetHidMouseType(1), MouseType_Wren);
  desk.run(500ms);
  desk.hub.reset();
  desk.record.clear();
  EXPECT_EQ(copy.GetEffectiveDevice(), -1) << "its original's readers went with it";
  copy.SetDpi(-1, 800);
  EXPECT_FALSE(copy.OpenHidRecord());
  desk.run(2s);
  EXPECT_EQ(desk.record.lines(), Lines{});
  assigned.Release();
  copy.OpenDevice(nullptr, nullptr);
  desk.run(2s);
  EXPECT_EQ(copy.GetEffectiveDevice(), -1) << "its path is known to the copy";
}

TEST(Ends, OneHubsReleaseLeavesTheOthersCodecAlone) {
  Desk desk;
  desk.open();
  auto tern = desk.connect("Tern");
  CAudioHidCenter other;
  other.OpenDevice(nullptr, nullptr);  // the same device, opened once more
  desk.run(3s);
  tern->hear(std::vector<std::int16_t>(16000, 5000));
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  desk.run(400ms);
  other.Release();
  desk.run(400ms);
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  const auto pcm = desk.pcm();
  ASSERT_GE(pcm.size(), 9600U);
  // The codec approaches the level that was heard; begun anew it would be back at zero.
  const auto settled = pcm.begin() + 3200;
  EXPECT_GT(*std::min_element(settled, pcm.begin() + 9600), 1000);
}

TEST(Ends, AShortPacketReachesTheCodecFilledWithSilence) {
  Desk desk;
  static std::vector<unsigned char> seen;
  seen.clear();
  sim::Library codec = sim::ascLibrary();
  using Decoder = std::int16_t (*)(const unsigned char*, short*, unsigned short, int);
  const Decoder spy = [](const unsigned char* packet, short*, unsigned short, int) -> std::int16_t {
    seen.assign(packet, packet + 40);
    return 0;
  };
  codec["ASC_Decoder"] = reinterpret_cast<FARPROC>(reinterpret_cast<void*>(spy));
  desk.machine.install(L"asc_lib.dll", codec);
  desk.open();
  auto tern = desk.connect("Tern");
  tern->reply(0xC1, sim::Bytes(38, 0xAA));
  tern->reply(0xC1, {1, 2, 3});
  desk.run(10ms);
  std::vector<unsigned char> expected(40);
  std::copy_n(std::vector<unsigned char>{1, 2, 3}.begin(), 3, expected.begin());
  EXPECT_EQ(seen, expected);
}

TEST(Ends, ClientsAtRandomAndAnEndAtAnyMoment) {
  for (std::uint64_t seed = 1; seed <= seeds(2000) && !HasFailure(); ++seed) {
    clientsAtRandom(seed, sim::Clock::virtualTime);
  }
}

}  // namespace
