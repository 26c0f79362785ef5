#include "bench/Allocations.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::int64_t> count{0};

}  // namespace

std::int64_t allocations() { return count; }
bool (*failsAllocation)() noexcept = nullptr;

// Every form that can meet another one's memory: the standard library takes a buffer with the nothrow form and gives it
// back with the plain one. The aligned forms are pairs of their own, and nothing here is aligned beyond the usual.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++count;
  if (failsAllocation && failsAllocation()) return nullptr;
  return std::malloc(size == 0 ? 1 : size);
}
void* operator new(std::size_t size) {
  if (void* memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return operator new(size, std::nothrow); }

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
