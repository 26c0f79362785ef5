// Plugs a virtual device into the Windows that this runs on: plug MODEL SECONDS. Every 5 seconds somebody holds its
// voice key for 2, and it hears a tone.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <numbers>

#include "sim/devices/Mice.h"
#include "tests/windows/HidPort.h"

int main(int argc, char** argv) {
  using namespace std::chrono_literals;
  if (argc != 3) {
    std::fputs("usage: plug MODEL SECONDS (for example: plug Wren 20)\n", stderr);
    return 2;
  }
  try {
    sim::Machine machine({.clock = sim::Clock::realTime});
    const auto device = sim::makeMouse(argv[1], sim::Link::usb, "7&1a2b3c4d&0&0000");
    std::vector<std::int16_t> tone(16'000 * 2);
    for (std::size_t i = 0; i < tone.size(); ++i) {
      tone[i] =
          static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(i) / 16'000));
    }
    device->hear(tone);
    HidPort port(machine, device);
    port.plug();
    std::puts("plugged in");
    std::fflush(stdout);
    const sim::Time end = machine.now() + std::chrono::seconds(std::atoi(argv[2]));
    while (machine.now() < end) {
      machine.sleep(5s);
      device->pressVoiceKey();
      machine.sleep(2s);
      device->releaseVoiceKey();
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "plug: %s\n", error.what());
    return 1;
  }
}
