// How often this program has allocated memory.
#pragma once

#include <cstdint>

std::int64_t allocations();
