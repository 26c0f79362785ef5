#include "sim/Demonstration.h"

#include <cmath>
#include <numbers>

namespace sim {

void demonstrate(Machine& machine, VirtualMouse& mouse, Time limit) {
  using namespace std::chrono_literals;
  constexpr int kRate = 16'000;
  std::vector<std::int16_t> tone(2 * kRate);
  for (std::size_t i = 0; i < tone.size(); ++i) {
    tone[i] = static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(i) / kRate));
  }
  mouse.hear(tone);
  for (const Time end = machine.now() + limit; machine.now() < end;) {
    machine.sleep(5s);
    mouse.pressVoiceKey();
    machine.sleep(2s);
    mouse.releaseVoiceKey();
  }
}

}  // namespace sim
