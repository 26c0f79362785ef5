// Somebody who shows a mouse to whoever looks.
#pragma once

#include "sim/Machine.h"
#include "sim/devices/VirtualMouse.h"

namespace sim {

// Every 5 seconds holds the voice key for 2, while the mouse hears a tone of 440 Hz; or for 2 seconds longer than it
// hears `speech`; so often as begins within `limit`. The mouse is plugged in.
void demonstrate(Machine& machine, VirtualMouse& mouse, Time limit, std::vector<std::int16_t> speech = {});

}  // namespace sim
