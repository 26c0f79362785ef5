// What becomes of work for which there is no memory.
#pragma once

#include <new>

// Does `work`, whole. False when there was not the memory for it.
template <class Work>
bool HadMemory(Work&& work) {
  try {
    work();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}
