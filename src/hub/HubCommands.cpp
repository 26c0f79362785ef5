// Queries and commands: each walks the table and forwards to the readers of the addressed devices.
#include <algorithm>

#include "hub/Hub.h"
#include "support/Memory.h"

namespace {

// Of the two seconds in which everything ends: what is left for the readers when AppExit does not come to its end.
constexpr DWORD kForReaders = 200;  // ms
constexpr DWORD kForOneExit = 50;   // ms

// Whether the row is live, and this number addresses it; -1: any.
bool IsLive(const HidDeviceEntry& row, int device) {
  return row.reader && row.reader->IsLive() && (device == -1 || row.deviceNumber == device);
}

}  // namespace

template <class Visit>
void CHub::ForEachLive(int device, Visit visit) {
  for (HidDeviceEntry& row : devices) {
    if (IsLive(row, device)) visit(row);
  }
}

// The same without the lock, for what takes its time. Needs no memory.
template <class Call>
void CHub::ForEachAddressed(int device, Call call) {
  for (std::size_t i = 0;; ++i) {
    std::shared_ptr<CDeviceReader> reader;
    {
      const CAutoLock lock(tableLock);
      if (i >= devices.size()) return;
      if (IsLive(devices[i], device)) reader = devices[i].reader;
    }
    if (reader) call(*reader);
  }
}

std::shared_ptr<CDeviceReader> CHub::FindLive(int device) {
  std::shared_ptr<CDeviceReader> found;
  if (device == -1) return found;
  const CAutoLock lock(tableLock);
  ForEachLive(device, [&](HidDeviceEntry& row) {
    if (!found) found = row.reader;
  });
  return found;
}

// model: any, when it is not known.
int CHub::GetEffectiveDevice(MouseType model) {
  int newest = -1;
  const CAutoLock lock(tableLock);
  ForEachLive(-1, [&](HidDeviceEntry& row) {
    if (model == MouseType_Unknown || row.reader->GetMouseType() == model) newest = std::max(newest, row.deviceNumber);
  });
  return newest;
}

bool CHub::GetSpeechCounts(int device, VoxSpeechCounts& counts) {
  const auto reader = FindLive(device);
  if (reader) counts = reader->SpeechCounts();
  return reader != nullptr;
}

MouseType CHub::GetHidMouseType(int device) {
  const auto reader = FindLive(device);
  return reader ? reader->GetMouseType() : MouseType_Unknown;
}

DataChannel CHub::GetDeviceConnectMode(int device) {
  const auto reader = FindLive(device);
  return reader ? static_cast<DataChannel>(reader->channel) : DataChannel_Unknown;
}

MouseMKeyType CHub::GetMKeyType_Key1(int device, int which) {
  const auto reader = which == 1 ? FindLive(device) : nullptr;
  return reader ? static_cast<MouseMKeyType>(static_cast<int>(reader->mKeyType)) : MouseMKeyType_None;
}

bool CHub::CheckDeviceConnect() { return GetEffectiveDevice() != -1; }

void CHub::GetValidHidList(std::vector<int>& numbers, std::vector<std::wstring>& names) {
  numbers.clear();
  names.clear();
  const bool had = HadMemory([&] {
    const CAutoLock lock(tableLock);
    ForEachLive(-1, [&](HidDeviceEntry& row) {
      numbers.push_back(row.deviceNumber);
      names.push_back(CAudioHidCenter::GetHidName(row.reader->GetMouseType()));
    });
  });
  if (had) return;
  numbers.clear();
  names.clear();
}

// ---- Commands. One deadline for all the devices that a command addresses. ----

void CHub::SendToReady(int device, std::uint8_t command) {
  const CDeadline deadline(CDeviceReader::kWritePatience);
  ForEachAddressed(device, [&](CDeviceReader& reader) {
    if (reader.otaStage == 0) reader.SendCommand(command, reader.channel, deadline);
  });
}

