#include "VoxDevice/VoxNet.h"

#include "support/Operation.h"

CVoxDeviceInfo* CVoxDeviceInfo::Instance() {
  static CVoxDeviceInfo instance;
  return &instance;
}

bool CVoxDeviceInfo::BluetoothIdIsEmpty() const {
  const CMutexGuard lock(mutex_);
  return bluetoothId_.empty();
}

std::wstring CVoxDeviceInfo::GetBluetoothID() const {
  const CMutexGuard lock(mutex_);
  return bluetoothId_;
}

std::wstring CVoxDeviceInfo::GetBluetoothName() const {
  const CMutexGuard lock(mutex_);
  return bluetoothName_;
}

void CVoxDeviceInfo::SetBluetoothID(const wchar_t* id) {
  const CMutexGuard lock(mutex_);
  bluetoothId_ = id;
}

void CVoxDeviceInfo::SetBluetoothName(const wchar_t* name) {
  const CMutexGuard lock(mutex_);
  bluetoothName_ = name;
}

void CVoxDeviceInfo::ClearBluetooth() {
  const CMutexGuard lock(mutex_);
  bluetoothId_.clear();
  bluetoothName_.clear();
}

std::wstring CVoxDeviceInfo::GetFormerDeviceName() const {
  const CMutexGuard lock(mutex_);
  return formerDeviceName_;
}

void CVoxDeviceInfo::SetFormerDeviceName(const wchar_t* name) {
  const CMutexGuard lock(mutex_);
  formerDeviceName_ = name;
}

std::wstring CVoxDeviceInfo::GetFormerDeviceID() const {
  const CMutexGuard lock(mutex_);
  return formerDeviceId_;
}

void CVoxDeviceInfo::SetFormerDeviceID(const wchar_t* id) {
  const CMutexGuard lock(mutex_);
  formerDeviceId_ = id;
}
