// The machine for programs that link the library and make none, in real time: the desk of the file that VOXDEVICE_DESK
// names, or one with a Wren, a Heron Plus and a Tern, whose Wren somebody shows. VOXDEVICE_SEED makes the devices take
// their time, from which follows another order of what happens. VOXDEVICE_DESK=hardware: what is plugged into the
// computer.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <random>
#include <string_view>

#include "sim/Demonstration.h"
#include "sim/Hardware.h"
#include "sim/Machine.h"
#include "sim/VirtualDesk.h"
#include "sim/devices/AscCodec.h"
#include "sim/devices/Mice.h"

// What a program's linker asks for when it wants this machine.
extern "C" {
extern const int voxSimulatedDesk;
const int voxSimulatedDesk = 1;
}

namespace sim {
namespace {

using Mice = std::vector<std::shared_ptr<VirtualMouse>>;

constexpr auto kStep = std::chrono::milliseconds(5);
constexpr std::uint64_t kSlowest = 40;  // ms

Mice showTheDefault(Machine& machine) {
  machine.install(L"asc_lib.dll", ascLibrary());
  Mice mice{makeMouse("Wren", Link::usb, "7&1a2b3c10&0&0000"),
            makeMouse("Heron Plus", Link::bluetooth, "7&1a2b3c11&0&0000"),
            makeMouse("Tern", Link::usb, "7&1a2b3c12&0&0000")};
  for (const auto& mouse : mice) machine.plug(mouse);
  machine.spawn([&machine, wren = mice[0]] { demonstrate(machine, *wren, Time::max() / 2); });
  return mice;
}

// With a file that cannot be used the desk is empty: the client is somebody else's program, which goes on.
Mice show(Machine& machine, const char* file) {
  try {
    if (std::string_view(file) == "hardware") {
      [[maybe_unused]] static Hardware* const kept = Hardware::plugInto(machine).release();
      return {};
    }
    auto* const desk = new VirtualDesk(machine, readDeskFile(file));
    desk->setUp();
    machine.spawn([&machine, desk] {
      for (;; machine.sleep(kStep)) desk->catchUp();
    });
    return desk->devices();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "VoxDevice, simulated: the desk of VOXDEVICE_DESK is left empty: %s\n", error.what());
    return {};
  }
}

// Each answer takes as long as the next number says.
void delay(Machine& machine, Mice mice, std::uint64_t seed) {
  machine.spawn([&machine, mice = std::move(mice), random = std::mt19937_64(seed)]() mutable {
    for (;; machine.sleep(kStep)) {
      machine.locked([&] {
        for (const auto& mouse : mice) mouse->latency = std::chrono::milliseconds(1 + random() % kSlowest);
      });
    }
  });
}

// Never switched off: it has to be there as long as the program's last thread.
void switchOn() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto* machine = new Machine({.clock = Clock::realTime});
    const char* const file = std::getenv("VOXDEVICE_DESK");
    const bool chosen = file != nullptr && *file != '\0';
    Mice mice = chosen ? show(*machine, file) : showTheDefault(*machine);
    const char* const seed = std::getenv("VOXDEVICE_SEED");
    if (seed && *seed != '\0') delay(*machine, std::move(mice), std::strtoull(seed, nullptr, 10));
  });
}

// Before main.
[[maybe_unused]] const bool registered = (Machine::standIn = &switchOn, true);

}  // namespace
}  // namespace sim
