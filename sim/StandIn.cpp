// The machine for programs that link the library and make none, in real time: the desk of the file that VOXDEVICE_DESK
// names, or one with a Wren, a Heron Plus and a Tern, whose Wren somebody shows.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <mutex>

#include "sim/Demonstration.h"
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

constexpr auto kStep = std::chrono::milliseconds(5);

void showTheDefault(Machine& machine) {
  machine.install(L"asc_lib.dll", ascLibrary());
  const auto wren = makeMouse("Wren", Link::usb, "7&1a2b3c10&0&0000");
  machine.plug(wren);
  machine.plug(makeMouse("Heron Plus", Link::bluetooth, "7&1a2b3c11&0&0000"));
  machine.plug(makeMouse("Tern", Link::usb, "7&1a2b3c12&0&0000"));
  machine.spawn([&machine, wren] { demonstrate(machine, *wren, Time::max() / 2); });
}

// With a file that cannot be used the desk is empty: the client is somebody else's program, which goes on.
void show(Machine& machine, const char* file) {
  try {
    auto* const desk = new VirtualDesk(machine, readDeskFile(file));
    desk->setUp();
    machine.spawn([&machine, desk] {
      for (;; machine.sleep(kStep)) desk->catchUp();
    });
  } catch (const std::exception& error) {
    std::fprintf(stderr, "VoxDevice, simulated: the desk of VOXDEVICE_DESK is left empty: %s\n", error.what());
  }
}

// Never switched off: it has to be there as long as the program's last thread.
void switchOn() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto* machine = new Machine({.clock = Clock::realTime});
    const char* const file = std::getenv("VOXDEVICE_DESK");
    file&&* file ? show(*machine, file) : showTheDefault(*machine);
  });
}

// Before main.
[[maybe_unused]] const bool registered = (Machine::standIn = &switchOn, true);

}  // namespace
}  // namespace sim
