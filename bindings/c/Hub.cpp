// The hub.
#include "hub/Hub.h"

#include <climits>
#include <cstring>
#include <string>

#include "Objects.h"
#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/VoxNet.h"
#include "support/Text.h"

struct CHubAccess {
  static const std::shared_ptr<CHub>& Of(const CAudioHidCenter& center) { return center.m_pHub; }
};

namespace flat {
namespace {

constexpr int kEveryDevice = -1;

template <class Function>
void* AsCallback(Function* function) {
  return reinterpret_cast<void*>(function);
}

class Hub final : public Source {
 public:
  // Its callbacks find it by its handle; it has that before it is opened.
  void Register() {
    void* const context = ContextOf(handle);
    center.SetCallback_MouseConnect(
        AsCallback(+[](int device, int state, void*) { Tell(VOX_EVENT_MOUSE_CONNECT, device, {state}); }), context);
    center.SetCallback_VoiceOperate(
        AsCallback(+[](int device, int operation, void*) { Tell(VOX_EVENT_VOICE, device, {operation}); }), context);
    center.SetCallback_DpiSet(AsCallback(+[](int device, int dpi, bool ok, void*) {
                                Tell(VOX_EVENT_DPI, device, {dpi, ok});
                              }),
                              context);
    center.SetCallback_MouseState(
        AsCallback(+[](int device, MouseType model, DataChannel link, int word0, int word1, int level, void*) {
          Tell(VOX_EVENT_MOUSE_STATE, device, {model, link, word0, word1, level});
        }),
        context);
    center.SetCallback_DongleState(
        AsCallback(+[](int device, MouseType model, DataChannel link, int word, bool flag, void*) {
          Tell(VOX_EVENT_DONGLE_STATE, device, {model, link, word, flag});
        }),
        context);
    center.SetCallback_PowerReport(
        AsCallback(+[](int device, int level, void*) { Tell(VOX_EVENT_POWER, device, {level}); }), context);
    center.SetCallback_DownloadUrl(AsCallback(+[](int device, bool ok, void*) { Tell(VOX_EVENT_URL, device, {ok}); }),
                                   context);
    center.SetCallback_SpeechLost(AsCallback(+[](int device, int missing, int late, void*) {
                                    Tell(VOX_EVENT_SPEECH_LOST, device, {missing, late});
                                  }),
                                  context);
    center.SetCallback_FwOtaResult(AsCallback(+[](int device, DataChannel link, FwUpdateState state, void*) {
                                     Tell(VOX_EVENT_UPDATE, device, {link, state});
                                   }),
                                   context);
    CHubAccess::Of(center)->buttonCallback.Set(
        [](int device, Button button, ButtonEvent what, void*) {
          Tell(VOX_EVENT_BUTTON, device, {static_cast<int>(button), static_cast<int>(what)});
        },
        context);
  }
  void Open() {
    center.OpenDevice(
        AsCallback(+[](const unsigned char* data, int byteCount, void* context) { Deliver(data, byteCount, context); }),
        ContextOf(handle));
  }

  // Whether the device is there for a command.
  vox_result IsThere(std::int32_t device) {
    if (device == kEveryDevice) return center.GetEffectiveDevice() == -1 ? VOX_ERROR_NO_DEVICE : VOX_OK;
    const auto reader = CHubAccess::Of(center)->FindLive(device);
    if (device <= 0 || !reader) return VOX_ERROR_NO_DEVICE;
    return reader->otaStage != OtaStage_Idle ? VOX_ERROR_BUSY : VOX_OK;
  }

  vox_result StartRecording() override {
    const int device = CHubAccess::Of(center)->workDevice;
    if (const vox_result there = device == -1 ? VOX_ERROR_NO_DEVICE : IsThere(device); there < 0) return there;
    if (center.OpenHidRecord()) return VOX_OK;
    const auto reader = CHubAccess::Of(center)->FindLive(device);
    if (!reader) return VOX_ERROR_NO_DEVICE;
    return reader->recordState == 2 ? VOX_ERROR_REFUSED : VOX_ERROR_TIMEOUT;
  }
  vox_result StopRecording() override { return center.CloseHidRecord() ? VOX_OK : VOX_ERROR_TIMEOUT; }
  void End() noexcept override {
    Source::End();
    CHubAccess::Of(center)->buttonCallback.Set(nullptr,
                                               nullptr);  // the buttons are let go of when devices are forgotten
    center.Release();
  }

