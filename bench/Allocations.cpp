#include "bench/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::int64_t> count{0};

void* take(std::size_t size) noexcept {
  ++count;
  return std::malloc(size);
}

}  // namespace

std::int64_t allocations() { return count; }

// The forms for arrays call these. The nothrow form is here, too: some standard libraries take memory with the one and
// give it back with the other.
void* operator new(std::size_t size) {
  if (void* memory = take(size)) return memory;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return take(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
