#include "sim/Device.h"

#include <algorithm>
#include <utility>

#include "sim/Machine.h"

namespace sim {
namespace {

constexpr const char* kHidInterfaceClass = "{4d1e55b2-f16f-11cf-88cb-001111000030}";

std::string twoDigits(const char* name, int number) {
  static constexpr const char* digits = "0123456789abcdef";
  return std::string(name) + digits[number >> 4 & 15] + digits[number & 15];
}

std::string collectionPart(int collection) { return collection > 0 ? twoDigits("&col", collection) : ""; }

std::wstring widen(const std::string& text) { return {text.begin(), text.end()}; }

}  // namespace

HidDevice::HidDevice(std::wstring path, std::uint16_t vendorId, std::uint16_t productId, std::uint16_t input,
                     std::uint16_t output)
    : inputLength(input), outputLength(output), vendor(vendorId), product(productId), path_(std::move(path)) {}

void HidDevice::sendInput(std::span<const std::uint8_t> report) {
  if (!machine_) return;
  Bytes padded(report.begin(), report.end());
  padded.resize(inputLength);
  for (HidOpen* handle : handles_) {
    if (handle->reports.size() >= handle->reportsKept) handle->reports.pop_front();
    handle->reports.push_back(padded);
    machine_->kernel().changed(*handle);
  }
}

void HidDevice::after(Time delay, std::function<void()> action) {
  if (!machine_) return;
  machine_->kernel().after(delay, [weak = weak_from_this(), plug = plugCount_, action = std::move(action)] {
    const auto self = weak.lock();
    if (self && self->machine_ && self->plugCount_ == plug) action();
  });
}

void HidDevice::loseHandles() {
  for (HidOpen* handle : std::exchange(handles_, {})) {
    handle->gone = true;
    if (machine_) machine_->kernel().changed(*handle);
  }
}

void HidDevice::loseWrites() {
  for (HidOpen* handle : std::exchange(handles_, {})) handle->writesFail = true;
}

HidOpen::HidOpen(std::shared_ptr<HidDevice> opened, DWORD wanted, DWORD shared)
    : device(std::move(opened)), access(wanted), shareMode(shared) {
  device->handles_.push_back(this);
}

void HidTransfer::finish(Kernel& kernel, DWORD error) {
  done_ = true;
  error_ = error;
  kernel.changed(*this);
}

HidOpen::~HidOpen() { leave(); }

void HidOpen::leave() {
  if (std::erase(device->handles_, this) != 0 && device->handles_.empty()) device->onLastClosed();
}

void HidOpen::handleClosed(Kernel& kernel) {
  if (calls > 0) kernel.misused("CloseHandle: a read or a write is in progress");
  leave();
  gone = true;
  reports.clear();
  kernel.changed(*this);
}

std::wstring usbHidPath(const std::string& vendor, const std::string& product, const std::string& instance,
                        int interfaceNumber, int collection) {
  std::string path = "\\\\?\\hid#vid_" + vendor + "&pid_" + product;
  if (interfaceNumber >= 0) path += twoDigits("&mi_", interfaceNumber);
  return widen(path + collectionPart(collection) + "#" + instance + "#" + kHidInterfaceClass);
}

std::wstring bleHidPath(const std::string& vendor, const std::string& product, const std::string& instance,
                        const std::string& address, int collection) {
  return widen("\\\\?\\hid#{00001812-0000-1000-8000-00805f9b34fb}_dev_vid&" + vendor + "_pid&" + product +
               "_rev&0001_" + address + collectionPart(collection) + "#" + instance + "#" + kHidInterfaceClass);
}

}  // namespace sim
