// The machine's HID bus: what is plugged in, and the operating system's view of it.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
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
  // What the write has to wait for; null: nothing.
  static std::shared_ptr<HidTransfer> deliver(HidDevice& device, std::span<const std::uint8_t> report) REQUIRES(gate) {
    return device.take(report);
  }
  // Who brings devices of its own is asked for them, without the lock, before the system's list is made.
  void setSource(std::function<void()> look) { look_ = std::move(look); }
  // Without the lock.
  void askSource();

 private:
  Machine& machine_;
  std::function<void()> look_;
  std::vector<std::shared_ptr<HidDevice>> devices_;  // in the order in which they were plugged in
};

}  // namespace sim
