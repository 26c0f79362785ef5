// A desk of virtual hardware on the simulated machine.
#pragma once

#include <memory>
#include <vector>

#include "DeskFile.h"
#include "sim/Machine.h"

class SimulatedDesk {
 public:
  SimulatedDesk(DeskDescription description, bool virtualTime);

  // Plugs every device in; their timelines begin.
  void setUp();
  std::size_t size() const { return devices_.size(); }
  sim::VirtualMouse& device(std::size_t index) { return *devices_[index]; }
  // The first device of a model; null when there is none.
  sim::VirtualMouse* find(const std::string& model);

  const DeskSound& sound() const { return description_.sound; }
  // The volume of a capture endpoint now, 0 to 1, and whether it is muted.
  sim::CaptureEndpoint endpoint(std::size_t index);

  // HID devices among the older hardware that are plugged in.
  std::size_t legacyHids() const;

  double seconds();  // since the machine was switched on
  // Lets the desk go on for a while, and does what its timelines ask for.
  void run(std::chrono::milliseconds time);
  // What is still open on the machine, beyond what is by design, as a text; empty when nothing is.
  std::string leftOpen(const sim::Balance& byDesign);

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

  DeskDescription description_;
  sim::Machine machine_;
  std::vector<std::shared_ptr<sim::VirtualMouse>> devices_;
  std::vector<std::unique_ptr<sim::LegacyDevice>> legacy_;
  std::vector<Due> due_;  // in the order of time
  std::vector<DueLegacy> dueLegacy_;
};
