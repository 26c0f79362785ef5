#include "support/DeviceLists.h"

#include <algorithm>
#include <memory>

namespace {

class InterfaceList {
 public:
  explicit InterfaceList(const GUID& interfaceClass)
      : class_(interfaceClass),
        list_(os::SetupDiGetClassDevsW(&class_, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {}
  ~InterfaceList() {
    if (list_ != INVALID_HANDLE_VALUE) os::SetupDiDestroyDeviceInfoList(list_);
  }
  InterfaceList(const InterfaceList&) = delete;
  InterfaceList& operator=(const InterfaceList&) = delete;

  bool Select(DWORD index) {
    entry_ = {};
    entry_.cbSize = sizeof entry_;
    return list_ != INVALID_HANDLE_VALUE &&
           os::SetupDiEnumDeviceInterfaces(list_, nullptr, &class_, index, &entry_) != FALSE;
  }
  bool Path(std::size_t most, std::wstring& path) {
    DWORD size = 0;
    os::SetupDiGetDeviceInterfaceDetailW(list_, &entry_, nullptr, 0, &size, nullptr);
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W) || size > most) return false;
    const auto bytes = std::make_unique<std::byte[]>(size);
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(bytes.get());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!os::SetupDiGetDeviceInterfaceDetailW(list_, &entry_, detail, size, nullptr, nullptr)) return false;
    path = static_cast<const WCHAR*>(detail->DevicePath);
    return true;
  }

 private:
  const GUID class_;
  const HDEVINFO list_;
  SP_DEVICE_INTERFACE_DATA entry_{};
};

}  // namespace

std::vector<std::wstring> PresentInterfaces(const GUID& interfaceClass, bool stopAtFailure, std::size_t most) {
  std::vector<std::wstring> paths;
  InterfaceList list(interfaceClass);
  std::wstring path;
  for (DWORD i = 0; list.Select(i); ++i) {
    if (list.Path(most, path)) {
      paths.push_back(path);
    } else if (stopAtFailure) {
      break;
    }
  }
  return paths;
}

DeviceSet::DeviceSet(const GUID& setupClass)
    : list_(os::SetupDiGetClassDevsW(&setupClass, nullptr, nullptr, DIGCF_PRESENT)) {}

DeviceSet::~DeviceSet() {
  if (list_ != INVALID_HANDLE_VALUE) os::SetupDiDestroyDeviceInfoList(list_);
}

bool DeviceSet::Select(DWORD index) {
  device_ = {};
  device_.cbSize = sizeof device_;
  return list_ != INVALID_HANDLE_VALUE && os::SetupDiEnumDeviceInfo(list_, index, &device_) != FALSE;
}

bool DeviceSet::HardwareIds(std::string& ids) {
  DWORD size = 0;
  if (os::SetupDiGetDeviceRegistryPropertyA(list_, &device_, SPDRP_HARDWAREID, nullptr, nullptr, 0, &size) ||
      os::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
    return false;
  }
  std::vector<std::uint8_t> text(size);
  if (!os::SetupDiGetDeviceRegistryPropertyA(list_, &device_, SPDRP_HARDWAREID, nullptr, text.data(), size, nullptr)) {
    return false;
  }
  ids.clear();
  std::copy_if(text.begin(), text.end(), std::back_inserter(ids), [](std::uint8_t code) { return code != 0; });
  return true;
}

std::string NarrowPath(const std::wstring& path) {
  std::string result;
  result.reserve(path.size());
  for (const wchar_t c : path) result.push_back(static_cast<char>(c));
  return result;
}
