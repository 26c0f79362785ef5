// Plugs a virtual device into the Windows that this runs on, and shows it: plug MODEL SECONDS.
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "sim/Demonstration.h"
#include "sim/devices/Mice.h"
#include "sim/windows/HidPort.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: plug MODEL SECONDS (for example: plug Wren 20)\n", stderr);
    return 2;
  }
  try {
    sim::Machine machine({.clock = sim::Clock::realTime});
    const auto device = sim::makeMouse(argv[1], sim::Link::usb, "7&1a2b3c4d&0&0000");
    HidPort port(machine, device);
    port.plug();
    std::puts("plugged in");
    std::fflush(stdout);
    sim::demonstrate(machine, *device, std::chrono::seconds(std::atoi(argv[2])));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "plug: %s\n", error.what());
    return 1;
  }
}
