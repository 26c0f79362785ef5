// The supported models: their names, their identifiers, and how a path names them.
#include <algorithm>
#include <iterator>
#include <utility>

#include "hub/Hub.h"

namespace {

constexpr const wchar_t* kModelNames[] = {
    L"VoxMouseB(未知类型)", L"VoxMouse Tern",  L"VoxMouse Wren",       L"VoxMouse Finch", L"VoxMouse Robin",
    L"VoxMouse Heron",      L"VoxMouse Egret", L"VoxMouse Heron Plus", L"VoxMouse Swift",
};

// The words of a recording device's name, in the order in which they are looked for. There is deliberately none for the
// Heron Plus.
constexpr struct {
  const wchar_t* word;
  MouseType model;
} kRecordingNames[] = {
    {L"Tern", MouseType_Tern},   {L"Kite", MouseType_Tern},   {L"Wren", MouseType_Wren},   {L"Finch", MouseType_Finch},
    {L"Robin", MouseType_Robin}, {L"Heron", MouseType_Heron}, {L"Egret", MouseType_Egret}, {L"Swift", MouseType_Swift},
};

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

std::wstring CAudioHidCenter::GetHidName(MouseType model) {
  const auto index = static_cast<std::size_t>(model);
  return kModelNames[index < std::size(kModelNames) ? index : 0];
}

void CHub::InitLegalPid_Vid() {
  // Bluetooth LE paths spell the vendor with its two-digit source, 02, in front. The Swift has no row: it presents
  // itself as a Heron Plus and is told apart by its reader.
  static const LegalHidId ids[] = {
      {"0d8c", "0137", MouseType_Tern},      {"020d8d", "0138", MouseType_Tern},
      {"6d8c", "6137", MouseType_Wren},      {"026d8d", "6138", MouseType_Wren},
      {"023d8d", "3138", MouseType_Finch},   {"022d8d", "2138", MouseType_Robin},
      {"021d8d", "1138", MouseType_Heron},   {"024d8d", "6138", MouseType_Egret},
      {"248a", "8100", MouseType_HeronPlus}, {"02248a", "8266", MouseType_HeronPlus},
  };
  legalIds.insert(legalIds.end(), std::begin(ids), std::end(ids));
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
  for (const auto& [word, model] : kRecordingNames) {
    if (name.find(word) == std::wstring::npos) continue;
    const int device = GetEffectiveDevice(model);
    workDevice = device;
    return device != -1;
  }
  workDevice = -1;
  return false;
}

bool CHub::WorkHidIsWren() {
  const MouseType model = GetHidMouseType(workDevice);
  if (model != MouseType_Tern) ShortPress_R = false;
  return model == MouseType_Wren;
}
