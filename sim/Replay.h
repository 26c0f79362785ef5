// Devices out of capture files.
#pragma once

#include <string>
#include <vector>

#include "sim/devices/Recorded.h"

namespace sim {

struct Replay {
  std::vector<Recording> devices;  // in the order in which the file names them
  std::string problem;             // why not all of the file is of use; empty when it is
};

// Whether the file is a capture, by its first bytes.
bool isCapture(const std::string& path);
// Throws std::runtime_error when the file is no capture, or holds none of our devices.
Replay readReplay(const std::string& path);

}  // namespace sim
