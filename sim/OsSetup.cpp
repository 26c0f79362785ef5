// Device lists on the simulated machine.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "platform/os.h"
#include "sim/Call.h"

namespace sim {

// A device information set, as it was at the moment of the call: interface paths, or devices with their hardware ids.
struct DeviceList {
  std::vector<std::wstring> paths;
  std::vector<std::string> hardwareIds;  // each a text of texts, every one with its terminator
};

}  // namespace sim

namespace {

using sim::Call;
using sim::DeviceList;

constexpr GUID kHidGuid{0x4d1e55b2, 0xf16f, 0x11cf, {0x88, 0xcb, 0x00, 0x11, 0x11, 0x00, 0x00, 0x30}};
// The USB device interface class and the media device setup class.
constexpr GUID kUsbGuid{0xa5dcbf10, 0x6530, 0x11d2, {0x90, 0x1f, 0x00, 0xc0, 0x4f, 0xb9, 0x51, 0xed}};
constexpr GUID kMediaGuid{0x4d36e96c, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};

bool sameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

std::string multiText(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += text + '\0';
  return all + '\0';
}

// Null, and a rule is broken, when it is not open.
const DeviceList* listOf(Call& call, HDEVINFO list) REQUIRES(sim::gate) {
  const auto it = call.machine.deviceLists.find(list);
  if (it != call.machine.deviceLists.end()) return it->second.get();
  return call.misused("not an open device list", ERROR_INVALID_HANDLE, static_cast<const DeviceList*>(nullptr));
}

template <class Data>
bool sized(Call& call, const Data* data) REQUIRES(sim::gate) {
  if (data && data->cbSize == sizeof *data) return true;
  return call.misused("cbSize is not that of the structure", ERROR_INVALID_USER_BUFFER, false);
}

}  // namespace

namespace os {

void HidD_GetHidGuid(GUID* result) { *result = kHidGuid; }

HDEVINFO SetupDiGetClassDevsW(const GUID* classGuid, const WCHAR*, HWND, DWORD flags) {
  if (classGuid && sameGuid(*classGuid, kHidGuid)) sim::Machine::current().hid().askSource();
  Call call("SetupDiGetClassDevsW");
  if (!classGuid) return call.misused("no class", ERROR_INVALID_PARAMETER, INVALID_HANDLE_VALUE);
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return INVALID_HANDLE_VALUE;
  const auto list = std::make_shared<DeviceList>();
  if (sameGuid(*classGuid, kHidGuid) && flags == (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {
    list->paths = call.machine.hid().paths();
  } else if (sameGuid(*classGuid, kUsbGuid) && flags == (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE)) {
    for (const sim::UsbDevice& device : call.machine.peripherals().usb) list->paths.push_back(device.path);
  } else if (sameGuid(*classGuid, kMediaGuid) && flags == DIGCF_PRESENT) {
    for (const sim::MediaDevice& device : call.machine.peripherals().media) {
      list->hardwareIds.push_back(device.hardwareIds.empty() ? std::string() : multiText(device.hardwareIds));
    }
  } else {
    return call.misused("a class, or flags, that the machine does not know", ERROR_INVALID_PARAMETER,
                        INVALID_HANDLE_VALUE);
  }
  call.machine.deviceLists[list.get()] = list;
  return list.get();
}

BOOL SetupDiEnumDeviceInterfaces(HDEVINFO list, SP_DEVINFO_DATA*, const GUID* interfaceClass, DWORD index,
                                 SP_DEVICE_INTERFACE_DATA* result) {
  Call call("SetupDiEnumDeviceInterfaces");
  const DeviceList* known = listOf(call, list);
  if (!known || !sized(call, result)) return FALSE;
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return FALSE;
  if (index >= known->paths.size()) return call.failed(ERROR_NO_MORE_ITEMS, FALSE);
  result->InterfaceClassGuid = *interfaceClass;
  result->Flags = 1;  // active
  result->Reserved = index;
  return TRUE;
}

BOOL SetupDiGetDeviceInterfaceDetailW(HDEVINFO list, SP_DEVICE_INTERFACE_DATA* deviceInterface,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD detailSize, DWORD* requiredSize,
                                      SP_DEVINFO_DATA* device) {
  Call call("SetupDiGetDeviceInterfaceDetailW");
  const DeviceList* known = listOf(call, list);
  if (!known || !sized(call, deviceInterface) || (device && !sized(call, device))) return FALSE;
  if (deviceInterface->Reserved >= known->paths.size()) {
    return call.misused("not an interface of this list", ERROR_INVALID_PARAMETER, FALSE);
  }
  if (detail ? detailSize < sizeof *detail : detailSize != 0) {
    return call.misused("a size that does not go with the detail", ERROR_INVALID_USER_BUFFER, FALSE);
  }
  if (detail && !sized(call, detail)) return FALSE;
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return FALSE;
  constexpr std::size_t kPathAt = offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath);
  const std::wstring& path = known->paths[deviceInterface->Reserved];
  const auto needed = static_cast<DWORD>(kPathAt + (path.size() + 1) * sizeof(WCHAR));
  if (requiredSize) *requiredSize = needed;
  if (!detail || detailSize < needed) return call.failed(ERROR_INSUFFICIENT_BUFFER, FALSE);
  std::memcpy(reinterpret_cast<char*>(detail) + kPathAt, path.c_str(), (path.size() + 1) * sizeof(WCHAR));
  return TRUE;
}

BOOL SetupDiEnumDeviceInfo(HDEVINFO list, DWORD index, SP_DEVINFO_DATA* device) {
  Call call("SetupDiEnumDeviceInfo");
  const DeviceList* known = listOf(call, list);
  if (!known || !sized(call, device)) return FALSE;
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return FALSE;
  if (index >= known->hardwareIds.size()) return call.failed(ERROR_NO_MORE_ITEMS, FALSE);
  device->DevInst = index;
  return TRUE;
}

BOOL SetupDiGetDeviceRegistryPropertyA(HDEVINFO list, SP_DEVINFO_DATA* device, DWORD property, DWORD*,
                                       std::uint8_t* buffer, DWORD size, DWORD* requiredSize) {
  Call call("SetupDiGetDeviceRegistryPropertyA");
  const DeviceList* known = listOf(call, list);
  if (!known || !sized(call, device)) return FALSE;
  if (device->DevInst >= known->hardwareIds.size()) {
    return call.misused("not a device of this list", ERROR_INVALID_PARAMETER, FALSE);
  }
  if (call.fails(ERROR_NOT_ENOUGH_MEMORY)) return FALSE;
  const std::string& text = known->hardwareIds[device->DevInst];
  if (property != SPDRP_HARDWAREID || text.empty()) return call.failed(ERROR_INVALID_DATA, FALSE);
  if (requiredSize) *requiredSize = static_cast<DWORD>(text.size());
  if (!buffer || size < text.size()) return call.failed(ERROR_INSUFFICIENT_BUFFER, FALSE);
  std::copy(text.begin(), text.end(), buffer);
  return TRUE;
}

BOOL SetupDiDestroyDeviceInfoList(HDEVINFO list) {
  Call call("SetupDiDestroyDeviceInfoList");
  if (!listOf(call, list)) return FALSE;
  call.machine.deviceLists.erase(list);
  return TRUE;
}

}  // namespace os
