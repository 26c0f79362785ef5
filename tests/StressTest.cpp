// Many devices, many schedules, stops at any moment: nothing is left behind.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/Desk.h"

namespace {

TEST(Stress, AHundredDevicesForTwentyMinutes) {
  Desk desk;
  std::mt19937 random(1);
  std::vector<std::shared_ptr<sim::VirtualMouse>> devices;
  while (devices.size() < 100) {
    for (const auto& [model, link] : everyModelOnEachLink()) {
      // Each time that a Swift comes, it gets a row of its own.
      if (model != std::string("Swift")) devices.push_back(desk.make(model, link));
    }
  }
  desk.open();
  std::size_t mostHandles = 0;
  for (int second = 0; second < 1200; ++second) {
    const auto& device = devices[random() % devices.size()];
    if (device->plugged()) {
      desk.machine.unplug(device);
    } else {
      desk.machine.plug(device);
    }
    if (second % 60 == 0) desk.hub->GetMouseState(-1);
    if (second == 600) mostHandles = desk.machine.balance().handles;
    desk.run(1s);
    if (second % 100 == 0) desk.record.clear();
  }
  // A reader keeps three events and its lock, a connected one two handles of the device and two threads.
  EXPECT_LE(desk.machine.balance().handles, 100U * 8 + 2);
  EXPECT_GT(mostHandles, 100U);
  for (const auto& device : devices) {
    if (device->plugged()) desk.machine.unplug(device);
  }
  desk.run(2s);
  EXPECT_FALSE(desk.hub->IsConnect());
  std::vector<int> numbers;
  std::vector<std::wstring> names;
  desk.hub->GetValidHidList(numbers, names);
  EXPECT_TRUE(numbers.empty());
  EXPECT_EQ(desk.machine.balance().threads, 1U) << "discovery alone";
}

// The read thread has ended before its start has returned.
TEST(Stress, ReadsThatFailAtOnceLeaveNothingRunning) {
  for (std::uint64_t seed = 1; seed <= 100 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Desk desk({.seed = seed});
    auto tern = desk.make("Tern");
    tern->faults.failReads = true;
    desk.machine.plug(tern);
    desk.open();
    desk.run(6s);
    EXPECT_GE(desk.record.lines("HidDisconnect").size(), 5U);
    tern->faults.failReads = false;
    desk.run(3s);
    EXPECT_EQ(desk.record.lines("HidConnect").size(), 1U);
    EXPECT_EQ(desk.machine.balance().threads, 4U) << "discovery, and the three of one reader";
  }
}

// Pulled out and put back faster than anything can settle, in shuffled schedules.
TEST(Stress, QuickReplugsAlwaysEndWithOneLiveDevice) {
  for (std::uint64_t seed = 1; seed <= 200 && !HasFailure(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Desk desk({.seed = seed});
    std::mt19937_64 random(seed);
    desk.open();
    auto tern = desk.make("Tern");
    desk.machine.plug(tern);
    for (int i = 0; i < 6; ++i) {
      desk.run(std::chrono::milliseconds(900 + random() % 250));
      desk.machine.unplug(tern);
      if (random() % 2 == 0) desk.run(std::chrono::microseconds(random() % 2000));
      desk.machine.plug(tern);
    }
    desk.run(5s);
    std::vector<int> numbers;
    std::vector<std::wstring> names;
    desk.hub->GetValidHidList(numbers, names);
    ASSERT_EQ(numbers.size(), 1U);
    desk.record.clear();
    tern->reportPower(5);
    desk.hub->SetDpi(numbers[0], 800);
    desk.run(100ms);
    EXPECT_EQ(desk.record.lines("PowerReport").size(), 1U);
    EXPECT_EQ(desk.record.lines("DpiSet").size(), 1U);
  }
}

}  // namespace
