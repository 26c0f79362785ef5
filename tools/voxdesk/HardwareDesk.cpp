#include "HardwareDesk.h"

#include <algorithm>

#include "Survey.h"
#include "sim/Hardware.h"
#include "sim/Text.h"

namespace {

class HardwareDesk final : public Desk {
 public:
  void setUp() override {}
  double seconds() override { return std::chrono::duration<double>(machine_.now()).count(); }
  void run(std::chrono::milliseconds time) override { machine_.sleep(time); }
  std::string greeting() const override { return "Looking for voice mice ..."; }
  std::string advice() const override {
    return "plug one in, or see what is not used, and why: voxdesk --desk hardware devices --verbose";
  }
  std::string missing() const override {
    return "Linux's desk of real devices has neither the computer's sound nor the older USB mouse and the laser pen";
  }
  std::string denied(const std::string& path) override {
    const std::string node = hardware_->deniedNode(sim::wide(path));
    if (node.empty()) return {};
    return "this user may not open " + node + "; the udev rules of docs/linux.md let whoever sits at the computer";
  }
  std::vector<std::string> damaged() override {
    std::vector<std::string> sentences;
    for (const std::string& node : hardware_->damagedNodes()) {
      sentences.push_back(node + " is left alone: its report descriptor is damaged");
    }
    return sentences;
  }
  std::optional<std::size_t> expectedDevices() const override { return std::nullopt; }
  std::string voiceKeyOwner() const override { return {}; }
  void holdVoiceKey(bool) override {}
  std::optional<double> speechSeconds() const override { return std::nullopt; }
  std::vector<SoundSource> microphones() override { return {}; }
  std::vector<SoundEndpoint> endpoints() override { return {}; }
  std::optional<SoundOutput> speaker() override { return std::nullopt; }
  std::size_t legacyHids() override {
    const auto open = hardware_->open();
    return static_cast<std::size_t>(std::count_if(
        open.begin(), open.end(), [](const std::wstring& path) { return !olderOf(sim::utf8(path)).empty(); }));
  }
  std::string leftOpen(const LeftOpen& byDesign) override { return leftOpenOn(machine_, byDesign); }

 private:
  sim::Machine machine_{{.clock = sim::Clock::realTime}};
  const std::unique_ptr<sim::Hardware> hardware_ = sim::Hardware::plugInto(machine_);
};

}  // namespace

std::unique_ptr<Desk> makeHardwareDesk() { return std::make_unique<HardwareDesk>(); }
