// Finding, opening and losing devices.
#include <cstddef>
#include <memory>
#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "hid/ReaderVariants.h"
#include "hub/HidDeviceEntry.h"
#include "support/DeviceLists.h"
#include "support/HidFile.h"

namespace {

// Reports of a length that the protocol and the reader can use.
bool IsUsable(HidFile& file) { return file.Check(kMinReportLength) && file.InputLength() <= kMaxInputReportLength; }

std::shared_ptr<CDeviceReader> MakeReader(MouseType model) {
  switch (model) {
    case MouseType_Tern:
      return std::make_shared<CHidDeviceReader_Tern>();
    case MouseType_HeronPlus:
      return std::make_shared<CZhHidDeviceReader>(MouseType_HeronPlus);
    default:
      // Whatever the identifier says: the reader settles on the true model when the device has identified itself.
      return std::make_shared<CVoxHidDeviceReader>(MouseType_Wren);
  }
}

}  // namespace

void CAudioHidCenter::EnumerateHidInterfaces(std::vector<std::wstring>& paths) {
  GUID hid;
  os::HidD_GetHidGuid(&hid);
  const std::vector<std::wstring> present = PresentInterfaces(hid);
  paths.insert(paths.end(), present.begin(), present.end());
}

void CAudioHidCenter::OpenHidDevice(const std::vector<std::wstring>& paths) {
  for (const std::wstring& path : paths) {
    if (stopDetection) return;
    OpenHidInterface(path);
  }
  UpdateConnected();
}

void CAudioHidCenter::OpenHidInterface(const std::wstring& path) {
  const std::string narrow = NarrowPath(path);
  HidPathIdentity identity;
  HidConnection connection;
  if (ParseUsbHidPath(narrow, identity)) {
    connection.channel = DataChannel_Usb;
  } else if (ParseBluetoothHidPath(narrow, identity)) {
    connection.channel = DataChannel_BluetoothLE;
  } else {
    return;
  }
  const MouseType model = FindLegalId(identity);
  if (model == MouseType_Unknown || PathIsKnown(narrow)) return;

  // Silently: many devices have a collection that only the system may open. It is tried again at every pass.
  HidFile readFile(path);
  if (!IsUsable(readFile)) return;
  HidFile writeFile(path);
  if (!IsUsable(writeFile)) {
    VoxMessage::Log(L"读写hid设备失败", LogType_DeviceRemoved);
    return;
  }
  connection.deviceNumber = ++lastDeviceNumber;
  connection.inputReportLength = writeFile.InputLength();
  connection.outputReportLength = writeFile.OutputLength();
  connection.readHandle = readFile.Give();
  connection.writeHandle = writeFile.Give();
  ConnectReader(model, narrow, connection);
}

void CAudioHidCenter::ConnectReader(MouseType model, const std::string& path, HidConnection& connection) {
  std::shared_ptr<CDeviceReader> reader;
  ForEachRow([&](HidDeviceEntry& row) {
    if (reader || !row.reader || !row.reader->IsIdle() || row.reader->GetMouseType() != model) return;
    if (!row.reader->Attach(connection)) return;
    reader = row.reader;
    row.deviceNumber = connection.deviceNumber;
    row.path = path;
    row.pathEmptied = false;
  });
  if (!reader) {
    reader = MakeReader(model);
    reader->Attach(connection);
    auto row = std::make_unique<HidDeviceEntry>();
    row->deviceNumber = connection.deviceNumber;
    row->path = path;
    row->reader = reader;
    AppendRow(std::move(row));
  }
  reader->callbackContext = this;
  reader->readerCallback = &CAudioHidCenter::HidDeviceReaderCallback;
  reader->disconnectCallback = &CAudioHidCenter::HidDeviceDisconnect;
  reader->Start();
}

bool CAudioHidCenter::PathIsKnown(const std::string& path) {
  bool known = false;
  ForEachRow([&](HidDeviceEntry& row) { known = known || (!row.pathEmptied && row.path == path); });
  return known;
}

void CAudioHidCenter::UpdateConnected() {
  const bool connected = CheckDeviceConnect();
  if (connected == anyDeviceConnected) return;
  anyDeviceConnected = connected;
  if (!connected) {
    CVoxDeviceInfo::Instance()->ClearBluetooth();
    InitButtonState();
  }
}

void CAudioHidCenter::AddBadDevice(std::string path) {
  auto row = std::make_unique<HidDeviceEntry>();
  row->path = std::move(path);
  AppendRow(std::move(row));
}

void CAudioHidCenter::HidDeviceDisconnect(int device, void* hub) {
  static_cast<CAudioHidCenter*>(hub)->OnHidDeviceDisconnect(device);
}

void CAudioHidCenter::OnHidDeviceDisconnect(int device) {
  for (HidDeviceEntry* row = devices; row; row = row->next) {
    if (row->deviceNumber != device) continue;
    row->deviceNumber = -1;
    row->pathEmptied = true;  // the interface may be found and opened again
    break;
  }

  if (ButtonHid_Left == device && ButtonState_Left == ButtonDown) {
    ButtonState_Left = ButtonUp;
    DoubleClick.Clear();
  }
  if (ButtonHid_Right == device) ButtonState_Right = ButtonUp;
  if (ButtonHid_Key1 == device) ButtonState_Key1 = ButtonUp;
  if (ButtonHid_Key2 == device) ButtonState_Key2 = ButtonUp;

  if (!CheckDeviceConnect()) {
    anyDeviceConnected = false;
    CVoxDeviceInfo::Instance()->ClearBluetooth();
    InitButtonState();
  }
}
