#include "audio/SoundCard.h"

#include <algorithm>
#include <cmath>
#include <iterator>

#include "VoxDevice/VoxNet.h"
#include "VoxDevice/VoxRecord.h"
#include "audio/CoreAudio.h"
#include "support/Memory.h"
#include "support/Text.h"
#include "support/Worker.h"

namespace {

// Text of a field of fixed size, which a full one does not terminate.
template <std::size_t Size>
std::wstring TextOf(const WCHAR (&field)[Size]) {
  return {field, std::find(field, field + Size, WCHAR{0})};
}

// What stands in the first parentheses; the whole name when there are none, or nothing is in them.
std::wstring WithoutParentheses(const std::wstring& name) {
  std::wstring text = name;
  if (const std::size_t open = text.find(L'('); open != std::wstring::npos) text.erase(0, open + 1);
  if (const std::size_t close = text.find(L')'); close != std::wstring::npos) text.resize(close);
  return text.empty() ? name : text;
}

// An open mixer.
class Mixer {
 public:
  explicit Mixer(UINT index) {
    if (os::mixerOpen(&handle_, index, 0, 0, MIXER_OBJECTF_MIXER) != MMSYSERR_NOERROR) handle_ = nullptr;
  }
  ~Mixer() {
    if (handle_) os::mixerClose(handle_);
  }
  Mixer(const Mixer&) = delete;
  Mixer& operator=(const Mixer&) = delete;

  bool Open() const { return handle_ != nullptr; }
  bool WaveInDestination(MIXERLINEW& line) const {
    line = {};
    line.cbStruct = sizeof line;
    line.dwComponentType = MIXERLINE_COMPONENTTYPE_DST_WAVEIN;
    return os::mixerGetLineInfoW(Object(), &line, MIXER_OBJECTF_HMIXER | MIXER_GETLINEINFOF_COMPONENTTYPE) ==
           MMSYSERR_NOERROR;
  }
  // The line of the first microphone or line input; 0 when there is none.
  DWORD InputLine(const MIXERLINEW& destination) const {
    for (DWORD j = 0; j < destination.cConnections; ++j) {
      MIXERLINEW source{};
      source.cbStruct = sizeof source;
      source.dwDestination = destination.dwDestination;
      source.dwSource = j;
      if (os::mixerGetLineInfoW(Object(), &source, MIXER_OBJECTF_HMIXER | MIXER_GETLINEINFOF_SOURCE) !=
          MMSYSERR_NOERROR) {
        break;
      }
      if (source.dwComponentType == MIXERLINE_COMPONENTTYPE_SRC_MICROPHONE ||
          source.dwComponentType == MIXERLINE_COMPONENTTYPE_SRC_LINE) {
        return source.dwLineID;
      }
    }
    return 0;
  }
  bool RaiseVolume(DWORD line) const {
    MIXERCONTROLW control{};
    control.cbStruct = sizeof control;
    MIXERLINECONTROLSW controls{};
    controls.cbStruct = sizeof controls;
    controls.dwLineID = line;
    controls.dwControlType = MIXERCONTROL_CONTROLTYPE_VOLUME;
    controls.cControls = 1;
    controls.cbmxctrl = sizeof control;
    controls.pamxctrl = &control;
    // Deliberately with the flag of a mixer's number where the handle is passed, here and where the value is read.
    if (os::mixerGetLineControlsW(Object(), &controls, MIXER_OBJECTF_MIXER | MIXER_GETLINECONTROLSF_ONEBYTYPE) !=
        MMSYSERR_NOERROR) {
      return false;
    }
    MIXERCONTROLDETAILS_UNSIGNED value{};
    MIXERCONTROLDETAILS details{};
    details.cbStruct = sizeof details;
    details.dwControlID = control.dwControlID;
    details.cChannels = 1;
    details.cbDetails = sizeof value;
    details.paDetails = &value;
    if (os::mixerGetControlDetailsW(Object(), &details, MIXER_OBJECTF_MIXER | MIXER_GETCONTROLDETAILSF_VALUE) !=
        MMSYSERR_NOERROR) {
      return false;
    }
    value.dwValue = control.Bounds.dwMaximum * 99U / 100U;
    return os::mixerSetControlDetails(Object(), &details, MIXER_OBJECTF_HMIXER | MIXER_SETCONTROLDETAILSF_VALUE) ==
           MMSYSERR_NOERROR;
  }

 private:
  HMIXEROBJ Object() const { return reinterpret_cast<HMIXEROBJ>(handle_); }
  HMIXER handle_ = nullptr;
};

// One capture endpoint.
class Endpoint {
 public:
  Endpoint(IMMDeviceEnumerator& enumerator, IMMDeviceCollection& collection, UINT index)
      : enumerator_(enumerator), found_(SUCCEEDED(collection.Item(index, device_.Put()))) {}

