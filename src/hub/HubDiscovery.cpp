// Finding, opening and losing devices.
#include <cstddef>
#include <memory>
#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "hid/ReaderVariants.h"
#include "hub/HidDeviceEntry.h"

namespace {

// The system's list of present HID interfaces.
class InterfaceList {
 public:
  InterfaceList() {
    os::HidD_GetHidGuid(&class_);
    list_ = os::SetupDiGetClassDevsW(&class_, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
  }
  ~InterfaceList() {
    if (list_ != INVALID_HANDLE_VALUE) os::SetupDiDestroyDeviceInfoList(list_);
  }
  InterfaceList(const InterfaceList&) = delete;
  InterfaceList& operator=(const InterfaceList&) = delete;

  void Append(std::vector<std::wstring>& paths) const {
    if (list_ == INVALID_HANDLE_VALUE) return;
    SP_DEVICE_INTERFACE_DATA entry{};
    entry.cbSize = sizeof entry;
    for (DWORD i = 0; os::SetupDiEnumDeviceInterfaces(list_, nullptr, &class_, i, &entry); ++i)
      AppendPath(entry, paths);
  }

 private:
  void AppendPath(SP_DEVICE_INTERFACE_DATA& entry, std::vector<std::wstring>& paths) const {
    DWORD size = 0;
    os::SetupDiGetDeviceInterfaceDetailW(list_, &entry, nullptr, 0, &size, nullptr);
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) return;
    const auto bytes = std::make_unique<std::byte[]>(size);
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(bytes.get());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (os::SetupDiGetDeviceInterfaceDetailW(list_, &entry, detail, size, nullptr, nullptr)) {
      paths.emplace_back(static_cast<const WCHAR*>(detail->DevicePath));
    }
  }

  GUID class_{};
  HDEVINFO list_ = INVALID_HANDLE_VALUE;
};

// An open HID device; closed unless it is given away.
class HidFile {
 public:
  explicit HidFile(const std::wstring& path)
      : file_(os::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr)) {}
  ~HidFile() {
    if (file_ != INVALID_HANDLE_VALUE) os::CloseHandle(file_);
  }
  HidFile(const HidFile&) = delete;
  HidFile& operator=(const HidFile&) = delete;

  // Whether this is open and has reports of a length that the protocol can use.
  bool Check() {
    if (file_ == INVALID_HANDLE_VALUE) return false;
    HIDD_ATTRIBUTES attributes{};
    attributes.Size = sizeof attributes;
    PHIDP_PREPARSED_DATA preparsed = nullptr;
    if (!os::HidD_GetAttributes(file_, &attributes) || !os::HidD_GetPreparsedData(file_, &preparsed)) return false;
    HIDP_CAPS caps{};
    const bool known = os::HidP_GetCaps(preparsed, &caps) == HIDP_STATUS_SUCCESS;
    os::HidD_FreePreparsedData(preparsed);
    inputLength_ = caps.InputReportByteLength;
    outputLength_ = caps.OutputReportByteLength;
    return known && inputLength_ >= kMinReportLength && inputLength_ <= kMaxInputReportLength &&
           outputLength_ >= kMinReportLength;
  }
  int InputLength() const { return inputLength_; }
  int OutputLength() const { return outputLength_; }
  HANDLE Give() { return std::exchange(file_, INVALID_HANDLE_VALUE); }

 private:
  HANDLE file_;
  int inputLength_ = 0;
  int outputLength_ = 0;
};

// Interface paths are plain ASCII.
std::string Narrow(const std::wstring& text) {
  std::string result;
  result.reserve(text.size());
  for (const wchar_t c : text) result.push_back(static_cast<char>(c));
  return result;
}

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

void CAudioHidCenter::EnumerateHidInterfaces(std::vector<std::wstring>& paths) { InterfaceList().Append(paths); }

void CAudioHidCenter::OpenHidDevice(const std::vector<std::wstring>& paths) {
  for (const std::wstring& path : paths) {
    if (stopDetection) return;
    OpenHidInterface(path);
  }
  UpdateConnected();
}

void CAudioHidCenter::OpenHidInterface(const std::wstring& path) {
  const std::string narrow = Narrow(path);
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
  if (!readFile.Check()) return;
  HidFile writeFile(path);
  if (!writeFile.Check()) {
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
