// The same library on free-running threads: for the thread sanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "tests/Desk.h"

namespace {

TEST(RealClock, ConnectsRecordsAndStopsUnderManyThreads) {
  Desk desk({.clock = sim::Clock::realTime});
  desk.open();
  auto wren = desk.make("Wren");
  auto tern = desk.make("Tern", sim::Link::bluetooth);
  auto swift = desk.make("Swift");
  wren->hear(std::vector<std::int16_t>(16000, 1000));
  for (const auto& device : {wren, tern, swift}) desk.machine.plug(device);
  ASSERT_TRUE(desk.machine.waitFor([&] { return desk.record.lines("MouseState").size() == 3; }, 10s));

  // Clients on threads of their own: one polls keys, one asks and commands.
  std::atomic<bool> stop{false};
  auto poller = desk.machine.spawn([&] {
    while (!stop) {
      desk.hub->GetButtonState_Left();
      desk.hub->LeftKeyDown_Up();
      desk.hub->GetClickMode_L();
      desk.hub->IsConnect();
      CVoxDeviceInfo::Instance()->GetBluetoothID();
      desk.run(1ms);
    }
  });
  auto commander = desk.machine.spawn([&] {
    std::vector<int> numbers;
    std::vector<std::wstring> names;
    for (short dpi = 400; !stop; ++dpi) {
      desk.hub->GetValidHidList(numbers, names);
      desk.hub->SetDpi(-1, dpi);
      desk.hub->GetMouseState(-1);
      desk.hub->SetCallback_PowerReport(nullptr, nullptr);
      desk.run(2ms);
    }
  });
  for (int round = 0; round < 3; ++round) {
    wren->pressVoiceKey();
    ASSERT_TRUE(desk.machine.waitFor([&] { return desk.hub->GetButtonState_Left() == ButtonDown; }, 5s));
    ASSERT_TRUE(desk.hub->OpenHidRecord());
    tern->key('1');
    tern->key(']');
    desk.run(150ms);
    EXPECT_TRUE(desk.hub->CloseHidRecord());
    wren->releaseVoiceKey();
    ASSERT_TRUE(desk.machine.waitFor([&] { return desk.hub->GetButtonState_Left() == ButtonUp; }, 5s));
    desk.machine.unplug(tern);
    desk.run(20ms);
    desk.machine.plug(tern);
  }
  EXPECT_GE(desk.pcm().size(), 3000U);
  // Pulled out while the hub may just be opening it, and once more at the end.
  ASSERT_TRUE(desk.machine.waitFor(
      [&] { return desk.hub->GetHidMouseType(desk.hub->GetEffectiveDevice()) == MouseType_Tern; }, 10s));
  stop = true;
  poller.join();
  commander.join();
  desk.machine.unplug(swift);
  desk.close();
}

TEST(RealClock, StopsAtAnyMoment) {
  for (const int milliseconds : {0, 310, 960, 1003, 1961, 2112, 2500}) {
    Desk desk({.clock = sim::Clock::realTime});
    desk.open();
    auto wren = desk.make("Wren");
    auto plus = desk.make("Heron Plus", sim::Link::bluetooth);
    wren->faults.writeTime = 3ms;
    desk.machine.plug(wren);
    desk.machine.plug(plus);
    desk.run(std::chrono::milliseconds(milliseconds));
    desk.hub->ChooseWorkHidDevice(1);
    if (milliseconds > 2000) desk.hub->OpenHidRecord();
    if (milliseconds % 2 == 0) desk.hub->CloseDevice();
    if (milliseconds % 3 == 0) desk.machine.unplug(wren);
    desk.hub->Release();
    EXPECT_EQ(desk.machine.balance().threads, 0U);
  }
}

}  // namespace
