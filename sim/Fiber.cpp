#include "sim/Fiber.h"

#include <sys/mman.h>
#include <ucontext.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define SIM_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIM_ASAN 1
#endif
#endif

#ifdef SIM_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

namespace sim {
namespace {

constexpr std::size_t kStackBytes = 256 * 1024;
constexpr std::size_t kGuardBytes = 16 * 1024;

// Stacks are mapped once and used again: a machine starts and ends threads by the thousand.
class StackPool {
 public:
  void* take() {
    if (free_.empty()) {
      void* base = mmap(nullptr, kStackBytes + kGuardBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (base == MAP_FAILED) std::abort();
      mprotect(base, kGuardBytes, PROT_NONE);
      return static_cast<char*>(base) + kGuardBytes;
    }
    void* stack = free_.back();
    free_.pop_back();
    return stack;
  }
  void give(void* stack) {
#ifdef SIM_ASAN
    __asan_unpoison_memory_region(stack, kStackBytes);  // the abandoned frames left their red zones
#endif
    free_.push_back(stack);
  }
  ~StackPool() {
    for (void* stack : free_) munmap(static_cast<char*>(stack) - kGuardBytes, kStackBytes + kGuardBytes);
  }

 private:
  std::vector<void*> free_;
};

StackPool& pool() {
  static StackPool instance;
  return instance;
}

}  // namespace

struct Fiber::Impl {
  ucontext_t context{};
  void* stack = nullptr;
  Entry entry = nullptr;
  void* argument = nullptr;
#ifdef SIM_ASAN
  void* fakeStack = nullptr;
  const void* bottom = nullptr;
  std::size_t size = 0;
#endif

  static void start(unsigned high, unsigned low) {
    auto* self = reinterpret_cast<Impl*>((static_cast<std::uintptr_t>(high) << 32) | low);
    arrive(*self);
    self->entry(self->argument);
    std::abort();  // an entry ends by switching away for good
  }

  // Runs on the new stack right after a switch.
  static void arrive([[maybe_unused]] Impl& self) {
#ifdef SIM_ASAN
    const void* bottom = nullptr;
    std::size_t size = 0;
    __sanitizer_finish_switch_fiber(self.fakeStack, &bottom, &size);
    if (leaving && leaving->bottom == nullptr) {
      leaving->bottom = bottom;
      leaving->size = size;
    }
#endif
  }
  static inline Impl* leaving = nullptr;
};

Fiber::Fiber() : impl_(std::make_unique<Impl>()) {}

Fiber::Fiber(Entry entry, void* argument) : impl_(std::make_unique<Impl>()) {
  impl_->stack = pool().take();
  impl_->entry = entry;
  impl_->argument = argument;
#ifdef SIM_ASAN
  impl_->bottom = impl_->stack;
  impl_->size = kStackBytes;
#endif
  getcontext(&impl_->context);
  impl_->context.uc_stack.ss_sp = impl_->stack;
  impl_->context.uc_stack.ss_size = kStackBytes;
  impl_->context.uc_link = nullptr;
  const auto address = reinterpret_cast<std::uintptr_t>(impl_.get());
  makecontext(&impl_->context, reinterpret_cast<void (*)()>(&Impl::start), 2, static_cast<unsigned>(address >> 32),
              static_cast<unsigned>(address & 0xFFFFFFFFU));
}

Fiber::~Fiber() {
  if (impl_->stack) pool().give(impl_->stack);
}

void Fiber::switchTo(Fiber& from, Fiber& to, [[maybe_unused]] bool fromEnds) {
  Impl& out = *from.impl_;
  Impl& in = *to.impl_;
  Impl::leaving = &out;
#ifdef SIM_ASAN
  __sanitizer_start_switch_fiber(fromEnds ? nullptr : &out.fakeStack, in.bottom, in.size);
#endif
  swapcontext(&out.context, &in.context);
  Impl::arrive(out);
}

}  // namespace sim
