// What client and library share, and the double-click detector.
#include <string>

#include "Objects.h"
#include "VoxDevice/KzCheckDoubleClick.h"
#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "support/Text.h"

namespace flat {
namespace {

class Click final : public Object {
 public:
  KzCheckDoubleClick detector;
};

}  // namespace
}  // namespace flat

using flat::Click;
using flat::Guarded;
using flat::Objects;
using flat::With;

vox_result VOX_CALL vox_set(int32_t setting, int32_t value) {
  CPreferences* const preferences = CPreferences::Instance();
  CDeviceData* const data = CDeviceData::Instance();
  switch (setting) {
    case VOX_SET_VOICE_CLICK_TIMES:
      preferences->SetVoiceClickTimes(value);
      return VOX_OK;
    case VOX_SET_DOUBLE_CLICK_MS:
      preferences->SetDoubleClickTimeInterval_ms(value);
      return VOX_OK;
    case VOX_SET_LONG_DOWN:
      preferences->SetVoxButtonLongDown(value);
      return VOX_OK;
    case VOX_SET_TOGGLE_BUTTON:
      preferences->SetToggleButton(value);
      return VOX_OK;
    case VOX_SET_HARDWARE:
      if (value != HardWare_Mouse && value != HardWare_LaserPen) return VOX_ERROR_ARGUMENT;
      preferences->SetHardWare(static_cast<VoxHardWare>(value));
      return VOX_OK;
    case VOX_SET_HARDWARE_CHECKED:
      data->SetHardwareChecked(value != 0);
      return VOX_OK;
    case VOX_SET_HID_KIND:
      if (value != HidKind_VoiceKeyboard && value != HidKind_Mouse) return VOX_ERROR_ARGUMENT;
      data->SetHidDeviceKind(static_cast<HidDeviceKind>(value));
      return VOX_OK;
    case VOX_SET_RECORD_BY_NAME:
      data->SetRecordByName(value != 0);
      return VOX_OK;
    case VOX_SET_NETWORK:
      CEnvironmentMonitor::SetNet(value != 0);
      return VOX_OK;
    case VOX_SET_WINDOWS_VERSION:
      CEnvironmentMonitor::SetOsVersion(static_cast<WindowsVersion>(value));
      return VOX_OK;
    default:
      return VOX_ERROR_ARGUMENT;
  }
}

vox_result VOX_CALL vox_get(int32_t setting, int32_t* value) {
  if (!value) return VOX_ERROR_ARGUMENT;
  const CPreferences* const preferences = CPreferences::Instance();
  const CDeviceData* const data = CDeviceData::Instance();
  switch (setting) {
    case VOX_SET_VOICE_CLICK_TIMES:
      *value = preferences->GetVoiceClickTimes();
      return VOX_OK;
    case VOX_SET_DOUBLE_CLICK_MS:
      *value = preferences->GetDoubleClickTimeInterval_ms();
      return VOX_OK;
    case VOX_SET_LONG_DOWN:
      *value = preferences->GetVoxButtonLongDown();
      return VOX_OK;
    case VOX_SET_TOGGLE_BUTTON:
      *value = preferences->GetToggleButton();
      return VOX_OK;
    case VOX_SET_HARDWARE:
      *value = preferences->GetHardWare();
      return VOX_OK;
    case VOX_SET_HARDWARE_CHECKED:
      *value = data->IsHardwareChecked();
      return VOX_OK;
    case VOX_SET_HID_KIND:
      *value = data->GetHidDeviceKind();
      return VOX_OK;
    case VOX_SET_RECORD_BY_NAME:
      *value = data->IsRecordByName();
      return VOX_OK;
    case VOX_SET_NETWORK:
      *value = CEnvironmentMonitor::CheckNet(false);
      return VOX_OK;
    case VOX_SET_WINDOWS_VERSION:
      *value = CEnvironmentMonitor::OsVersion();
      return VOX_OK;
    default:
      return VOX_ERROR_ARGUMENT;
  }
}

vox_result VOX_CALL vox_get_text(int32_t which, char* text, int32_t capacity) {
  return Guarded([&]() -> vox_result {
    const auto give = [&](const std::wstring& value) { return flat::Give(Utf8(value), text, capacity); };
    const CVoxDeviceInfo* const info = CVoxDeviceInfo::Instance();
    switch (which) {
      case VOX_TEXT_BLUETOOTH_ID:
        return give(info->GetBluetoothID());
      case VOX_TEXT_BLUETOOTH_NAME:
        return give(info->GetBluetoothName());
      case VOX_TEXT_FORMER_ID:
        return give(info->GetFormerDeviceID());
      case VOX_TEXT_FORMER_NAME:
        return give(info->GetFormerDeviceName());
      case VOX_TEXT_RECORD_NAME:
        return give(CDeviceData::Instance()->GetRecordName());
      default:
        return VOX_ERROR_ARGUMENT;
    }
  });
}

vox_result VOX_CALL vox_set_text(int32_t which, const char* text) {
  if (!text) return VOX_ERROR_ARGUMENT;
  return Guarded([&]() -> vox_result {
    const std::wstring value = Wide(text);
    CVoxDeviceInfo* const info = CVoxDeviceInfo::Instance();
    switch (which) {
      case VOX_TEXT_BLUETOOTH_ID:
        return info->SetBluetoothID(value.c_str()), VOX_OK;
      case VOX_TEXT_BLUETOOTH_NAME:
        return info->SetBluetoothName(value.c_str()), VOX_OK;
      case VOX_TEXT_FORMER_ID:
        return info->SetFormerDeviceID(value.c_str()), VOX_OK;
      case VOX_TEXT_FORMER_NAME:
        return info->SetFormerDeviceName(value.c_str()), VOX_OK;
      case VOX_TEXT_RECORD_NAME:
        return CDeviceData::Instance()->SetRecordName(value), VOX_OK;
      default:
        return VOX_ERROR_ARGUMENT;
    }
  });
}

vox_result VOX_CALL vox_click_create(void) {
  return Guarded([]() -> vox_result {
    if (const vox_result result = flat::Listen(); result < 0) return result;
    return Objects::All().Add<Click>();
  });
}

vox_result VOX_CALL vox_click_key(vox_handle click, int32_t what) {
  return With<Click>(click, [&](Click& it) -> vox_result {
    switch (what) {
      case VOX_DOWN:
        return it.detector.SetKeyState(ButtonDown), VOX_OK;
      case VOX_UP:
        return it.detector.SetKeyState(ButtonUp), VOX_OK;
      case VOX_DOUBLE_CLICK:
        return it.detector.SetDoubleClick(), VOX_OK;
      default:
        return VOX_ERROR_ARGUMENT;
    }
  });
}

vox_result VOX_CALL vox_click_mode(vox_handle click) {
  return With<Click>(click, [](Click& it) -> vox_result { return it.detector.GetClickMode(); });
}

vox_result VOX_CALL vox_click_clear(vox_handle click) {
  return With<Click>(click, [](Click& it) -> vox_result { return it.detector.Clear(), VOX_OK; });
}