  CAudioHidCenter center;
};

vox_result Flag(bool value) { return value ? 1 : 0; }

bool IsReadable(const char* path) {
  OtaImage image;
  int size = 0;
  return path && CDeviceReader::LoadImageFile(path, image, size) && size > 0;
}

// Runs `work` with the hub, when the device is there.
template <class Work>
vox_result Command(vox_handle hub, std::int32_t device, Work&& work) noexcept {
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    if (const vox_result there = it.IsThere(device); there < 0) return there;
    work(it.center);
    return VOX_OK;
  });
}

bool IsKey(std::int32_t key) { return key == 1 || key == 2; }

}  // namespace

CAudioHidCenter* CenterOf(vox_handle hub, std::shared_ptr<Object>& keeper) noexcept {
  const auto it = Objects::All().Find<Hub>(hub);
  keeper = it;
  return it ? &it->center : nullptr;
}

}  // namespace flat

using flat::Command;
using flat::Flag;
using flat::Guarded;
using flat::Hub;
using flat::IsKey;
using flat::Objects;
using flat::With;

vox_result VOX_CALL vox_hub_create(void) {
  return Guarded([]() -> vox_result {
    if (const vox_result result = flat::Listen(); result < 0) return result;
    const vox_result handle = Objects::All().Add<Hub>();
    return handle < 0 ? handle : With<Hub>(handle, [&](Hub& it) -> vox_result {
      if (!it.audio.IsWhole()) return Objects::All().Take(handle), VOX_ERROR_SYSTEM;
      it.Register();
      return handle;
    });
  });
}

vox_result VOX_CALL vox_hub_open(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) -> vox_result { return it.Open(), VOX_OK; });
}

vox_result VOX_CALL vox_hub_stop(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) -> vox_result { return it.center.CloseDevice(), VOX_OK; });
}

vox_result VOX_CALL vox_hub_close(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) -> vox_result { return it.center.Release(), VOX_OK; });
}

vox_result VOX_CALL vox_hub_threads_closed(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) { return Flag(it.center.ThreadIsClosed()); });
}

vox_result VOX_CALL vox_hub_is_connected(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) { return Flag(it.center.IsConnect()); });
}

vox_result VOX_CALL vox_hub_newest(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) -> vox_result {
    const int device = it.center.GetEffectiveDevice();
    return device == -1 ? VOX_ERROR_NO_DEVICE : device;
  });
}

vox_result VOX_CALL vox_hub_devices(vox_handle hub, int32_t* numbers, int32_t capacity) {
  if (capacity < 0 || (!numbers && capacity > 0)) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) {
    std::vector<int> devices;
    std::vector<std::wstring> names;
    it.center.GetValidHidList(devices, names);
    if (numbers) std::copy_n(devices.begin(), std::min(devices.size(), static_cast<std::size_t>(capacity)), numbers);
    return static_cast<vox_result>(devices.size());
  });
}

vox_result VOX_CALL vox_hub_model(vox_handle hub, int32_t device) {
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    const MouseType model = it.center.GetHidMouseType(device);
    return model == MouseType_Unknown ? static_cast<vox_result>(VOX_ERROR_NO_DEVICE) : model;
  });
}

vox_result VOX_CALL vox_hub_link(vox_handle hub, int32_t device) {
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    const DataChannel link = it.center.GetDeviceConnectMode(device);
    return link == DataChannel_Unknown ? static_cast<vox_result>(VOX_ERROR_NO_DEVICE) : link;
  });
}

