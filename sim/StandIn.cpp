// The machine for programs that link the library and make none: a desk with a Wren, a Heron Plus and a Tern, in real
// time. Somebody shows the Wren.
#include <mutex>

#include "sim/Demonstration.h"
#include "sim/Machine.h"
#include "sim/devices/AscCodec.h"
#include "sim/devices/Mice.h"

// What a program's linker asks for when it wants this machine.
extern "C" {
extern const int voxSimulatedDesk;
const int voxSimulatedDesk = 1;
}

namespace sim {
namespace {

// Never switched off: it has to be there as long as the program's last thread.
void switchOn() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto* machine = new Machine({.clock = Clock::realTime});
    machine->install(L"asc_lib.dll", ascLibrary());
    const auto wren = makeMouse("Wren", Link::usb, "7&1a2b3c10&0&0000");
    machine->plug(wren);
    machine->plug(makeMouse("Heron Plus", Link::bluetooth, "7&1a2b3c11&0&0000"));
    machine->plug(makeMouse("Tern", Link::usb, "7&1a2b3c12&0&0000"));
    machine->spawn([machine, wren] { demonstrate(*machine, *wren, Time::max() / 2); });
  });
}

// Before main.
[[maybe_unused]] const bool registered = (Machine::standIn = &switchOn, true);

}  // namespace
}  // namespace sim
