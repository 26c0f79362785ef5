// The virtual hardware of a description, plugged into a machine, and what happens to it.
#pragma once

#include <memory>
#include <vector>

#include "sim/DeskFile.h"
#include "sim/Machine.h"

namespace sim {

class VirtualDesk {
 public:
  // Nothing is plugged in yet.
  VirtualDesk(Machine& machine, DeskDescription description);

  void setUp();
  // Does what the timelines ask for until now. From one thread.
  void catchUp();

  const DeskDescription& description() const { return description_; }
  const std::vector<std::shared_ptr<VirtualMouse>>& devices() const { return devices_; }
  const std::vector<std::unique_ptr<LegacyDevice>>& legacy() const { return legacy_; }
  const std::vector<std::shared_ptr<RecordedDevice>>& recorded() const { return recorded_; }

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

  Machine& machine_;
  DeskDescription description_;
  std::vector<std::shared_ptr<VirtualMouse>> devices_;
  std::vector<std::unique_ptr<LegacyDevice>> legacy_;
  std::vector<std::shared_ptr<RecordedDevice>> recorded_;
  std::vector<Due> due_;  // in the order of time
  std::vector<DueLegacy> dueLegacy_;
};

}  // namespace sim
