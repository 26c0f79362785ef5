// What tells which model a device is: its identifiers, how a path names them, and the name of its recording device.
#include <algorithm>
#include <utility>

#include "hub/Hub.h"
#include "models/Models.h"

namespace {

// Four lower-case digits, as in a HID interface path.
std::string InPath(std::uint16_t number) {
  std::string digits;
  for (int shift = 12; shift >= 0; shift -= 4) digits += "0123456789abcdef"[number >> shift & 0xF];
  return digits;
}

// The value between `key` and the next `end`, from `from` on; false when the key is missing or the value is empty.
// `from` moves behind the value.
bool TakeValue(const std::string& segment, const char* key, char end, std::size_t& from, std::string& value) {
  const std::size_t at = segment.find(key, from);
  if (at == std::string::npos) return false;
  const std::size_t begin = at + std::char_traits<char>::length(key);
  const std::size_t stop = std::min(segment.find(end, begin), segment.size());
  if (stop == begin && stop < segment.size()) return false;
  value = segment.substr(begin, stop - begin);
  from = std::min(stop + 1, segment.size());
  return true;
}

bool ParseHidPath(const std::string& path, const char* vidKey, const char* pidKey, char end,
                  HidPathIdentity& identity) {
  const std::size_t a = path.find('#');
  if (a == std::string::npos || path.substr(0, a).find("hid") == std::string::npos) return false;
  const std::size_t b = path.find('#', a + 1);
  if (b == std::string::npos) return false;
  const std::string segment = path.substr(a + 1, b - a - 1);
  HidPathIdentity found;
  std::size_t from = 0;
  if (!TakeValue(segment, vidKey, end, from, found.vid)) return false;
  if (!TakeValue(segment, pidKey, end, from, found.pid)) return false;
  const std::size_t c = path.find('#', b + 1);
  if (c == std::string::npos || c == b + 1) return false;
  found.instance = path.substr(b + 1, c - b - 1);
  identity = std::move(found);
  return true;
}

}  // namespace

std::wstring CAudioHidCenter::GetHidName(MouseType model) { return SheetOf(model).name; }

void CHub::InitLegalPid_Vid() {
  for (const ModelSheet& sheet : ModelSheets()) {
    for (const HidId& id : sheet.usb) legalIds.push_back({InPath(id.vendor), InPath(id.product), sheet.number});
    // Bluetooth LE paths spell the vendor with its two-digit source, 02, in front.
    for (const HidId& id : sheet.bluetooth) {
      legalIds.push_back({"02" + InPath(id.vendor), InPath(id.product), sheet.number});
    }
  }
}

MouseType CHub::FindLegalId(const HidPathIdentity& identity) const {
  for (const LegalHidId& id : legalIds) {
    if (id.vid == identity.vid && id.pid == identity.pid) return id.type;
  }
  return MouseType_Unknown;
}

bool CAudioHidCenter::ParseUsbHidPath(const std::string& path, HidPathIdentity& identity) {
  return ParseHidPath(path, "vid_", "pid_", '&', identity);
}

bool CAudioHidCenter::ParseBluetoothHidPath(const std::string& path, HidPathIdentity& identity) {
  return ParseHidPath(path, "vid&", "pid&", '_', identity);
}

bool CHub::RecordDeviceIsHidDevice(const std::wstring& name) {
  int device = -1;
  for (const ModelSheet& sheet : ModelSheets()) {
    const auto contains = [&name](const wchar_t* word) { return name.find(word) != std::wstring::npos; };
    if (std::none_of(sheet.recordingNames.begin(), sheet.recordingNames.end(), contains)) continue;
    device = GetEffectiveDevice(sheet.number);
    break;
  }
  workDevice = device;
  return device != -1;
}

bool CHub::WorkHidIsWren() {
  const MouseType model = GetHidMouseType(workDevice);
  if (model != MouseType_Tern) ShortPress_R = false;
  return model == MouseType_Wren;
}
