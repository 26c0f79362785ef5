// How things end: stops on one thread while others are inside, drivers that do not come back, clients that keep a
// callback, copies. The desk checks at the end of each that nothing is left open.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/os.h"
#include "support/CLock.h"
#include "support/CallbackSlot.h"
#include "tests/Desk.h"
#include "tests/RandomClients.h"

namespace {

using Ending = void (*)(Desk&);
constexpr Ending kEndings[] = {[](Desk& desk) { desk.hub->CloseDevice(); }, [](Desk& desk) { desk.hub->Release(); },
                               [](Desk& desk) { desk.hub.reset(); }};

// ---- While other threads are inside ----

TEST(Ends, EveryWaitingOperationReturnsWhenTheHubStops) {
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
      auto swift = desk.openWith("Swift");
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

TEST(Ends, HoweverManyWaitForADriverAllReturnWhenTheHubStops) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  ASSERT_TRUE(desk.machine.waitFor([&] { return desk.milliseconds() % 1000 == 500; }, 2s));  // between heartbeats
  wren->faults.writeTime = 10s;
  wren->faults.ignoreCancel = true;
  std::int64_t returned = 0;
  std::vector<sim::Machine::Spawned> clients(6);
  for (auto& client : clients) {
    client = desk.machine.spawn([&] {
      desk.hub->SetDpi(1, 800);
      returned = desk.milliseconds();
    });
  }
  desk.run(100ms);
  const auto began = desk.milliseconds();
  desk.hub->CloseDevice();
  for (auto& client : clients) client.join();
  EXPECT_LE(returned - began, 50);
  desk.run(10s);
}

TEST(Ends, ADriverThatKeepsAWriteKeepsNobodyElse) {
  // A write that comes back when it is cancelled, and one whose driver lets go of nothing for 10 s.
  for (const bool ignoreCancel : {false, true}) {
    for (const int end : {0, 1, 2}) {
      Desk desk;
      auto wren = desk.openWith("Wren");
      auto tern = desk.connect("Tern");
      ASSERT_TRUE(desk.machine.waitFor([&] { return desk.milliseconds() % 1000 == 500; }, 2s));  // between heartbeats
      wren->faults.writeTime = 10s;
      wren->faults.ignoreCancel = ignoreCancel;
      EXPECT_EQ(timeOf(desk, [&] { desk.hub->SetDpi(1, 800); }), 1000) << "the first to meet it";
      EXPECT_EQ(timeOf(desk, [&] { desk.hub->GetMouseState(-1); }), 1000) << "the next";
      desk.run(1ms);
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
  auto wren = desk.openWith("Wren");
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

TEST(Ends, AHubMayBeStoppedOrDestroyedInsideAnyMessageAndTellsNothingMore) {
  for (const std::string message : {"Log 33", "Log 43", "Log 44", "HidConnect", "HidDisconnect", "PowerReport"}) {
    for (const Ending ending : kEndings) {
      SCOPED_TRACE(message);
      Desk desk;
      if (message == "Log 33") {
        CPreferences::Instance()->SetVoiceClickTimes(2);
        desk.hub = std::make_unique<CAudioHidCenter>();
      }
      bool told = false;
      desk.record.during = [&](const std::string& what) {
        if (what != message || std::exchange(told, true)) return;
        EXPECT_LE(timeOf(desk, [&] { ending(desk); }), 50);
        desk.record.clear();
      };
      auto wren = desk.make("Wren");
      auto shy = desk.make("Tern");  // its write handle cannot be opened: a line of the discovery thread's
      shy->faults.refuseOpen = [](int open) { return open % 2 == 1; };
      if (message == "Log 44") desk.machine.plug(shy);
      desk.machine.plug(wren);
      desk.open();
      desk.run(3s);
      if (message == "HidDisconnect") desk.machine.unplug(wren);
      wren->reportPower(1);
      for (int i = 0; i < 4; ++i) {
        i % 2 == 0 ? wren->pressVoiceKey() : wren->releaseVoiceKey();
        desk.run(20ms);
      }
      desk.run(3s);
      EXPECT_TRUE(told);
      EXPECT_EQ(desk.record.lines(), Lines{});
      EXPECT_EQ(desk.machine.balance().threads, 0U);
    }
  }
}

// In the callbacks of two devices, or in one and on another thread.
TEST(Ends, EndsThatMeetTakeAMomentAndNoForce) {
  for (const Ending first : kEndings) {
    for (const bool release : {false, true}) {
      for (const bool inCallback : {false, true}) {
        Desk desk;
        auto wren = desk.openWith("Wren");
        auto tern = desk.connect("Tern");
        CAudioHidCenter* hub = desk.hub.get();
        const auto second = [&] { release ? hub->Release() : hub->CloseDevice(); };
        int calls = 0;
        int done = 0;
        desk.record.during = [&](const std::string& what) {
          if (what != "PowerReport") return;
          const bool isFirst = calls++ == 0;
          if (isFirst) desk.run(100ms);
          EXPECT_LE(timeOf(desk, [&] { isFirst ? first(desk) : second(); }), 100);
          desk.run(200ms);
          ++done;
        };
        wren->reportPower(1);
        desk.run(50ms);
        if (inCallback) {
          tern->reportPower(1);
        } else {
          EXPECT_LE(timeOf(desk, second), 400);
        }
        desk.run(1s);
        EXPECT_EQ(done, inCallback ? 2 : 1);
        EXPECT_EQ(desk.machine.forcedEnds(), 0U);
      }
    }
  }
}

TEST(Ends, ADeviceThatAReleaseInACallbackCouldNotAwaitIsAwaitedByAStop) {
  for (const sim::Time begins : {20ms, 500ms}) {  // before and after that Release
    Desk desk;
    auto wren = desk.openWith("Wren");
    auto tern = desk.connect("Tern");
    int calls = 0;
    bool inside = false;
    desk.record.during = [&](const std::string& what) {
      if (what != "PowerReport") return;
      if (calls++ == 0) {
        desk.run(100ms);
        return desk.hub->Release();
      }
      inside = true;
      desk.run(1500ms);
      inside = false;
    };
    wren->reportPower(1);
    desk.run(10ms);
    tern->reportPower(1);
    desk.run(begins);
    EXPECT_TRUE(inside);
    desk.hub->CloseDevice();
    EXPECT_FALSE(inside);
  }
}

TEST(Ends, EveryStopWaitsForDiscoveryAndNothingIsToldAfterIt) {
  for (const Ending ending : kEndings) {
    for (const bool stuck : {false, true}) {
      Desk desk;
      bool inside = false;
      desk.record.during = [&](const std::string& what) {
        if (what != "Log 44") return;
        inside = true;
        desk.run(1s);
        inside = false;
      };
      auto shy = desk.make("Tern");
      shy->faults.refuseOpen = [](int open) { return open % 2 == 1; };
      if (stuck) shy->faults.openTime = 4s;
      desk.machine.plug(shy);
      desk.open();
      desk.run(1s);
      CAudioHidCenter* hub = desk.hub.get();
      auto other = desk.machine.spawn([&] { hub->CloseDevice(); });
      desk.run(100ms);
      EXPECT_LE(timeOf(desk, [&] { ending(desk); }), kBound);
      EXPECT_FALSE(inside);
      desk.record.clear();
      other.join();
      desk.run(9s);
      EXPECT_EQ(desk.record.lines(), Lines{});
      EXPECT_EQ(desk.machine.balance().threads, 0U);
    }
  }
}

TEST(Ends, AMessageThatIsKeptTooLongIsEndedWithItsThreadAndNothingElse) {
  // On the discovery thread, which has a handle of a device in hand; on a heartbeat thread; on a read thread, there
  // also in a callback, and with the result of an update.
  for (const std::string message : {"Log 43", "Log 44", "HidConnect", "HidDisconnect", "PowerReport", "FwOtaResult"}) {
    for (const DWORD milliseconds : {1500U, 9000U}) {
      SCOPED_TRACE(message);
      Desk desk;
      bool told = false;
      bool finished = false;
      desk.record.during = [&](const std::string& what) {
        if (what != message || std::exchange(told, true)) return;
        os::Sleep(milliseconds);
        finished = true;
      };
      auto tern = desk.make("Tern");
      if (message == "Log 44") tern->faults.refuseOpen = [](int open) { return open % 2 == 1; };
      desk.machine.plug(tern);
      desk.open();
      if (!desk.machine.waitFor([&] { return told; }, 3s)) {
        if (message == "HidDisconnect") desk.machine.unplug(tern);
        if (message == "PowerReport") tern->reportPower(1);
        if (message == "FwOtaResult") desk.hub->StartOTA(1, FwUpdate_First, "", "");
      }
      ASSERT_TRUE(desk.machine.waitFor([&] { return told; }, 5s));
      const auto left = std::min<std::int64_t>(milliseconds, kBound);
      EXPECT_NEAR(static_cast<double>(timeOf(desk, [&] { desk.hub->CloseDevice(); })), static_cast<double>(left),
                  static_cast<double>(2 + Took::late()));
      desk.hub->Release();
      EXPECT_EQ(finished, milliseconds < kBound);
      EXPECT_EQ(desk.machine.forcedEnds(), milliseconds < kBound ? 0U : 1U);
      tern->faults.refuseOpen = nullptr;
      if (!tern->plugged()) desk.machine.plug(tern);
      desk.open();
      desk.run(3s);
      EXPECT_TRUE(desk.hub->IsConnect()) << "and discovery begins anew";
      desk.hub.reset();
      EXPECT_EQ(desk.machine.balance(), sim::Balance{});
    }
  }
}

// A thread is asked to end between its last look and the moment in which its read can be cancelled: once is not enough,
// as nobody sends it anything any more.
TEST(Ends, AReadThatCannotBeCancelledYetIsCancelledAgain) {
  Desk desk;
  auto wren = desk.openWith("Wren");
  wren->faults.readEntry = 20ms;
  wren->reportPower(50);  // the read thread comes back, and reads again
  desk.run(5ms);
  EXPECT_LE(timeOf(desk, [&] { desk.hub->CloseDevice(); }), 300);
  EXPECT_EQ(desk.machine.balance().threads, 0U);
}

// It takes longer than the stop waits, or it is there while the stop waits.
TEST(Ends, ADeviceThatIsStillBeingOpenedDoesNotComeInAfterAStop) {
  for (const auto openTime : {3000ms, 1000ms, 500ms}) {
    Desk desk;
    auto wren = desk.make("Wren");
    wren->faults.openTime = openTime;
    desk.machine.plug(wren);
    desk.open();
    desk.run(1500ms);
    EXPECT_LE(timeOf(desk, [&] { desk.hub->CloseDevice(); }), kBound);
    desk.run(10s);
    EXPECT_EQ(desk.machine.balance().threads, 0U) << desk.machine.waiting();
    EXPECT_EQ(desk.record.lines("HidConnect"), Lines{});
    wren->faults.openTime = 0s;
    desk.open();
    desk.run(6s);
    EXPECT_EQ(desk.record.lines("HidConnect"), Lines{"HidConnect 1"});
  }
}

// A pass that a driver keeps comes back while the next discovery, of two threads that take turns, is at its own.
TEST(Ends, APassThatComesBackLateLeavesTheNextOneAlone) {
  Desk desk;
  auto wren = desk.make("Wren");
  wren->faults.openTime = 4s;
  desk.machine.plug(wren);
  desk.open();
  desk.run(1500ms);
  desk.hub->CloseDevice();
  desk.open();
  desk.open();
  desk.run(20s);
  EXPECT_EQ(desk.record.lines("HidConnect"), Lines{"HidConnect 1"});
}

TEST(Ends, ACallbackAndItsContextAreOnePair) {
  using Callback = void (*)(void*);
  const Callback first = [](void*) {};
  int one = 0, two = 0;
  for (std::uint64_t seed = 1; seed <= seeds(30); ++seed) {
    sim::Machine machine({.seed = seed});
    CallbackSlot<Callback> slot;
    slot.Set(first, &one);
    auto writer = machine.spawn([&] {
      for (int i = 0; i < 20; ++i) i % 2 == 0 ? slot.Set(nullptr, &two) : slot.Set(first, &one);
    });
    for (int i = 0; i < 100; ++i) {
      const auto pair = slot.Get();
      ASSERT_EQ(pair.function == first, pair.context == &one) << "seed " << seed;
    }
    writer.join();
  }
}

TEST(Ends, ALockGoesOnFromAHolderThatHasEnded) {
  sim::Machine machine;
  CLock lock;
  machine.spawn([&]() NO_THREAD_SAFETY_ANALYSIS { EXPECT_TRUE(lock.Lock()); }).join();
  const auto another = [&]() NO_THREAD_SAFETY_ANALYSIS {
    ASSERT_TRUE(lock.Lock(0));
    lock.Unlock();
  };
  for (int i = 0; i < 2; ++i) machine.spawn(another).join();
}

// ---- Devices that go and come ----

TEST(Ends, ADeviceThatGoesWhileItIsAnnouncedLeavesNoGhost) {
  for (const std::string message : {"Log 43", "HidConnect"}) {
    Desk desk;
    auto wren = desk.make("Wren");
    bool inside = false;
    desk.record.during = [&](const std::string& what) {
      EXPECT_FALSE(inside) << "its end is told after what is being told of it";
      if (what != message) return;
      inside = true;
      desk.machine.unplug(wren);
      desk.run(300ms);
      inside = false;
    };
    desk.machine.plug(wren);
    desk.open();
    desk.run(5s);
    EXPECT_EQ(desk.record.lines("HidConnect").size(), message == "HidConnect" ? 1U : 0U);
    EXPECT_EQ(desk.record.lines("HidDisconnect"), Lines{"HidDisconnect 1"});
    EXPECT_EQ(desk.record.last(), "HidDisconnect 1");
    EXPECT_FALSE(desk.hub->IsConnect());
  }
}

TEST(Ends, ASilentDeviceThatComesBackIsNotLiveForAnInstant) {
  Desk desk;
  auto tern = desk.openWith("Tern");
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

// Its identifiers say Heron Plus and the one that has gone was a Swift, so that each deliberately gets a row of its
// own.
TEST(Ends, ReplugsOfASwiftKeepNothing) {
  Desk desk;
  auto swift = desk.openWith("Swift");
  std::size_t handles = 0;
  for (int i = 0; i < 20; ++i) {
    desk.machine.unplug(swift);
    desk.run(1s);
    desk.machine.plug(swift);
    desk.run(3s);
    if (i == 0) handles = desk.machine.balance().handles;
  }
  EXPECT_EQ(desk.hub->GetHidMouseType(21), MouseType_Swift);
  EXPECT_EQ(swift->received(0x14).size(), 21U);
  EXPECT_EQ(desk.machine.balance().handles, handles);
  EXPECT_EQ(desk.machine.balance().threads, 4U);
}

// ---- Copies and several hubs ----

TEST(Ends, ACopyMayOutliveItsOriginal) {
  Desk desk;
  auto wren = desk.openWith("Wren");
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

TEST(Ends, AHubThatIsAssignedToEndsItsOwnDevices) {
  for (const bool inCallback : {false, true}) {
    Desk desk;
    const CAudioHidCenter other;
    auto wren = desk.openWith("Wren");
    desk.record.during = [&](const std::string& what) {
      if (what == "PowerReport") *desk.hub = other;
    };
    inCallback ? wren->reportPower(1) : desk.record.during("PowerReport");
    desk.run(100ms);
    EXPECT_EQ(desk.machine.balance().threads, 1U) << "discovery";
    EXPECT_LE(timeOf(desk, [&] { desk.hub->Release(); }), 50);
    EXPECT_EQ(desk.machine.balance().threads, 0U);
    desk.record.clear();
    desk.machine.unplug(wren);
    desk.run(3s);
    EXPECT_EQ(desk.record.lines(), Lines{});
  }
}

TEST(Ends, OneHubsReleaseLeavesTheOthersCodecAlone) {
  Desk desk;
  auto tern = desk.openWith("Tern");
  CAudioHidCenter other;
  other.OpenDevice(nullptr, nullptr);  // the same device, opened once more
  desk.run(3s);
  tern->hear(std::vector<std::int16_t>(16000, 5000));
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  desk.run(400ms);
  for (int i = 0; i < 2; ++i) other.Release();
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
  auto tern = desk.openWith("Tern");
  tern->reply(0xC1, sim::Bytes(38, 0xAA));
  tern->reply(0xC1, {1, 2, 3});
  desk.run(10ms);
  std::vector<unsigned char> expected(40);
  std::copy_n(std::vector<unsigned char>{1, 2, 3}.begin(), 3, expected.begin());
  EXPECT_EQ(seen, expected);
}

const Scenario hub("hub", "hub reader worker", hubClients);

TEST(Ends, ClientsAtRandomAndAnEndAtAnyMoment) { explore(hub, 2000); }

}  // namespace
