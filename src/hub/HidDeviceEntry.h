// One row of the device table.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "VoxDevice/AudioHidCenter.h"
#include "hid/DeviceReader.h"

// Who may touch what: the discovery thread appends rows and alone reads and writes `path`; a reader thread whose device
// goes sets the number to -1 and marks the path as emptied; everybody reads the number and the reader. A row and its
// reader stay until the hub is released.
struct HidDeviceEntry {
  Shared<int> deviceNumber{-1};
  std::string path;
  Shared<bool> pathEmptied{false};
  std::shared_ptr<CDeviceReader> reader;  // null for a path that must not be opened
  std::atomic<HidDeviceEntry*> next{nullptr};
};

template <class Visit>
void CAudioHidCenter::ForEachRow(Visit visit) {
  for (HidDeviceEntry* row = devices; row; row = row->next) visit(*row);
}

template <class Visit>
void CAudioHidCenter::ForEachAddressed(int device, Visit visit) {
  ForEachRow([&](HidDeviceEntry& row) {
    if (row.reader && row.reader->IsLive() && (device == -1 || row.deviceNumber == device)) visit(*row.reader);
  });
}
