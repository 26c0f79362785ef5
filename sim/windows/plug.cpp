// Plugs a virtual device into the Windows that this runs on, and shows it: plug MODEL SECONDS [SPEECH.wav].
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "sim/Demonstration.h"
#include "sim/Wav.h"
#include "sim/devices/Mice.h"
#include "sim/windows/HidPort.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fputs("usage: plug MODEL SECONDS [SPEECH.wav] (for example: plug Wren 20)\n", stderr);
    return 2;
  }
  try {
    std::string error;
    auto speech = argc > 3 ? sim::readSpeech(argv[3], error) : std::vector<std::int16_t>();
    if (!error.empty()) throw std::runtime_error(error);
    sim::Machine machine({.clock = sim::Clock::realTime});
    const auto device = sim::makeMouse(argv[1], sim::Link::usb, "7&1a2b3c4d&0&0000");
    HidPort port(machine, device);
    port.plug();
    std::puts("plugged in");
    std::fflush(stdout);
    sim::demonstrate(machine, *device, std::chrono::seconds(std::atoi(argv[2])), std::move(speech));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "plug: %s\n", error.what());
    return 1;
  }
}