  // False when it has none that can be read.
  bool Name(std::wstring& name) const {
    ComPtr<IPropertyStore> store;
    PROPVARIANT value{};
    if (!found_ || FAILED(device_->OpenPropertyStore(STGM_READ, store.Put())) ||
        FAILED(store->GetValue(kKeyFriendlyName, &value))) {
      return false;
    }
    const bool had = HadMemory([&] { name = value.vt == VT_LPWSTR && value.pwszVal ? value.pwszVal : L""; });
    os::PropVariantClear(&value);
    return had;
  }
  bool RaiseVolume() const {
    WCHAR* id = nullptr;
    if (FAILED(device_->GetId(&id))) return false;
    ComPtr<IMMDevice> device;
    const bool found = SUCCEEDED(enumerator_.GetDevice(id, device.Put()));
    os::CoTaskMemFree(id);
    ComPtr<IAudioSessionManager> sessions;
    ComPtr<ISimpleAudioVolume> session;
    ComPtr<IAudioEndpointVolume> endpoint;
    float level = 0;
    if (!found || FAILED(device->Activate(kIidSessionManager, CLSCTX_INPROC_SERVER, nullptr, sessions.PutVoid())) ||
        FAILED(sessions->GetSimpleAudioVolume(nullptr, FALSE, session.Put())) ||
        FAILED(device->Activate(kIidEndpointVolume, CLSCTX_ALL, nullptr, endpoint.PutVoid())) ||
        FAILED(endpoint->GetMasterVolumeLevelScalar(&level))) {
      return false;
    }
    const float target = CEnvironmentMonitor::OsVersion() == WindowsVersion_FullVolume ? 0.99F : 0.9F;
    if (std::fabs(target - level) > 0.002F) endpoint->SetMasterVolumeLevelScalar(target, nullptr);
    BOOL muted = TRUE;
    session->GetMute(&muted);
    if (muted) session->SetMute(FALSE, nullptr);
    return true;
  }

 private:
  IMMDeviceEnumerator& enumerator_;
  ComPtr<IMMDevice> device_;
  const bool found_;
};

int RaiseEndpoints(const std::wstring& deviceName) {
  ComPtr<IMMDeviceEnumerator> enumerator;
  ComPtr<IMMDeviceCollection> collection;
  UINT count = 0;
  if (FAILED(MakeDeviceEnumerator(enumerator)) ||
      FAILED(enumerator->EnumAudioEndpoints(eCapture, DEVICE_STATE_ACTIVE, collection.Put())) ||
      FAILED(collection->GetCount(&count))) {
    return -1;
  }
  int result = -1;
  for (UINT i = 0; i < count; ++i) {
    const Endpoint endpoint(*enumerator.Get(), *collection.Get(), i);
    std::wstring name;
    if (!endpoint.Name(name) || !Contains(name, deviceName)) continue;
    if (!endpoint.RaiseVolume()) break;
    result = static_cast<int>(i);
  }
  return result;
}

}  // namespace

std::vector<std::wstring> WaveInDeviceNames() {
  std::vector<std::wstring> names;
  const UINT count = os::waveInGetNumDevs();
  for (UINT i = 0; i < count; ++i) {
    WAVEINCAPSW caps{};
    os::waveInGetDevCapsW(i, &caps, sizeof caps);
    names.push_back(TextOf(caps.szPname));
  }
  return names;
}

namespace {

int FindSoundCard() {
  CVoxDeviceInfo& info = *CVoxDeviceInfo::Instance();
  const std::vector<std::wstring> names = WaveInDeviceNames();
  if (names.empty()) {
    info.SetFormerDeviceName(L"no soundcard");
    return -1;
  }
  const auto found = std::find_if(names.begin(), names.end(), [](const std::wstring& name) {
    return Contains(name, L"oxMouse") || Contains(name, L"USB Audio Device") || Contains(name, L"PnP Audio Device");
  });
  if (found == names.end()) {
    info.SetFormerDeviceName(L"no vox soundcard");
    return -1;
  }
  info.SetFormerDeviceName(WithoutParentheses(*found).c_str());
  return static_cast<int>(std::distance(names.begin(), found));
}

}  // namespace

int CVoxRecord::VoxCheckSoundCard() {
  const CNotCutOff whole;
  int index = -1;
  HadMemory([&] { index = FindSoundCard(); });
  return index;
}

int SetMixerInputVolume(const wchar_t* deviceName) {
  int result = 0;
  const UINT count = os::mixerGetNumDevs();
  for (UINT i = 0; i < count; ++i) {
    const Mixer mixer(i);
    MIXERLINEW destination;
    if (!mixer.Open() || !mixer.WaveInDestination(destination) ||
        !Contains(TextOf(destination.Target.szPname), deviceName)) {
      continue;
    }
    if (!mixer.RaiseVolume(mixer.InputLine(destination))) return -2;
    result = 1;
  }
  return result;
}

int SetEndpointInputVolume(const wchar_t* deviceName) {
  const ComApartment com;
  const int result = com.Ok() ? RaiseEndpoints(deviceName) : -1;
  if (result == -1) VoxMessage::Log(L"设置音量失败", LogType_Recording);
  return result;
}
