// Fibers on Windows: the system's own.
#include <windows.h>

#include <cstdlib>

#include "sim/Fiber.h"

namespace sim {
namespace {

constexpr std::size_t kStackBytes = 256 * 1024;  // reserved; committed as it is used

}  // namespace

struct Fiber::Impl {
  void* fiber = nullptr;
  bool owned = false;  // not the thread's own
  Entry entry = nullptr;
  void* argument = nullptr;

  static void WINAPI start(void* impl) {
    auto* self = static_cast<Impl*>(impl);
    self->entry(self->argument);
    std::abort();  // an entry ends by switching away for good
  }
};

Fiber::Fiber() : impl_(std::make_unique<Impl>()) {
  // A thread becomes a fiber once, and stays one for the machines that follow.
  static thread_local void* const own = ConvertThreadToFiber(nullptr);
  impl_->fiber = own;
  if (!impl_->fiber) std::abort();
}

Fiber::Fiber(Entry entry, void* argument) : impl_(std::make_unique<Impl>()) {
  impl_->entry = entry;
  impl_->argument = argument;
  impl_->owned = true;
  impl_->fiber = CreateFiberEx(0, kStackBytes, 0, &Impl::start, impl_.get());
  if (!impl_->fiber) std::abort();
}

Fiber::~Fiber() {
  if (impl_->owned) DeleteFiber(impl_->fiber);
}

void Fiber::switchTo(Fiber&, Fiber& to, bool) { SwitchToFiber(to.impl_->fiber); }

}  // namespace sim
