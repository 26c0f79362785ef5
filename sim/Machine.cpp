#include "sim/Machine.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "sim/Memory.h"

namespace sim {
namespace {

Machine* theMachine = nullptr;

}  // namespace

Machine::Machine(MachineOptions options)
    : hid_(*this),
      sound_(*this),
      kernel_(options.clock, options.seed, tellingChoices(options.schedule), options.firstTick, options.timerPeriod) {
  if (theMachine) {
    std::fputs("sim: a second machine while the first is on\n", stderr);
    std::abort();
  }
  theMachine = this;
  if (!options.logFile.empty()) {
    logFile_.reset(std::fopen(options.logFile.c_str(), "w"));
    recording_ = logFile_ != nullptr;
  }
}

ScheduleOptions Machine::tellingChoices(ScheduleOptions schedule) {
  schedule.told = [this](const Choice& choice) REQUIRES(gate) {
    if (!recording_) return;
    noteLocked("choice " +
               (choice.next > 0 ? "thread " + std::to_string(choice.next) : "timer " + std::to_string(-choice.next)) +
               " goes first");
  };
  return schedule;
}

Machine::~Machine() {
  kernel_.switchOff();
  theMachine = nullptr;
}

// What the library's shared fields call in builds for it.
extern "C" void voxAtSharedField() noexcept {
  const OthersCode here;
  if (theMachine) theMachine->kernel().atSharedField();
}

void (*Machine::standIn)() = nullptr;

Machine& Machine::current() {
  if (!theMachine && standIn) standIn();
  if (!theMachine) {
    std::fputs("sim: a call of the operating system, but no sim::Machine is switched on\n", stderr);
    std::abort();
  }
  return *theMachine;
}

Thread* Machine::runningThread() noexcept { return theMachine ? theMachine->kernel().runningFiber() : nullptr; }

void Machine::plug(const std::shared_ptr<HidDevice>& device) {
  locked([&]() REQUIRES(gate) {
    hid_.plug(device);
    noteLocked("plug", device.get());
  });
}

void Machine::unplug(const std::shared_ptr<HidDevice>& device) {
  locked([&]() REQUIRES(gate) {
    noteLocked("unplug", device.get());
    hid_.unplug(device);
  });
}

void Machine::install(const std::wstring& fileName, Library library) {
  locked([&]() REQUIRES(gate) { libraries_[fileName] = std::move(library); });
}

void Machine::sleep(Time time) {
  const Inside inside(kernel_);
  kernel_.sleep(time);
}

Time Machine::now() {
  const Inside inside;
  return kernel_.now();
}

bool Machine::waitFor(const std::function<bool()>& condition, Time limit) {
  const Time end = now() + limit;
  while (!condition()) {
    if (now() >= end) return false;
    sleep(std::chrono::milliseconds(1));
  }
  return true;
}

Machine::Spawned Machine::spawn(std::function<void()> body) {
  const Inside inside;
  Spawned spawned;
  spawned.machine_ = this;
  spawned.thread_ = kernel_.createThread(std::move(body), false);
  return spawned;
}

void Machine::Spawned::join() {
  const Inside inside(machine_->kernel_);
  const std::array<Object*, 1> ended{thread_.get()};
  machine_->kernel_.waitAny(ended, std::nullopt);
}

void Machine::after(Time delay, std::function<void()> action) {
  locked([&]() REQUIRES(gate) { kernel_.after(delay, std::move(action)); });
}

void Machine::locked(const std::function<void()>& action) {
  const Inside inside;
  action();
}

Balance Machine::balance() {
  const Inside inside;
  return {.handles = kernel_.openHandles(),
          .threads = kernel_.runningThreads(),
          .deviceLists = deviceLists.size(),
          .preparsedData = preparsedData.size(),
          .sound = sound_.open};
}

std::uint64_t Machine::waits() {
  const Inside inside;
  return kernel_.waits();
}

std::vector<std::string> Machine::misuses() {
  const Inside inside;
  return kernel_.misuses();
}

std::string Machine::waiting() {
  const Inside inside;
  return kernel_.waiting();
}

std::uint64_t Machine::forcedEnds() {
  const Inside inside;
  return kernel_.forcedEnds();
}

void Machine::failCall(std::uint64_t n) {
  locked([&]() REQUIRES(gate) { faults_.failCall(n); });
}

std::uint64_t Machine::callsThatCanFail() {
  const Inside inside;
  return faults_.calls();
}

std::string Machine::failedCall() {
  const Inside inside;
  return faults_.failedCall();
}

void Machine::record(bool on) {
  locked([&]() REQUIRES(gate) { recording_ = on; });
}

void Machine::note(const std::string& line) {
  locked([&]() REQUIRES(gate) { noteLocked(line); });
}

void Machine::noteLocked(const std::string& line, const HidDevice* device, HANDLE handle) {
  if (!recording_) return;
  std::array<char, 32> number{};
  const long long now = kernel_.now().count();
  std::snprintf(number.data(), number.size(), "%lld.%03lld ", now / 1000, now % 1000);
  std::string text = number.data() + line + " (thread " + std::to_string(kernel_.acting());
  if (device) {
    // Without what all paths have.
    const std::string path(device->path().begin(), device->path().end());
    text += ", device " + path.substr(path.find('#') + 1, path.rfind('#') - path.find('#') - 1);
  }
  if (handle) {
    std::snprintf(number.data(), number.size(), ", handle %llx",
                  static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(handle)));
    text += number.data();
  }
  text += ")\n";
  if (logFile_) {
    std::fputs(text.c_str(), logFile_.get());
    std::fflush(logFile_.get());
  } else {
    log_ += text;
  }
}

std::string Machine::log() {
  const Inside inside;
  return log_;
}

const Library* Machine::library(const std::wstring& fileName) const {
  const auto it = libraries_.find(fileName);
  return it == libraries_.end() ? nullptr : &it->second;
}

}  // namespace sim
