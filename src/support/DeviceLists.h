// The system's lists of present devices.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/os.h"

// Makes `paths` the paths of the present interfaces of a class, in the system's order. Its strings are written over: a
// list that is asked for again and again is not allocated again.
// stopAtFailure: an entry that cannot be read ends the list, instead of being left out. most: bytes that an entry's
// detail may have; a longer one cannot be read.
void PresentInterfaces(const GUID& interfaceClass, std::vector<std::wstring>& paths, bool stopAtFailure = false,
                       std::size_t most = static_cast<std::size_t>(-1));

// The present devices of a setup class; each with its hardware ids, run together without their terminators.
class DeviceSet {
 public:
  explicit DeviceSet(const GUID& setupClass);
  ~DeviceSet();
  DeviceSet(const DeviceSet&) = delete;
  DeviceSet& operator=(const DeviceSet&) = delete;

  // False behind the last device.
  bool Select(DWORD index);
  // False when the selected device tells none.
  bool HardwareIds(std::string& ids);

 private:
  HDEVINFO list_;
  SP_DEVINFO_DATA device_{};
};

// Device paths are plain ASCII.
std::string NarrowPath(const std::wstring& path);
