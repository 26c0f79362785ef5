// Owners for what COM and Core Audio hand out.
#pragma once

#include <utility>

#include "platform/os.h"

inline constexpr GUID kClassDeviceEnumerator{
    0xbcde0395, 0xe52f, 0x467c, {0x8e, 0x3d, 0xc4, 0x57, 0x92, 0x91, 0x69, 0x2e}};
inline constexpr GUID kIidDeviceEnumerator{
    0xa95664d2, 0x9614, 0x4f35, {0xa7, 0x46, 0xde, 0x8d, 0xb6, 0x36, 0x17, 0xe6}};
inline constexpr GUID kIidAudioClient{0x1cb9ad4c, 0xdbfa, 0x4c32, {0xb1, 0x78, 0xc2, 0xf5, 0x68, 0xa7, 0x03, 0xb2}};
inline constexpr GUID kIidAudioCaptureClient{
    0xc8adbd64, 0xe71e, 0x48a0, {0xa4, 0xde, 0x18, 0x5c, 0x39, 0x5c, 0xd3, 0x17}};
inline constexpr GUID kIidEndpointVolume{0x5cdf2c82, 0x841e, 0x4546, {0x97, 0x22, 0x0c, 0xf7, 0x40, 0x78, 0x22, 0x9a}};
inline constexpr GUID kIidSessionManager{0xbfa971f1, 0x4d5e, 0x40bb, {0x93, 0x5e, 0x96, 0x70, 0x39, 0xbf, 0xbe, 0xe4}};
inline constexpr PROPERTYKEY kKeyFriendlyName{
    {0xa45c254e, 0xdf1c, 0x4efd, {0x80, 0x20, 0x67, 0xd1, 0x46, 0xa8, 0x50, 0xe0}}, 14};

// One reference to a COM object.
template <class Interface>
class ComPtr {
 public:
  ComPtr() = default;
  ~ComPtr() { Reset(); }
  ComPtr(const ComPtr&) = delete;
  ComPtr& operator=(const ComPtr&) = delete;

  Interface* operator->() const { return object_; }
  Interface* Get() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }
  // For a call that hands a reference out.
  Interface** Put() {
    Reset();
    return &object_;
  }
  void** PutVoid() { return reinterpret_cast<void**>(Put()); }
  void Reset() {
    if (Interface* object = std::exchange(object_, nullptr)) object->Release();
  }

 private:
  Interface* object_ = nullptr;
};

// COM on this thread for a scope. A failure is not balanced: that would take COM from whoever has initialised it.
class ComApartment {
 public:
  ComApartment() : result_(os::CoInitialize(nullptr)) {}
  ~ComApartment() {
    if (Ok()) os::CoUninitialize();
  }
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
  bool Ok() const { return SUCCEEDED(result_); }

 private:
  const HRESULT result_;
};

inline HRESULT MakeDeviceEnumerator(ComPtr<IMMDeviceEnumerator>& enumerator) {
  return os::CoCreateInstance(kClassDeviceEnumerator, nullptr, CLSCTX_ALL, kIidDeviceEnumerator, enumerator.PutVoid());
}
