#include "sim/Memory.h"

#include "sim/Machine.h"

namespace sim {
namespace {

std::uint64_t counted = 0;
std::uint64_t failing = 0;

void change(int by) noexcept {
  if (Thread* running = Machine::runningThread()) running->othersCode += by;
}

}  // namespace

void failAllocation(std::uint64_t n) {
  counted = 0;
  failing = n;
}

std::uint64_t allocations() { return counted; }

bool lacksMemory() noexcept {
  const Thread* running = Machine::runningThread();
  return running && running->othersCode == 0 && ++counted == failing;
}

LibraryCode::LibraryCode() noexcept { change(-1); }
LibraryCode::~LibraryCode() { change(1); }
OthersCode::OthersCode() noexcept { change(1); }
OthersCode::~OthersCode() { change(-1); }

}  // namespace sim

// What the library tells, in builds for it, when it calls the client's code and when that has returned.
extern "C" void voxClientCode(int change) noexcept { sim::change(change); }
