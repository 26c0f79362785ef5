#include "support/Observer.h"

#include "support/CallbackSlot.h"

namespace {

CallbackSlot<VoxObserver::Callback> registered;

}  // namespace

void VoxObserver::SetCallback(Callback callback, void* context) noexcept {
  if (!callback) CObserver::listening_ = false;
  registered.Set(callback, context);
  if (callback) CObserver::listening_ = true;
}

void CObserver::Observe(VoxObservation observation) noexcept {
  observation.thread = os::GetCurrentThreadId();
  observation.tick = os::GetTickCount();
  const auto pair = registered.Get();
  if (!pair.function) return;
  if (const CClientCode inside; inside) pair.function(observation, pair.context);
}
