// The flat interface takes arguments from programs in other languages: any call with any of them, on a desk with a
// Wren.
#include <cstdlib>

#include "bindings/c/Objects.h"
#include "fuzz/AnyCall.h"
#include "sim/Machine.h"
#include "sim/devices/Mice.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  using namespace std::chrono_literals;
  const unsigned char* const end = data + std::min<std::size_t>(size, 400);
  {
    sim::Machine machine;
    machine.plug(sim::makeMouse("Wren", sim::Link::usb, "7&1&0&0000"));
    std::atomic<vox_handle> handles[AnyCall::kHandles] = {vox_hub_create()};
    vox_hub_open(handles[0]);
    AnyCall calls([&]() -> std::uint64_t { return data == end ? 0 : *data++; }, handles);
    while (data != end) {
      switch (*data++ % 8) {
        case 0:
          calls.create();
          break;
        case 1:
          machine.sleep(700ms);
          break;
        default:
          if (!calls.call()) std::abort();
      }
    }
    for (auto& handle : handles) vox_destroy(handle);
    if (machine.balance().threads != 0) std::abort();
    flat::Restart();
  }
  return 0;
}
