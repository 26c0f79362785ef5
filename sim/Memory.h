// Memory that runs out: the n-th allocation of the library's own code fails, as the n-th call of the seam does.
//
// A program that wants this asks `lacksMemory` in its operator new. Only with the virtual clock.
#pragma once

#include <cstdint>

namespace sim {

// The n-th allocation of the library's from now on fails; 0: none does.
void failAllocation(std::uint64_t n);
// How many there were since.
std::uint64_t allocations();

// Whether an allocation fails that is just being made. Counts it, where it is the library's: threads that the library
// has started run its code, all others the client's, as far as the following do not say otherwise.
bool lacksMemory() noexcept;

// Code of the library's, called by the client, from here to the end of the scope.
class LibraryCode {
 public:
  LibraryCode() noexcept;
  ~LibraryCode();
  LibraryCode(const LibraryCode&) = delete;
  LibraryCode& operator=(const LibraryCode&) = delete;
};

// Code of somebody else's, the machine's or the client's, called by the library.
class OthersCode {
 public:
  OthersCode() noexcept;
  ~OthersCode();
  OthersCode(const OthersCode&) = delete;
  OthersCode& operator=(const OthersCode&) = delete;
};

}  // namespace sim
