// Clients that call anything at any moment, on a hub whose devices misbehave and which ends at any moment.
#pragma once

#include "tests/Desk.h"
#include "tools/explore/Explore.h"

// Expects that every call keeps its bound, that nobody is told anything after the end, and that nothing is left. On the
// real clock the seed draws what is done, not the schedule, and the hub is destroyed only when its clients have gone,
// since a call may not begin later.
void hubClients(Trial& random);
