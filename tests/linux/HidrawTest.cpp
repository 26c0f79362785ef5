// A client of the library on nodes, to be run by hidraw_test.py.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>

#include "VoxDevice/VoxDevice.h"
#include "sim/Hardware.h"

namespace {

using Clock = std::chrono::steady_clock;

std::size_t openNodes() {
  std::size_t count = 0;
  for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(file.path(), gone).string();
    if (target.find("/dev/hidraw") != target.npos) ++count;
  }
  return count;
}

// What a debugger, a profiler or a timer of the client's does.
void signalEveryThread() {
  signal(SIGUSR1, [](int) {});
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    const int id = std::stoi(thread.path().filename().string());
    if (id != gettid()) tgkill(getpid(), id, SIGUSR1);
  }
}

// Again and again: devices that are read, and others that are just being opened.
TEST(Hidraw, IsReleasedWithReadsBlockedAndLeavesNothingOpen) {
  for (const auto patience : {2500, 1000, 1040, 1100}) {
    sim::Machine machine({.clock = sim::Clock::realTime});
    auto hardware = sim::Hardware::plugInto(machine);
    {
      CAudioHidCenter hub;
      hub.OpenDevice(nullptr, nullptr);
      machine.sleep(std::chrono::milliseconds(patience));
      if (patience == 2500) {
        EXPECT_TRUE(hub.IsConnect());
        EXPECT_EQ(openNodes(), 4U);  // two devices, each with a node for reading and one for writing
        signalEveryThread();
        for (int i = 0; i < 10; ++i) {
          machine.sleep(std::chrono::milliseconds(10));
          EXPECT_EQ(openNodes(), 4U) << "a signal is no unplug";
        }
      }
      const auto begin = Clock::now();
      hub.CloseDevice();
      hub.Release();
      EXPECT_LT(Clock::now() - begin, std::chrono::seconds(2));
    }
    EXPECT_TRUE(hardware->open().empty());
    hardware.reset();
    EXPECT_EQ(openNodes(), 0U);
    EXPECT_EQ(machine.balance(), sim::Balance{});
    EXPECT_EQ(machine.misuses(), std::vector<std::string>());
  }
}

}  // namespace