vox_result VOX_CALL vox_hub_harden(vox_handle hub, uint32_t what) {
  if (what > VOX_HARDENING_ALL) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    it.center.SetHardening(what);
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_hub_speech(vox_handle hub, int32_t device, vox_speech* speech) {
  if (!speech || speech->size < sizeof *speech) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    VoxSpeechCounts counts{};
    if (!it.center.GetSpeechCounts(device, counts)) return VOX_ERROR_NO_DEVICE;
    *speech = {speech->size, counts.reports, counts.late, counts.missing, counts.unasked};
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_model_name(int32_t model, char* text, int32_t capacity) {
  return Guarded(
      [&] { return flat::Give(Utf8(CAudioHidCenter::GetHidName(static_cast<MouseType>(model))), text, capacity); });
}

vox_result VOX_CALL vox_hub_choose(vox_handle hub, int32_t device) {
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    if (device != -1 && it.center.GetHidMouseType(device) == MouseType_Unknown) return VOX_ERROR_NO_DEVICE;
    it.center.ChooseWorkHidDevice(device);
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_hub_choose_by_microphone(vox_handle hub, const char* name) {
  if (!name) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) { return Flag(it.center.RecordDeviceIsHidDevice(Wide(name))); });
}

vox_result VOX_CALL vox_hub_work_is_wren(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) { return Flag(it.center.WorkHidIsWren()); });
}

vox_result VOX_CALL vox_hub_ask_mouse_state(vox_handle hub, int32_t device) {
  return Command(hub, device, [&](CAudioHidCenter& center) { center.GetMouseState(device); });
}

vox_result VOX_CALL vox_hub_ask_dongle_state(vox_handle hub, int32_t device) {
  return Command(hub, device, [&](CAudioHidCenter& center) { center.GetDongleState(device); });
}

vox_result VOX_CALL vox_hub_set_dpi(vox_handle hub, int32_t device, int32_t dpi) {
  if (dpi < 0 || dpi > SHRT_MAX) return VOX_ERROR_ARGUMENT;
  return Command(hub, device, [&](CAudioHidCenter& center) { center.SetDpi(device, static_cast<short>(dpi)); });
}

vox_result VOX_CALL vox_hub_set_url(vox_handle hub, int32_t device, const char* url) {
  const std::size_t length = url ? strnlen(url, kMaxPayload + 1) : 0;
  if (length == 0 || length > kMaxPayload) return VOX_ERROR_ARGUMENT;
  if (!std::all_of(url, url + length, [](char c) { return HidUsageOf(static_cast<std::uint8_t>(c)).has_value(); })) {
    return VOX_ERROR_CHARACTER;
  }
  return Command(hub, device, [&](CAudioHidCenter& center) {
    std::vector<int> devices{device};
    std::vector<std::wstring> names;
    if (device == -1) center.GetValidHidList(devices = {}, names);
    // Each gets the text: the operation replaces its characters by what is sent.
    for (const int each : devices) {
      std::vector<unsigned char> bytes(url, url + length);
      center.SetDownloadURL(each, bytes.data(), static_cast<int>(length));
    }
  });
}

vox_result VOX_CALL vox_hub_ask_mkeys(vox_handle hub, int32_t device, int32_t key) {
  if (!IsKey(key)) return VOX_ERROR_ARGUMENT;
  return Command(hub, device, [&](CAudioHidCenter& center) {
    key == 1 ? center.getMKeyTypeList_Key1(device) : center.getMKeyTypeList_Key2(device);
  });
}

vox_result VOX_CALL vox_hub_mkey(vox_handle hub, int32_t device, int32_t key) {
  if (!IsKey(key)) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    if (it.center.GetHidMouseType(device) == MouseType_Unknown) return VOX_ERROR_NO_DEVICE;
    return key == 1 ? it.center.GetMKeyType_Key1(device, 1) : it.center.GetMKeyType_Key2(device, 1);
  });
}

vox_result VOX_CALL vox_hub_mkey_list(vox_handle hub, int32_t device, int32_t key, uint8_t* functions,
                                      int32_t capacity) {
  if (!IsKey(key) || capacity < 0 || (!functions && capacity > 0)) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    if (it.center.GetHidMouseType(device) == MouseType_Unknown) return VOX_ERROR_NO_DEVICE;
    return flat::MKeyList(device, key, functions, capacity);
  });
}

