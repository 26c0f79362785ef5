// The way to who observes what happens at the seam.
#pragma once

#include <atomic>
#include <initializer_list>

#include "VoxDevice/Observation.h"
#include "platform/os.h"

class CObserver {
 public:
  static bool IsListening() noexcept { return listening_.load(std::memory_order_relaxed); }
  // Adds thread and tick.
  static void Observe(VoxObservation observation) noexcept;
  // The client is about to be told something. device: -1 when it is of none.
  static void Told(const char* name, int device, const wchar_t* text, std::initializer_list<int> values) noexcept {
    if (!IsListening()) return;
    VoxObservation told{};
    told.kind = VoxObservation_Told;
    told.device = device;
    told.name = name;
    told.text = text;
    told.values = values.begin();
    told.valueCount = static_cast<int>(values.size());
    Observe(told);
  }

 private:
  friend class VoxObserver;
  static inline std::atomic<bool> listening_{false};
};
