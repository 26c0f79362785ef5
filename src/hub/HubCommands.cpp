// Queries and commands: each walks the table and forwards to the readers of the addressed devices.
#include <algorithm>

#include "hub/HidDeviceEntry.h"

CDeviceReader* CAudioHidCenter::FindLive(int device) {
  CDeviceReader* found = nullptr;
  ForEachRow([&](HidDeviceEntry& row) {
    if (!found && row.deviceNumber == device && row.reader && row.reader->IsLive()) found = row.reader.get();
  });
  return found;
}

int CAudioHidCenter::GetEffectiveDevice() {
  int newest = -1;
  ForEachRow([&](HidDeviceEntry& row) {
    if (row.reader && row.reader->IsLive()) newest = std::max(newest, static_cast<int>(row.deviceNumber));
  });
  return newest;
}

int CAudioHidCenter::GetEffectiveDevice(MouseType model) {
  int newest = -1;
  ForEachRow([&](HidDeviceEntry& row) {
    if (row.reader && row.reader->IsLive() && row.reader->GetMouseType() == model) {
      newest = std::max(newest, static_cast<int>(row.deviceNumber));
    }
  });
  return newest;
}

MouseType CAudioHidCenter::GetHidMouseType(int device) {
  const CDeviceReader* reader = FindLive(device);
  return reader ? reader->GetMouseType() : MouseType_Unknown;
}

DataChannel CAudioHidCenter::GetDeviceConnectMode(int device) {
  const CDeviceReader* reader = FindLive(device);
  return reader ? static_cast<DataChannel>(reader->channel) : DataChannel_Unknown;
}

MouseMKeyType CAudioHidCenter::GetMKeyType_Key1(int device, int which) {
  const CDeviceReader* reader = which == 1 ? FindLive(device) : nullptr;
  return reader ? static_cast<MouseMKeyType>(static_cast<int>(reader->mKeyType)) : MouseMKeyType_None;
}

// The reader holds one function: key 2 answers as key 1.
MouseMKeyType CAudioHidCenter::GetMKeyType_Key2(int device, int which) { return GetMKeyType_Key1(device, which); }

bool CAudioHidCenter::CheckDeviceConnect() {
  bool any = false;
  ForEachRow([&](HidDeviceEntry& row) { any = any || (row.reader && row.reader->IsLive()); });
  return any;
}

void CAudioHidCenter::GetValidHidList(std::vector<int>& numbers, std::vector<std::wstring>& names) {
  numbers.clear();
  names.clear();
  ForEachRow([&](HidDeviceEntry& row) {
    if (!row.reader || !row.reader->IsLive()) return;
    numbers.push_back(row.deviceNumber);
    names.push_back(GetHidName(row.reader->GetMouseType()));
  });
}

void CAudioHidCenter::SendToReady(int device, std::uint8_t command) {
  ForEachAddressed(device, [=](CDeviceReader& reader) {
    if (reader.otaStage == 0) reader.SendCommand(command, reader.channel);
  });
}

void CAudioHidCenter::AppOpen(int device) { SendToReady(device, HidCommand::AppOpen); }

void CAudioHidCenter::AppExit(int device) { SendToReady(device, HidCommand::AppExit); }

void CAudioHidCenter::GetMouseState(int device) { SendToReady(device, HidCommand::GetMouseState); }

void CAudioHidCenter::GetDongleState(int device) {
  // Asked of the receiver, whatever the reader's link.
  ForEachAddressed(device, [](CDeviceReader& reader) {
    if (reader.otaStage == 0) reader.SendCommand(HidCommand::GetDongleState, DataChannel_Receiver);
  });
}

void CAudioHidCenter::SetDpi(int device, short dpi) {
  ForEachAddressed(device, [=](CDeviceReader& reader) { reader.SetDpi(dpi); });
}

void CAudioHidCenter::SetDownloadURL(int device, unsigned char* url, int length) {
  ForEachAddressed(device, [=](CDeviceReader& reader) { reader.SetDownloadUrl(url, length); });
}

void CAudioHidCenter::getMKeyTypeList_Key1(int device) {
  ForEachAddressed(device, [](CDeviceReader& reader) { reader.RequestMKeyTypeList(); });
}

void CAudioHidCenter::getMKeyTypeList_Key2(int device) {
  ForEachAddressed(device, [](CDeviceReader& reader) { reader.RequestMKeyTypeList2(); });
}

SetMKeyTypeStatus CAudioHidCenter::setMKeyType_Key1(int device, MouseMKeyType type) {
  SetMKeyTypeStatus status = SetMKeyType_NotReady;
  ForEachAddressed(device, [&](CDeviceReader& reader) { status = reader.SetMKeyTypeKey1(type); });
  return status;
}

SetMKeyTypeStatus CAudioHidCenter::setMKeyType_Key2(int device, MouseMKeyType) {
  SetMKeyTypeStatus status = SetMKeyType_NotReady;
  ForEachAddressed(device, [&](CDeviceReader&) { status = SetMKeyType_Confirmed; });
  return status;
}

bool CAudioHidCenter::OpenHidRecord() {
  ResetHidAudio();
  CDeviceReader* reader = FindLive(workDevice);
  return reader && reader->OpenRecord();
}

bool CAudioHidCenter::CloseHidRecord() {
  bool closed = true;
  ForEachAddressed(workDevice, [&](CDeviceReader& reader) {
    // Every addressed device is asked, also after one that did not confirm.
    const bool confirmed = reader.CloseRecord();
    closed = closed && confirmed;
  });
  FlushHidAudio();
  return closed;
}

void CAudioHidCenter::StartOTA(int device, FwUpdateType type, std::string firstPath, std::string secondPath) {
  // Deliberately without a look at otaStage: a second call during an update begins anew.
  if (CDeviceReader* reader = FindLive(device)) {
    reader->StartOta(type, firstPath, secondPath, &CAudioHidCenter::FwOtaResultCallback, this);
  }
}

void CAudioHidCenter::FwOtaResultCallback(int device, DataChannel link, FwUpdateState state, void* hub) {
  static_cast<CAudioHidCenter*>(hub)->OnFwOtaResultCallback(device, link, state);
}

void CAudioHidCenter::OnFwOtaResultCallback(int device, DataChannel link, FwUpdateState state) {
  fwOtaResultCallback(device, link, state);
}