vox_result VOX_CALL vox_hub_set_mkey(vox_handle hub, int32_t device, int32_t key, int32_t function) {
  if (!IsKey(key) || function < 0 || function > UCHAR_MAX) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    if (const vox_result there = it.IsThere(device); there < 0) return there;
    const auto type = static_cast<MouseMKeyType>(function);
    switch (key == 1 ? it.center.setMKeyType_Key1(device, type) : it.center.setMKeyType_Key2(device, type)) {
      case SetMKeyType_Confirmed:
        return VOX_OK;
      case SetMKeyType_NotSupported:
        return VOX_ERROR_NOT_SUPPORTED;
      case SetMKeyType_NoAnswer:
        return VOX_ERROR_TIMEOUT;
      case SetMKeyType_OtherType:
        return VOX_ERROR_OTHER_FUNCTION;
      case SetMKeyType_NotReady:
        break;
    }
    const vox_result there = it.IsThere(device);
    return there < 0 ? there : VOX_ERROR_NO_DEVICE;
  });
}

vox_result VOX_CALL vox_hub_update(vox_handle hub, int32_t device, int32_t type, const char* first,
                                   const char* second) {
  if (type < FwUpdate_First || type > FwUpdate_Both) return VOX_ERROR_ARGUMENT;
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    const DataChannel link = it.center.GetDeviceConnectMode(device);
    if (link == DataChannel_Unknown) return VOX_ERROR_NO_DEVICE;
    const bool needsSecond = type == FwUpdate_Second || (type == FwUpdate_Both && link != DataChannel_BluetoothLE);
    if (type != FwUpdate_Second && !flat::IsReadable(first)) return VOX_ERROR_FILE;
    if (needsSecond && !flat::IsReadable(second)) return VOX_ERROR_FILE;
    it.center.StartOTA(device, static_cast<FwUpdateType>(type), first ? first : "", second ? second : "");
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_hub_button(vox_handle hub, int32_t button) {
  return With<Hub>(hub, [&](Hub& it) -> vox_result {
    switch (button) {
      case VOX_BUTTON_LEFT:
        return Flag(it.center.GetButtonState_Left() == ButtonDown);
      case VOX_BUTTON_RIGHT:
        return Flag(it.center.GetButtonState_Right() == ButtonDown);
      case VOX_BUTTON_KEY1:
        return Flag(it.center.GetButtonState_Key1() == ButtonDown);
      case VOX_BUTTON_KEY2:
        return Flag(it.center.GetButtonState_Key2() == ButtonDown);
      default:
        return VOX_ERROR_ARGUMENT;
    }
  });
}

vox_result VOX_CALL vox_hub_left_pressed(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) { return Flag(it.center.LeftKeyDown_Up()); });
}

vox_result VOX_CALL vox_hub_right_short_press(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) { return Flag(it.center.Tern_IsShortPress_R()); });
}

vox_result VOX_CALL vox_hub_click_mode(vox_handle hub) {
  return With<Hub>(hub, [](Hub& it) -> vox_result { return it.center.GetClickMode_L(); });
}

vox_result VOX_CALL vox_hid_path(int32_t index, char* text, int32_t capacity) {
  if (index < 0) return VOX_ERROR_ARGUMENT;
  return Guarded([&]() -> vox_result {
    std::vector<std::wstring> paths;
    CAudioHidCenter::EnumerateHidInterfaces(paths);
    if (static_cast<std::size_t>(index) >= paths.size()) return 0;
    return flat::Give(Utf8(paths[static_cast<std::size_t>(index)]), text, capacity);
  });
}

vox_result VOX_CALL vox_parse_hid_path(const char* path, vox_path* parsed) {
  if (!path || !parsed || parsed->size < sizeof *parsed) return VOX_ERROR_ARGUMENT;
  return Guarded([&]() -> vox_result {
    vox_path whole{parsed->size, 0, {}, {}, {}};
    HidPathIdentity identity;
    if (CAudioHidCenter::ParseUsbHidPath(path, identity)) {
      whole.link = DataChannel_Usb;
    } else if (CAudioHidCenter::ParseBluetoothHidPath(path, identity)) {
      whole.link = DataChannel_BluetoothLE;
    } else {
      return VOX_ERROR_ARGUMENT;
    }
    if (!flat::GiveWhole(identity.vid, whole.vid) || !flat::GiveWhole(identity.pid, whole.pid) ||
        !flat::GiveWhole(identity.instance, whole.instance)) {
      return VOX_ERROR_ARGUMENT;
    }
    *parsed = whole;
    return VOX_OK;
  });
}
