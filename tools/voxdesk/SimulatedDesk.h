// A desk of virtual hardware on the simulated machine.
#pragma once

#include "Desk.h"
#include "sim/Machine.h"
#include "sim/VirtualDesk.h"

class SimulatedDesk final : public Desk {
 public:
  // hint: see Desk.
  SimulatedDesk(sim::DeskDescription description, bool virtualTime, std::string hint);

  const sim::VirtualDesk& desk() const { return desk_; }

  // The timelines of the devices begin.
  void setUp() override { desk_.setUp(); }
  double seconds() override;
  // Does what the timelines ask for.
  void run(std::chrono::milliseconds time) override;
  std::string greeting() const override;
  std::string hint() const override { return hint_; }
  std::optional<std::size_t> expectedDevices() const override;
  std::string voiceKeyOwner() const override {
    return desk_.recorded().empty() || wren() < desk_.devices().size() ? "Wren" : "";
  }
  void holdVoiceKey(bool down) override;
  // That of the Wren, or of the first device; with recorded devices, as long as they have something to replay.
  std::optional<double> speechSeconds() const override;
  std::vector<SoundSource> microphones() override;
  std::vector<SoundEndpoint> endpoints() override;
  std::optional<SoundOutput> speaker() override;
  std::size_t legacyHids() override;
  std::vector<std::string> replayed() override;
  std::string leftOpen(const LeftOpen& byDesign) override;

 private:
  // The first Wren, whose voice key the desk holds; the end when there is none.
  std::size_t wren() const;

  sim::Machine machine_;
  sim::VirtualDesk desk_;
  const std::string hint_;
};
