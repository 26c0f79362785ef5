// How often this program has allocated memory, and whether it gets any.
#pragma once

#include <cstdint>

std::int64_t allocations();

// Asked at each allocation: one for which it says true fails. Null: none does.
extern bool (*failsAllocation)() noexcept;
