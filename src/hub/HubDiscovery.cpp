// Finding, opening and losing devices.
#include <algorithm>
#include <iterator>
#include <memory>
#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "hid/ReaderVariants.h"
#include "hub/Detection.h"
#include "hub/Hub.h"
#include "models/Models.h"
#include "support/DeviceLists.h"
#include "support/Memory.h"
#include "support/Probe.h"

namespace {

constexpr ULONG kLongQueue = 512;  // input reports; the most that Windows' class driver keeps

// Null when that cannot be done, or its reports have no length that the protocol and the reader can use.
std::shared_ptr<HidFile> Open(const std::wstring& path, DataChannel link) {
  auto file = std::make_shared<HidFile>(path, link);
  if (!file->Open(kMinReportLength, kMaxInputReportLength)) file.reset();
  return file;
}

// model: what the identifier says. settled: a device of that model has been in the row before.
std::shared_ptr<CDeviceReader> MakeReader(MouseType model, bool settled) {
  switch (SheetOf(model).firmware) {
    case FirmwareFamily::Tern:
      return std::make_shared<CHidDeviceReader_Tern>(model);
    case FirmwareFamily::Zh:
      return std::make_shared<CZhHidDeviceReader>(model);
    case FirmwareFamily::Standard:
      break;
  }
  // A Wren, whatever the identifier says: the reader settles on the true model when the device has identified itself.
  return std::make_shared<CVoxHidDeviceReader>(settled ? model : MouseType_Wren);
}

void ListHidInterfaces(std::vector<std::wstring>& paths) {
  GUID hid;
  os::HidD_GetHidGuid(&hid);
  PresentInterfaces(hid, paths);
}

}  // namespace

void CAudioHidCenter::EnumerateHidInterfaces(std::vector<std::wstring>& paths) {
  const CNotCutOff whole;
  HadMemory([&] {
    std::vector<std::wstring> present;
    ListHidInterfaces(present);
    paths.reserve(paths.size() + present.size());  // all, or none
    std::move(present.begin(), present.end(), std::back_inserter(paths));
  });
}

// Most paths are foreign, and the same as a second ago.
void CHub::OpenHidDevice(Detection& detection) {
  ListHidInterfaces(detection.paths);
  detection.foreign.resize(detection.paths.size());
  for (std::size_t i = 0; i < detection.paths.size(); ++i) {
    if (stopDetection || detection.thread.IsAsked()) return;
    const std::wstring& path = detection.paths[i];
    if (detection.foreign[i] == path) continue;
    detection.foreign[i].clear();
    if (!OpenHidInterface(detection, path)) detection.foreign[i] = path;
  }
  if (!detection.thread.IsAsked()) UpdateConnected();
}

// False when the path is none of a device of ours.
bool CHub::OpenHidInterface(Detection& detection, const std::wstring& path) {
  detection.path = NarrowPath(path);
  HidConnection connection;
  if (CAudioHidCenter::ParseUsbHidPath(detection.path, detection.identity)) {
    connection.channel = DataChannel_Usb;
  } else if (CAudioHidCenter::ParseBluetoothHidPath(detection.path, detection.identity)) {
    connection.channel = DataChannel_BluetoothLE;
  } else {
    return false;
  }
  const MouseType model = FindLegalId(detection.identity);
  if (model == MouseType_Unknown) return false;
  if (PathIsKnown(detection.path)) return true;

  // Silently: many devices have a collection that only the system may open. It is tried again at every pass.
  auto& readFile = detection.readFile;
  auto& writeFile = detection.writeFile;
  readFile = Open(path, connection.channel);
  if (readFile) {
    if ((hardening & VoxHardening_LongQueue) != 0) readFile->KeepReports(kLongQueue);
    writeFile = Open(path, connection.channel);
    if (writeFile) {
      connection.inputReportLength = writeFile->InputLength();
      connection.outputReportLength = writeFile->OutputLength();
      ConnectReader(detection, model, connection);
    } else {
      VoxMessage::Log(L"读写hid设备失败", LogType_DeviceRemoved);
    }
  }
  readFile.reset();
  writeFile.reset();
  return true;
}

