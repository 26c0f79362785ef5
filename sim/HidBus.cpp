#include "sim/HidBus.h"

#include <algorithm>

#include "sim/Machine.h"

namespace sim {

void HidBus::plug(const std::shared_ptr<HidDevice>& device) {
  if (device->machine_) return;
  device->machine_ = &machine_;
  ++device->plugCount_;
  devices_.push_back(device);
  device->onPlugged();
}

void HidBus::unplug(const std::shared_ptr<HidDevice>& device) {
  if (!device->machine_) return;
  std::erase(devices_, device);
  device->onUnplugged();
  device->machine_ = nullptr;
  for (HidOpen* handle : std::vector(device->handles_)) {
    handle->gone = true;
    machine_.kernel().changed(*handle);
  }
  device->handles_.clear();
}

std::vector<std::wstring> HidBus::paths() const {
  std::vector<std::wstring> result;
  result.reserve(devices_.size());
  for (const auto& device : devices_) result.push_back(device->path());
  return result;
}

std::shared_ptr<HidOpen> HidBus::open(const std::wstring& path) {
  for (const auto& device : devices_) {
    if (device->path() != path) continue;
    const int number = device->opens_++;
    if (device->faults.refuseOpen && device->faults.refuseOpen(number)) return nullptr;
    return std::make_shared<HidOpen>(device);
  }
  return nullptr;
}

}  // namespace sim
