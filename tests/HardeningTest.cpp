// What goes beyond the shipped rules: each with its fault, switched off and on.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "tests/Desk.h"

namespace {

// A client that is busy in its audio callback once, for a second.
struct Busy {
  sim::Machine& machine;
  int callsUntil;
};

void onAudio(const unsigned char*, int, void* context) {
  auto& busy = *static_cast<Busy*>(context);
  if (--busy.callsUntil == 0) busy.machine.sleep(1s);
}

void onLost(int device, int missing, int late, void* context) {
  static_cast<Record*>(context)->add("lost " + std::to_string(device) + " " + std::to_string(missing) + " " +
                                     std::to_string(late));
}

struct Case {
  const char* model;
  sim::Link link;
  VoxHardening hardening;
  sim::Time timer;
  int missing;  // of the second, beyond the 32 reports that the class driver keeps
  int late;
};

TEST(Hardening, SpeechThatABusyClientLosesIsCounted) {
  // A Wren sends 66 reports in the second, a Tern 50.
  for (const Case& c : {Case{"Wren", sim::Link::usb, VoxHardening_None, 0us, 34, 29},
                        Case{"Wren", sim::Link::bluetooth, VoxHardening_None, 15625us, 34, 29},
                        Case{"Wren", sim::Link::usb, VoxHardening_LongQueue, 0us, 0, 63},
                        Case{"Tern", sim::Link::usb, VoxHardening_None, 0us, 18, 29},
                        Case{"Tern", sim::Link::usb, VoxHardening_LongQueue, 15625us, 0, 47}}) {
    SCOPED_TRACE(std::string(c.model) + ", " + std::to_string(c.hardening));
    Desk desk({.timerPeriod = c.timer});
    Busy busy{desk.machine, 20};
    desk.hub->SetHardening(c.hardening);
    desk.hub->SetCallback_SpeechLost(reinterpret_cast<void*>(&onLost), &desk.record);
    desk.hub->OpenDevice(reinterpret_cast<void*>(&onAudio), &busy);
    desk.connect(c.model, c.link);
    desk.record.clear();
    desk.hub->ChooseWorkHidDevice(1);
    ASSERT_TRUE(desk.hub->OpenHidRecord());
    desk.run(8s);
    EXPECT_TRUE(desk.hub->CloseHidRecord());
    VoxSpeechCounts counts{};
    ASSERT_TRUE(desk.hub->GetSpeechCounts(1, counts));
    EXPECT_NEAR(static_cast<int>(counts.missing), c.missing, 2);
    EXPECT_NEAR(static_cast<int>(counts.late), c.late, 3);
    EXPECT_EQ(counts.unasked, 0U);
    const int sent = 8000 / (c.model[0] == 'T' ? 20 : 15);
    EXPECT_NEAR(static_cast<int>(counts.reports) + c.missing, sent, 3);
    EXPECT_EQ(desk.record.lines("lost"),
              c.missing == 0 ? Lines{}
                             : Lines{"lost 1 " + std::to_string(counts.missing) + " " + std::to_string(counts.late)});
    EXPECT_FALSE(desk.hub->GetSpeechCounts(2, counts));
  }
}

TEST(Hardening, ADeviceThatDoesNotTakeHeartbeatsIsOpenedAnew) {
  for (const VoxHardening hardening : {VoxHardening_None, VoxHardening_DeadHandles}) {
    Desk desk;
    desk.hub->SetHardening(hardening);
    auto wren = desk.openWith("Wren");
    desk.record.clear();
    desk.machine.locked([&] { wren->loseWrites(); });
    // Asleep after its third unanswered heartbeat; the tenth after that is the last.
    desk.run(12s);
    EXPECT_EQ(desk.record.lines("Hid"), Lines{"HidDisconnect 1"});
    desk.run(4s);
    EXPECT_EQ(desk.record.lines("Hid"), hardening == VoxHardening_None
                                            ? (Lines{"HidDisconnect 1"})
                                            : (Lines{"HidDisconnect 1", "HidDisconnect 1", "HidConnect 2"}));
    EXPECT_EQ(desk.hub->GetHidMouseType(2), hardening == VoxHardening_None ? MouseType_Unknown : MouseType_Wren);
    desk.run(30s);
    EXPECT_EQ(desk.record.lines("Hid").size(), hardening == VoxHardening_None ? 1U : 3U) << "it is well now";
  }
}

// The read is cancelled 16.25 s after the start. A thread that has just left it is in the client's code all the same.
TEST(Hardening, AReportThatMeetsTheCancellingOfItsReadIsToldAsAny) {
  std::uint64_t told = 0;
  for (std::uint64_t seed = 1; seed <= 500 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Desk desk({.seed = seed});
    desk.hub->SetHardening(VoxHardening_DeadHandles);
    auto wren = desk.openWith("Wren");
    const auto runUntil = [&](sim::Time time) { desk.run(time - desk.machine.now()); };
    runUntil(4s);
    wren->faults.failWrites = true;
    desk.record.during = [&](const std::string& what) {
      if (what != "PowerReport") return;
      ++told;
      desk.run(1h);
    };
    auto user = desk.machine.spawn([&] {
      runUntil(16'250ms);
      wren->reportPower(1);
    });
    runUntil(16'255ms);
    desk.hub->CloseDevice();
    user.join();
    EXPECT_EQ(desk.machine.balance().threads, 0U) << "what is kept in a message is ended by force";
  }
  EXPECT_GT(told, 100U) << "the others came too late";
}

// Whoever takes heartbeats and does not answer is asleep, as ever.
TEST(Hardening, ADeviceThatSleepsIsLeftAsItIs) {
  Desk desk;
  desk.hub->SetHardening(VoxHardening_All);
  auto wren = desk.openWith("Wren");
  wren->sleep(true);
  desk.run(60s);
  wren->sleep(false);
  desk.run(3s);
  EXPECT_EQ(desk.record.lines("Hid"), (Lines{"HidConnect 1", "HidDisconnect 1", "HidConnect 1"}));
}

TEST(Hardening, SpeechThatAKilledClientHasLeftIsLeftOutAndStopped) {
  for (const VoxHardening hardening : {VoxHardening_None, VoxHardening_StaleSpeech}) {
    const bool hardened = hardening != VoxHardening_None;
    Desk desk;
    auto wren = desk.openWith("Wren");
    desk.hub->ChooseWorkHidDevice(1);
    ASSERT_TRUE(desk.hub->OpenHidRecord());
    desk.hub->CloseDevice();  // and Release: neither stops the voice channel
    desk.hub->Release();
    ASSERT_TRUE(wren->streaming());

    desk.makeHub();
    desk.hub->SetHardening(hardening);
    desk.deliveries.clear();
    wren->forget();
    desk.open();
    desk.run(3s);
    EXPECT_EQ(wren->streaming(), !hardened);
    EXPECT_EQ(wren->received(0x04).size(), hardened ? 1U : 0U);
    EXPECT_EQ(desk.deliveries.empty(), hardened);
    VoxSpeechCounts counts{};
    ASSERT_TRUE(desk.hub->GetSpeechCounts(1, counts));
    EXPECT_EQ(counts.unasked, counts.reports);
    EXPECT_GT(counts.unasked, 0U);
    // What belongs to a recording comes as ever.
    desk.hub->ChooseWorkHidDevice(1);
    ASSERT_TRUE(desk.hub->OpenHidRecord());
    desk.run(1s);
    EXPECT_TRUE(desk.hub->CloseHidRecord());
    EXPECT_GE(desk.audio.size(), 30000U);
    EXPECT_EQ(wren->received(0x04).size(), hardened ? 2U : 1U);
  }
}

}  // namespace
