// The registry of the device's identity, which the library fills and the client reads.
#pragma once

#include <mutex>
#include <string>

#include "VoxDevice/Api.h"

// Every operation may be called from any thread.
class VOXDEVICE_API CVoxDeviceInfo {
 public:
  static CVoxDeviceInfo* Instance();

  bool BluetoothIdIsEmpty() const;
  std::wstring GetBluetoothID() const;
  std::wstring GetBluetoothName() const;
  void SetBluetoothID(const wchar_t* id);
  void SetBluetoothName(const wchar_t* name);
  void ClearBluetooth();
  // The identity of the older device; "no_ID" when there is none.
  std::wstring GetFormerDeviceID() const;
  void SetFormerDeviceID(const wchar_t* id);
  // The name of the older device's sound card.
  std::wstring GetFormerDeviceName() const;
  void SetFormerDeviceName(const wchar_t* name);

 private:
  mutable std::mutex mutex_;
  std::wstring bluetoothId_;
  std::wstring bluetoothName_;
  std::wstring formerDeviceId_;
  std::wstring formerDeviceName_;
};
