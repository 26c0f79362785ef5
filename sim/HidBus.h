// The machine's HID bus: what is plugged in, and the operating system's view of it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/Device.h"

namespace sim {

class HidBus {
 public:
  explicit HidBus(Machine& machine) : machine_(machine) {}

  // With the machine's lock held.
  void plug(const std::shared_ptr<HidDevice>& device) REQUIRES(gate);
  void unplug(const std::shared_ptr<HidDevice>& device) REQUIRES(gate);
  std::vector<std::wstring> paths() const REQUIRES(gate);
  // Null, and why: an error of the system.
  std::shared_ptr<HidOpen> open(const std::wstring& path, DWORD access, DWORD shareMode, DWORD& error) REQUIRES(gate);
  static void deliver(HidDevice& device, std::span<const std::uint8_t> report) REQUIRES(gate) {
    device.onOutput(report);
  }

 private:
  Machine& machine_;
  std::vector<std::shared_ptr<HidDevice>> devices_;  // in the order in which they were plugged in
};

}  // namespace sim
