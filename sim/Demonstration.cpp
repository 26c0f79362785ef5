#include "sim/Demonstration.h"

#include <cmath>
#include <numbers>

namespace sim {

namespace {

std::vector<std::int16_t> tone() {
  constexpr int kRate = 16'000;
  std::vector<std::int16_t> samples(2 * kRate);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    samples[i] =
        static_cast<std::int16_t>(8000 * std::sin(2 * std::numbers::pi * 440 * static_cast<double>(i) / kRate));
  }
  return samples;
}

}  // namespace

void demonstrate(Machine& machine, VirtualMouse& mouse, Time limit, std::vector<std::int16_t> speech) {
  using namespace std::chrono_literals;
  const Time held = speech.empty() ? 2s : 2s + std::chrono::milliseconds(speech.size() / 16);
  mouse.hear(speech.empty() ? tone() : std::move(speech));
  for (const Time end = machine.now() + limit; machine.now() < end;) {
    machine.sleep(5s);
    mouse.pressVoiceKey();
    machine.sleep(held);
    mouse.releaseVoiceKey();
  }
}

}  // namespace sim