void CHub::ConnectReader(Detection& detection, MouseType model, HidConnection& connection) {
  const CAutoLock lock(tableLock);
  if (detection.thread.IsAsked() || closed_) return Probe<"hub: a stop meets a device that has just been opened">();
  // The row of a device of this model that has gone, or has been closed, is taken over.
  const auto known = std::find_if(devices.begin(), devices.end(), [model](const HidDeviceEntry& row) {
    if (row.reader) return !row.reader->readThread.IsSet() && row.reader->GetMouseType() == model;
    return row.memory.model == model;
  });
  const bool settled = known != devices.end();
  if (settled) Probe<"hub: a row is taken over">();
  // All that takes memory comes first.
  leaving_.reserve(leaving_.size() + devices.size() + 1);
  const auto reader = MakeReader(model, settled);
  std::string path = detection.path;
  connection.deviceNumber = ++lastDeviceNumber;
  reader->Attach(connection, detection.readFile, detection.writeFile);
  HidDeviceEntry& row = settled ? *known : devices.emplace_back();
  if (row.reader) LoseDevice(row);
  reader->Recall(row.memory);
  reader->owner = shared_from_this();
  reader->callbackContext = this;
  reader->readerCallback = &CHub::HidDeviceReaderCallback;
  reader->disconnectCallback = &CHub::HidDeviceDisconnect;
  reader->speechLostCallback = &CHub::SpeechIsLost;
  reader->hardening = hardening;
  row.deviceNumber = connection.deviceNumber;
  row.path = std::move(path);
  row.reader = reader;
  if (!reader->Start()) LoseDevice(row);  // it is tried again at the next pass
}

bool CHub::PathIsKnown(const std::string& path) {
  const CAutoLock lock(tableLock);
  return std::any_of(devices.begin(), devices.end(), [&](const HidDeviceEntry& row) { return row.path == path; });
}

void CHub::UpdateConnected() {
  const bool connected = CheckDeviceConnect();
  if (connected == anyDeviceConnected) return;
  if (connected) {
    anyDeviceConnected = true;
  } else {
    ForgetDevices();
  }
}

// The last device has gone.
void CHub::ForgetDevices() {
  anyDeviceConnected = false;
  CVoxDeviceInfo::Instance()->ClearBluetooth();
  InitButtonState();
}

void CHub::AddBadDevice(std::string path) {
  const CAutoLock lock(tableLock);
  devices.emplace_back().path = std::move(path);
}

// The row keeps what the next device of its model takes over; its reader goes with its last thread.
void CHub::LoseDevice(HidDeviceEntry& row) {
  row.deviceNumber = -1;
  row.path.clear();  // the interface may be found and opened again
  if (!row.reader) return;
  row.memory = row.reader->Memory();
  Leave(row.reader);
  row.reader.reset();
}

void CHub::Leave(const std::shared_ptr<CDeviceReader>& reader) {
  const auto free = std::find_if(leaving_.begin(), leaving_.end(), [](const auto& left) { return left.expired(); });
  if (free != leaving_.end()) {
    *free = reader;
  } else {
    leaving_.push_back(reader);
  }
}

void CHub::HidDeviceDisconnect(int device, void* hub) { static_cast<CHub*>(hub)->OnHidDeviceDisconnect(device); }

void CHub::OnHidDeviceDisconnect(int device) {
  {
    const CAutoLock lock(tableLock);
    const auto row = std::find_if(devices.begin(), devices.end(),
                                  [device](const HidDeviceEntry& entry) { return entry.deviceNumber == device; });
    if (row != devices.end()) LoseDevice(*row);
  }

  if (ButtonHid_Left == device && ButtonState_Left == ButtonDown) {
    SetButton(Button::left, ButtonUp);
    DoubleClick.Clear();
  }
  if (ButtonHid_Right == device) SetButton(Button::right, ButtonUp);
  if (ButtonHid_Key1 == device) SetButton(Button::key1, ButtonUp);
  if (ButtonHid_Key2 == device) SetButton(Button::key2, ButtonUp);

  if (!CheckDeviceConnect()) ForgetDevices();
}
