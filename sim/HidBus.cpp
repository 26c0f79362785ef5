#include "sim/HidBus.h"

#include <algorithm>

#include "sim/Machine.h"

namespace sim {
namespace {

// Whether one who shares so much lets another have this access.
bool shares(DWORD shareMode, DWORD access) {
  const bool reads = (access & (GENERIC_READ | FILE_READ_DATA)) != 0;
  const bool writes = (access & GENERIC_WRITE) != 0;
  return (!reads || (shareMode & FILE_SHARE_READ) != 0) && (!writes || (shareMode & FILE_SHARE_WRITE) != 0);
}

}  // namespace

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
  device->loseHandles();
  device->machine_ = nullptr;
}

void HidBus::askSource() {
  std::function<void()> look;
  machine_.locked([&] { look = look_; });
  if (look) look();
}

std::vector<std::wstring> HidBus::paths() const {
  std::vector<std::wstring> result;
  result.reserve(devices_.size());
  for (const auto& device : devices_) result.push_back(device->path());
  return result;
}

std::shared_ptr<HidOpen> HidBus::open(const std::wstring& path, DWORD access, DWORD shareMode, DWORD& error) {
  for (const auto& device : devices_) {
    if (device->path() != path) continue;
    const int number = device->opens_++;
    error = ERROR_ACCESS_DENIED;
    if (device->faults.refuseOpen && device->faults.refuseOpen(number)) return nullptr;
    error = ERROR_SHARING_VIOLATION;
    for (const HidOpen* other : device->handles_) {
      if (!shares(other->shareMode, access) || !shares(shareMode, other->access)) return nullptr;
    }
    auto file = std::make_shared<HidOpen>(device, access, shareMode);
    file->opening = device->onOpened();
    return file;
  }
  return nullptr;
}

}  // namespace sim
