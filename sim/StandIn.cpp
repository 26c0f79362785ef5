// The machine for programs that link the library and make none: a desk with a Wren, a Heron Plus and a Tern, in real
// time. Every 5 seconds somebody holds the Wren's voice key for 2, and it hears a tone.
#include <cmath>
#include <mutex>
#include <numbers>

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

void holdVoiceKey(Machine& machine, const std::shared_ptr<VirtualMouse>& mouse) {
  using namespace std::chrono_literals;
  for (;;) {
    machine.sleep(5s);
    mouse->pressVoiceKey();
    machine.sleep(2s);
    mouse->releaseVoiceKey();
  }
}

// Never switched off: it has to be there as long as the program's last thread.
void switchOn() {
  static std::once_flag once;
  std::call_once(once, [] {
    auto* machine = new Machine({.clock = Clock::realTime});
    machine->install(L"asc_lib.dll", ascLibrary());
    const auto wren = makeMouse("Wren", Link::usb, "7&1a2b3c10&0&0000");
    std::vector<std::int16_t> tone(16'000 * 2);
    for (std::size_t i = 0; i < tone.size(); ++i) {
      tone[i] =
          static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(i) / 16'000));
    }
    wren->hear(tone);
    machine->plug(wren);
    machine->plug(makeMouse("Heron Plus", Link::bluetooth, "7&1a2b3c11&0&0000"));
    machine->plug(makeMouse("Tern", Link::usb, "7&1a2b3c12&0&0000"));
    machine->spawn([machine, wren] { holdVoiceKey(*machine, wren); });
  });
}

// Before main.
[[maybe_unused]] const bool registered = (Machine::standIn = &switchOn, true);

}  // namespace
}  // namespace sim
