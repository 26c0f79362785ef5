// The simulated machine: a small computer behind the seam (platform/os.h), into which tests and voxdesk plug virtual
// hardware. One machine exists at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/Faults.h"
#include "sim/HidBus.h"
#include "sim/Kernel.h"
#include "sim/Peripherals.h"
#include "sim/Sound.h"

namespace sim {

struct MachineOptions {
  Clock clock = Clock::virtualTime;
  std::uint64_t seed = 0;  // explores schedules (virtual clock); 0 leaves threads in order
  ScheduleOptions schedule{};
  DWORD firstTick = 1'000'000;  // GetTickCount when the machine is switched on, milliseconds
  // Waits with a limit end at multiples of this only: 15,625 us is Windows' usual. Zero: to the moment.
  Time timerPeriod{0};
  std::string logFile{};  // where the log is written as it comes; what happens to the process does not take it
};

// What is still open. All zero after a clean stop.
struct Balance {
  std::size_t handles = 0;
  std::size_t threads = 0;
  std::size_t deviceLists = 0;
  std::size_t preparsedData = 0;
  SoundSystem::Open sound{};
  bool operator==(const Balance&) const = default;
};

// A loadable library: its entry points by name.
using Library = std::map<std::string, FARPROC>;

struct DeviceList;
struct ParsedDescriptor;

class Machine {
 public:
  explicit Machine(MachineOptions options = {});
  ~Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  static Machine& current();
  // The thread whose code is just running; null without a machine, and with the real clock.
  static Thread* runningThread() noexcept;
  // Switches a machine on for a program that has made none; null in those that make their own (see StandIn.cpp).
  static void (*standIn)();

  // ---- For tests and programs, from above the seam ----
  void plug(const std::shared_ptr<HidDevice>& device);
  void unplug(const std::shared_ptr<HidDevice>& device);
  // Makes a library loadable under this file name.
  void install(const std::wstring& fileName, Library library);
  void sleep(Time time);
  Time now();
  // Sleeps in small steps until `condition` holds; false when it does not within `limit`.
  bool waitFor(const std::function<bool()>& condition, Time limit);
  // A client thread of its own.
  class Spawned {
   public:
    void join();

   private:
    friend class Machine;
    Machine* machine_ = nullptr;
    std::shared_ptr<Thread> thread_;
  };
  Spawned spawn(std::function<void()> body);

  // Runs `action` on the machine, with its lock held, when `delay` has passed.
  void after(Time delay, std::function<void()> action);
  // Runs `action` with the machine's lock held.
  void locked(const std::function<void()>& action);

  Balance balance();
  std::uint64_t waits();
  // Rules of the seam that were broken, as "IAudioClient::Start: already started". Empty after a good run.
  std::vector<std::string> misuses();
  std::string waiting();       // which threads wait for what, a line each
  std::uint64_t forcedEnds();  // threads that were ended by force

  // Calls that fail by their name: see Faults.
  Faults& faults() { return faults_; }
  // The n-th call from now on that can fail does (0: none); how many there were since; and which it was.
  void failCall(std::uint64_t n);
  std::uint64_t callsThatCanFail();
  std::string failedCall();

  // The log: what happened, with its time, thread, device and handle, when recording is on. Tests add their own lines.
  void record(bool on);
  void note(const std::string& line);
  std::string log();

  // ---- With the lock held: for the machine's own parts ----
  Kernel& kernel() { return kernel_; }
  HidBus& hid() { return hid_; }
  SoundSystem& sound() { return sound_; }
  Peripherals& peripherals() { return peripherals_; }
  bool recording() const { return recording_; }
  // What happened, and where it did, at which device.
  void noteLocked(const std::string& line, const HidDevice* device = nullptr, HANDLE handle = nullptr) REQUIRES(gate);
  const Library* library(const std::wstring& fileName) const;
  std::map<void*, std::shared_ptr<DeviceList>> deviceLists;  // open ones
  std::map<void*, std::shared_ptr<ParsedDescriptor>> preparsedData;

 private:
  ScheduleOptions tellingChoices(ScheduleOptions schedule);

  bool recording_ = false;
  std::string log_;
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> logFile_{nullptr, std::fclose};
  std::map<std::wstring, Library> libraries_;
  Faults faults_;
  HidBus hid_;
  SoundSystem sound_;
  Peripherals peripherals_;
  Kernel kernel_;  // destroyed first: its threads use everything above
};

}  // namespace sim
