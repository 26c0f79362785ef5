// What this process holds of the system's: threads, handles, memory.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/os.h"

std::size_t threadsOfThisProcess();
// Every handle of this process to something of the same kind as `sample`; all of them for null.
std::size_t handlesLike(HANDLE sample);
// Resident, in MB.
double memoryOfThisProcess();