void CHub::GetDongleState(int device) {
  const CDeadline deadline(CDeviceReader::kWritePatience);
  ForEachAddressed(device, [&](CDeviceReader& reader) {
    // Asked of the receiver, whatever the reader's link.
    if (reader.otaStage == 0) reader.SendCommand(HidCommand::GetDongleState, DataChannel_Receiver, deadline);
  });
}

void CHub::SetDpi(int device, short dpi) {
  const CDeadline deadline(CDeviceReader::kWritePatience);
  ForEachAddressed(device, [&](CDeviceReader& reader) { reader.SetDpi(dpi, deadline); });
}

void CHub::SetDownloadURL(int device, unsigned char* url, int length) {
  const CDeadline deadline(CDeviceReader::kWritePatience);
  ForEachAddressed(device, [&](CDeviceReader& reader) { reader.SetDownloadUrl(url, length, deadline); });
}

void CHub::getMKeyTypeList_Key1(int device) {
  const CDeadline deadline(CDeviceReader::kWritePatience);
  ForEachAddressed(device, [&](CDeviceReader& reader) { reader.RequestMKeyTypeList(deadline); });
}

void CHub::getMKeyTypeList_Key2(int device) {
  ForEachAddressed(device, [](CDeviceReader& reader) { reader.RequestMKeyTypeList2(); });
}

SetMKeyTypeStatus CHub::setMKeyType_Key1(int device, MouseMKeyType type) {
  SetMKeyTypeStatus status = SetMKeyType_NotReady;
  ForEachAddressed(device, [&](CDeviceReader& reader) {
    status = reader.SetMKeyTypeKey1(type, CDeadline(CDeviceReader::kWritePatience));
  });
  return status;
}

SetMKeyTypeStatus CHub::setMKeyType_Key2(int device, MouseMKeyType) {
  SetMKeyTypeStatus status = SetMKeyType_NotReady;
  ForEachAddressed(device, [&](CDeviceReader&) { status = SetMKeyType_Confirmed; });
  return status;
}

// One that is not written by the time that the readers are ended is lost. So a moment is left for each device, also
// when another one does not take its.
void CHub::SendAppExit(CDeadline deadline) {
  const CDeadline together(deadline.Before(kForReaders).Left(CDeviceReader::kWritePatience));
  ForEachAddressed(-1, [&](CDeviceReader& reader) {
    const CDeadline its(std::max(together.Left(), deadline.Left(kForOneExit)));
    if (reader.otaStage == 0) reader.SendCommand(HidCommand::AppExit, reader.channel, its);
  });
}

bool CHub::OpenHidRecord() {
  ResetHidAudio();
  const auto reader = FindLive(workDevice);
  return reader && reader->OpenRecord(CDeadline(CDeviceReader::kWritePatience));
}

bool CHub::CloseHidRecord() {
  bool closed = true;
  const CDeadline deadline(CDeviceReader::kWritePatience);
  ForEachAddressed(workDevice, [&](CDeviceReader& reader) {
    // Every addressed device is asked, also after one that did not confirm.
    const bool confirmed = reader.CloseRecord(deadline);
    closed = closed && confirmed;
  });
  FlushHidAudio();
  return closed;
}

void CHub::StartOTA(int device, FwUpdateType type, const std::string& firstPath, const std::string& secondPath) {
  // Deliberately without a look at otaStage: a second call during an update begins anew.
  if (const auto reader = FindLive(device)) {
    reader->StartOta(device, type, firstPath, secondPath, &CHub::FwOtaResultCallback, shared_from_this());
  }
}

void CHub::FwOtaResultCallback(int device, DataChannel link, FwUpdateState state, void* hub) {
  static_cast<CHub*>(hub)->OnFwOtaResultCallback(device, link, state);
}

void CHub::OnFwOtaResultCallback(int device, DataChannel link, FwUpdateState state) {
  fwOtaResultCallback(device, link, state);
}
