// A desk of virtual hardware on the simulated machine.
#pragma once

#include <memory>
#include <vector>

#include "Desk.h"
#include "DeskFile.h"
#include "sim/Machine.h"

class SimulatedDesk final : public Desk {
 public:
  SimulatedDesk(DeskDescription description, bool virtualTime);

  // The timelines of the devices begin.
  void setUp() override;
  double seconds() override;
  // Does what the timelines ask for.
  void run(std::chrono::milliseconds time) override;
  std::string greeting() const override;
  std::optional<std::size_t> expectedDevices() const override { return devices_.size(); }
  std::string voiceKeyOwner() const override { return "Wren"; }
  void holdVoiceKey(bool down) override;
  // That of the Wren, or of the first device.
  std::optional<double> speechSeconds() const override;
  std::vector<SoundSource> microphones() override;
  std::vector<SoundEndpoint> endpoints() override;
  std::optional<SoundOutput> speaker() override;
  std::size_t legacyHids() override;
  std::string leftOpen(const LeftOpen& byDesign) override;

 private:
  struct Due {
    double at;
    std::size_t device;
    DeskAction action;
  };
  struct DueLegacy {
    double at;
    std::size_t device;
    DeskLegacyAction action;
  };
  void act(const Due& due);
  void act(const DueLegacy& due);
  void setUpSound();
  // The first Wren, whose voice key the desk holds; the end when there is none.
  std::size_t wren() const;

  DeskDescription description_;
  sim::Machine machine_;
  std::vector<std::shared_ptr<sim::VirtualMouse>> devices_;
  std::vector<std::unique_ptr<sim::LegacyDevice>> legacy_;
  std::vector<Due> due_;  // in the order of time
  std::vector<DueLegacy> dueLegacy_;
};
