#include "support/DeviceLists.h"

#include <algorithm>

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
  // The selected entry's path, until the next one is asked for; null when it cannot be read.
  const WCHAR* Path(std::size_t most) {
    DWORD size = 0;
    os::SetupDiGetDeviceInterfaceDetailW(list_, &entry_, nullptr, 0, &size, nullptr);
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W) || size > most) return nullptr;
    detail_.resize(std::max<std::size_t>(detail_.size(), size));
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(detail_.data());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!os::SetupDiGetDeviceInterfaceDetailW(list_, &entry_, detail, size, nullptr, nullptr)) return nullptr;
    return detail->DevicePath;
  }

 private:
  const GUID class_;
  const HDEVINFO list_;
  SP_DEVICE_INTERFACE_DATA entry_{};
  std::vector<std::byte> detail_;
};

}  // namespace

void PresentInterfaces(const GUID& interfaceClass, std::vector<std::wstring>& paths, bool stopAtFailure,
                       std::size_t most) {
  InterfaceList list(interfaceClass);
  std::size_t count = 0;
  for (DWORD i = 0; list.Select(i); ++i) {
    const WCHAR* path = list.Path(most);
    if (!path) {
      if (stopAtFailure) break;
      continue;
    }
    if (count == paths.size()) paths.emplace_back();
    paths[count++] = path;
  }
  paths.resize(count);
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
  std::string result(path.size(), 0);
  std::transform(path.begin(), path.end(), result.begin(), [](wchar_t c) { return static_cast<char>(c); });
  return result;
}
