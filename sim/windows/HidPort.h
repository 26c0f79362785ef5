// Plugs virtual devices of the simulated machine into the HID stack of the Windows that this program runs on.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "sim/Machine.h"
#include "sim/devices/VirtualMouse.h"

// The folder of this program, with a backslash at its end.
std::wstring programFolder();

// The device is plugged into the simulated machine, where it lives, and its reports are carried to and from the driver
// of driver/VirtualHid.c. What Windows sees is a HID device with the same interface path. USB devices only.
class HidPort {
 public:
  HidPort(sim::Machine& machine, std::shared_ptr<sim::VirtualMouse> device);
  // Unplugs.
  ~HidPort();
  HidPort(const HidPort&) = delete;
  HidPort& operator=(const HidPort&) = delete;

  // Throws when Windows does not take the device.
  void plug();
  void unplug();

 private:
  void carryInput();
  void carryOutput();

  sim::Machine& machine_;
  const std::shared_ptr<sim::VirtualMouse> device_;
  std::wstring name_;        // as "vid_6d8c&pid_6137"
  std::wstring deviceNode_;  // as "root\vid_6d8c&pid_6137\7&1a2b3c4d&0&0000"
  HANDLE inputPipe_ = INVALID_HANDLE_VALUE;
  HANDLE outputPipe_ = INVALID_HANDLE_VALUE;
  HANDLE simulated_ = INVALID_HANDLE_VALUE;  // on the simulated machine
  HDEVINFO node_ = INVALID_HANDLE_VALUE;
  SP_DEVINFO_DATA nodeData_{};
  std::optional<sim::Machine::Spawned> inputCarrier_;
  std::thread outputCarrier_;
};
