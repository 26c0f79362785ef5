// The real devices of a computer, plugged into the simulated machine.
#pragma once

#include <memory>

#include "Desk.h"
#include "sim/Machine.h"

// Throws where that cannot be done.
std::unique_ptr<Desk> makeHardwareDesk();
// As Desk::leftOpen, of a machine.
std::string leftOpenOn(sim::Machine& machine, const LeftOpen& byDesign);
