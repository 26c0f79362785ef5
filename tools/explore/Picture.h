// A run of the simulated machine to look at.
#pragma once

#include <string>

// One HTML page, which needs nothing from elsewhere: a lane for each thread and each device, a row for each line of the
// machine's log, virtual time downwards.
std::string picture(const std::string& title, const std::string& log);
