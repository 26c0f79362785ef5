// The HID devices of the computer on which the machine runs, on the machine's bus: where that is Linux, and the program
// was built with hidapi (sim/linux/Hidraw.cpp); elsewhere there are none (NoHardware.cpp).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "sim/Machine.h"

namespace sim {

class Hardware {
 public:
  // For a machine on the real clock. Throws a sentence where it cannot be done.
  static std::unique_ptr<Hardware> plugInto(Machine& machine);
  // The interfaces that are there, and are plugged into nothing yet, as Windows would spell their paths.
  static std::vector<std::wstring> paths();

  // When no client is at work any more: pulls everything out, and waits for the calls that are blocked in drivers.
  virtual ~Hardware() = default;
  // The node behind an interface, as "/dev/hidraw3", when this user may not open it; else empty.
  virtual std::string deniedNode(const std::wstring& path) = 0;
  // Nodes whose report descriptor is none: nothing can be told of their interfaces.
  virtual std::vector<std::string> damagedNodes() = 0;
  // The interfaces that are open.
  virtual std::vector<std::wstring> open() = 0;
};

}  // namespace sim
