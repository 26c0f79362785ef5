// VoxDevice.dll on the HID stack over and over: opened and closed, its devices plugged in and pulled out, its clients
// killed. Nothing may pile up, and every device is found every time.
//
// EnduranceTest stream: the client that is killed. It streams from the first device that it finds.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>

#include "sim/windows/HidPort.h"
#include "tests/Desk.h"
#include "tests/windows/Holdings.h"
#include "tools/explore/Explore.h"

namespace {

struct Holdings {
  std::size_t threads = threadsOfThisProcess();
  std::size_t handles = handlesLike(nullptr);
  double megabytes = memoryOfThisProcess();
};

class Endurance : public ::testing::Test {
 protected:
  // Before the desk checks its own end.
  ~Endurance() override {
    wrenPort.unplug();
    heronPort.unplug();
  }
  // Threads end a little later than what can be seen of their devices.
  Holdings settled(std::size_t threads) {
    desk.machine.waitFor([&] { return threadsOfThisProcess() <= threads; }, 500ms);
    return {};
  }
  void expectFlat(const Holdings& before, const char* what) {
    const Holdings after = settled(before.threads);
    std::printf("%s: %u -> %u threads, %u -> %u handles, %.1f -> %.1f MB resident\n", what,
                static_cast<unsigned>(before.threads), static_cast<unsigned>(after.threads),
                static_cast<unsigned>(before.handles), static_cast<unsigned>(after.handles), before.megabytes,
                after.megabytes);
    EXPECT_LE(after.threads, before.threads);
    EXPECT_LE(after.handles, before.handles + 5);
    EXPECT_LE(after.megabytes, before.megabytes + 5);
  }
  std::size_t count(const char* line) { return desk.record.lines(line).size(); }
  bool announced(std::size_t devices) {
    return desk.machine.waitFor([&] { return count("MouseState") >= devices; }, 10s);
  }
  void closeDevices() {
    EXPECT_LT(timeOf(desk,
                     [&] {
                       desk.hub->CloseDevice();
                       desk.hub->Release();
                     }),
              kBound);
    desk.record.clear();
    const std::lock_guard lock(desk.audioMutex);
    desk.audio.clear();
    desk.deliveries.clear();
  }
  // Opens and closes again: at once, after 1 to 40 ms, or when both devices have been found.
  void openAndClose(int turn) {
    desk.open();
    if (turn % 3 == 0) {
      ASSERT_TRUE(announced(2)) << "turn " << turn;
    } else if (turn % 3 == 1) {
      Sleep(static_cast<DWORD>(1 + turn * 7 % 40));
    }
    closeDevices();
  }

  Desk desk{{.clock = sim::Clock::realTime}};
  std::shared_ptr<sim::VirtualMouse> wren = sim::makeMouse("Wren", sim::Link::usb, "7&1a2b3c4d&0&0000");
  std::shared_ptr<sim::VirtualMouse> heron = sim::makeMouse("Heron Plus", sim::Link::usb, "7&1a2b3c4e&0&0000");
  HidPort wrenPort{desk.machine, wren};
  HidPort heronPort{desk.machine, heron};
};

TEST_F(Endurance, OpenedAndClosed) {
  wrenPort.plug();
  heronPort.plug();
  const int turns = static_cast<int>(seeds(20));
  for (const char* library : {"", "SlowThreads.dll"}) {
    const HMODULE slow = *library ? LoadLibraryA(library) : nullptr;
    ASSERT_EQ(slow != nullptr, *library != 0);
    for (int turn = 0; turn < 6; ++turn) openAndClose(turn);
    const Holdings before = settled(0);
    for (int turn = 0; turn < turns && !HasFatalFailure(); ++turn) openAndClose(turn);
    expectFlat(before, slow ? "opened and closed, each new thread 15 ms late" : "opened and closed");
    if (slow) FreeLibrary(slow);
  }
}

TEST_F(Endurance, PluggedInAndPulledOut) {
  desk.open();
  const int turns = static_cast<int>(seeds(10));
  Holdings before;
  for (int turn = -3; turn < turns; ++turn) {
    if (turn == 0) before = settled(0);
    wrenPort.plug();
    ASSERT_TRUE(announced(1)) << "turn " << turn;
    desk.hub->ChooseWorkHidDevice(desk.hub->GetEffectiveDevice());
    // In mid-stream, and idle.
    if (turn % 2 == 0) {
      ASSERT_TRUE(desk.hub->OpenHidRecord()) << "turn " << turn;
    }
    wrenPort.unplug();
    ASSERT_TRUE(desk.machine.waitFor([&] { return count("HidDisconnect") == 1; }, 5s)) << "turn " << turn;
    desk.record.clear();
    const std::lock_guard lock(desk.audioMutex);
    desk.audio.clear();
  }
  expectFlat(before, "plugged in and pulled out");
}

// A client in a process of its own.
class Client {
 public:
  Client() {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE output = nullptr;
    CreatePipe(&said_, &output, &inherited, 0);
    SetHandleInformation(said_, HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW start{};
    start.cb = sizeof start;
    start.dwFlags = STARTF_USESTDHANDLES;
    start.hStdOutput = output;
    std::wstring line = L"\"" + programFolder() + L"EnduranceTest.exe\" stream";
    PROCESS_INFORMATION process{};
    CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start, &process);
    CloseHandle(output);
    CloseHandle(process.hThread);
    process_ = process.hProcess;
  }
  ~Client() {
    kill();
    CloseHandle(process_);
    CloseHandle(said_);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Waits until speech has come, or the client has given up.
  bool streams() {
    char byte = 0;
    DWORD count = 0;
    return ::ReadFile(said_, &byte, 1, &count, nullptr) && byte == 's';
  }
  void kill() {
    TerminateProcess(process_, 9);
    ::WaitForSingleObject(process_, INFINITE);
  }

 private:
  HANDLE process_ = nullptr;
  HANDLE said_ = nullptr;
};

TEST_F(Endurance, KilledInMidStream) {
  wrenPort.plug();
  const int turns = static_cast<int>(seeds(5));
  Holdings before;
  for (int turn = -2; turn < turns; ++turn) {
    if (turn == 0) before = settled(0);
    Client client;
    ASSERT_TRUE(client.streams()) << "turn " << turn;
    EXPECT_TRUE(wren->streaming());
  }
  expectFlat(before, "clients killed");
  // The next client has the device as if nothing had been.
  desk.open();
  ASSERT_TRUE(announced(1));
  desk.hub->ChooseWorkHidDevice(1);
  ASSERT_TRUE(desk.hub->OpenHidRecord());
  EXPECT_TRUE(desk.machine.waitFor([&] { return desk.pcm().size() > 4000; }, 5s));
  EXPECT_TRUE(desk.hub->CloseHidRecord());
  EXPECT_FALSE(wren->streaming());
}

std::atomic<int> samples{0};

int stream() {
  CAudioHidCenter hub;
  hub.OpenDevice(reinterpret_cast<void*>(+[](const unsigned char* data, int byteCount, void*) {
                   if (data) samples += byteCount / 2;
                 }),
                 nullptr);
  bool recording = false;
  for (int wait = 0; wait < 1000; ++wait) {
    Sleep(10);
    const int device = hub.GetEffectiveDevice();
    if (!recording && device > 0) {
      hub.ChooseWorkHidDevice(device);
      recording = hub.OpenHidRecord();
    }
    if (samples > 1000) {
      std::putchar('s');
      std::fflush(stdout);
      Sleep(INFINITE);
    }
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "stream") == 0) return stream();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
