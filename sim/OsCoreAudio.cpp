// Audio endpoints on the simulated machine: their list, their names, their volumes.
#include <cwchar>
#include <string>

#include "sim/Com.h"

namespace sim {
namespace {

constexpr GUID kAudioClient{0x1cb9ad4c, 0xdbfa, 0x4c32, {0xb1, 0x78, 0xc2, 0xf5, 0x68, 0xa7, 0x03, 0xb2}};
constexpr GUID kEndpointVolume{0x5cdf2c82, 0x841e, 0x4546, {0x97, 0x22, 0x0c, 0xf7, 0x40, 0x78, 0x22, 0x9a}};
constexpr GUID kSessionManager{0xbfa971f1, 0x4d5e, 0x40bb, {0x93, 0x5e, 0x96, 0x70, 0x39, 0xbf, 0xbe, 0xe4}};
constexpr PROPERTYKEY kFriendlyName{{0xa45c254e, 0xdf1c, 0x4efd, {0x80, 0x20, 0x67, 0xd1, 0x46, 0xa8, 0x50, 0xe0}}, 14};
constexpr std::size_t kSpeakerIndex = 1000;
constexpr const char* kNoRoom = "no room for what it gives";

SoundSystem& sound() { return Machine::current().sound(); }

class Store final : public Com<IPropertyStore> {
 public:
  explicit Store(std::wstring text) : Com("IPropertyStore"), text_(std::move(text)) {}
  HRESULT STDMETHODCALLTYPE GetCount(DWORD*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetAt(DWORD, PROPERTYKEY*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetValue(const PROPERTYKEY& key, PROPVARIANT* value) override {
    Method call(*this, "IPropertyStore::GetValue");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!value) return call.misused(kNoRoom, E_POINTER);
    if (!same(key.fmtid, kFriendlyName.fmtid) || key.pid != kFriendlyName.pid) return value->vt = VT_EMPTY, S_OK;
    value->vt = VT_LPWSTR;
    value->pwszVal = taskText(text_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetValue(const PROPERTYKEY&, const PROPVARIANT&) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Commit() override { return E_NOTIMPL; }

 private:
  const std::wstring text_;
};

class SessionVolume final : public Com<ISimpleAudioVolume> {
 public:
  explicit SessionVolume(std::size_t endpoint) : Com("ISimpleAudioVolume"), endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE SetMasterVolume(float, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMasterVolume(float*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetMute(BOOL mute, const GUID*) override {
    Method call(*this, "ISimpleAudioVolume::SetMute");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    sound().endpoints.at(endpoint_).sessionMuted = mute != FALSE;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetMute(BOOL* mute) override {
    Method call(*this, "ISimpleAudioVolume::GetMute");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!mute) return call.misused(kNoRoom, E_POINTER);
    *mute = sound().endpoints.at(endpoint_).sessionMuted ? TRUE : FALSE;
    return S_OK;
  }

 private:
  const std::size_t endpoint_;
};

class SessionManager final : public Com<IAudioSessionManager> {
 public:
  explicit SessionManager(std::size_t endpoint) : Com("IAudioSessionManager"), endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE GetAudioSessionControl(const GUID*, DWORD, IAudioSessionControl**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE GetSimpleAudioVolume(const GUID* session, DWORD crossProcess,
                                                 ISimpleAudioVolume** volume) override {
    Method call(*this, "IAudioSessionManager::GetSimpleAudioVolume");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!volume) return call.misused(kNoRoom, E_POINTER);
    if (session || crossProcess != FALSE) return call.misused("the machine knows the default session", E_INVALIDARG);
    *volume = makeCom<SessionVolume>(endpoint_);
    return S_OK;
  }

 private:
  const std::size_t endpoint_;
};

class EndpointVolume final : public Com<IAudioEndpointVolume> {
 public:
  explicit EndpointVolume(std::size_t endpoint) : Com("IAudioEndpointVolume"), endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE RegisterControlChangeNotify(IAudioEndpointVolumeCallback*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE UnregisterControlChangeNotify(IAudioEndpointVolumeCallback*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetChannelCount(UINT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetMasterVolumeLevel(float, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetMasterVolumeLevelScalar(float level, const GUID*) override {
    Method call(*this, "IAudioEndpointVolume::SetMasterVolumeLevelScalar");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!(level >= 0 && level <= 1)) return call.misused("a level outside of 0 to 1", E_INVALIDARG);
    sound().endpoints.at(endpoint_).volume = level;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetMasterVolumeLevel(float*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMasterVolumeLevelScalar(float* level) override {
    Method call(*this, "IAudioEndpointVolume::GetMasterVolumeLevelScalar");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!level) return call.misused(kNoRoom, E_POINTER);
    *level = sound().endpoints.at(endpoint_).volume;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetChannelVolumeLevel(UINT, float, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetChannelVolumeLevelScalar(UINT, float, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetChannelVolumeLevel(UINT, float*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetChannelVolumeLevelScalar(UINT, float*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetMute(BOOL mute, const GUID*) override {
    Method call(*this, "IAudioEndpointVolume::SetMute");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    bool& muted = sound().endpoints.at(endpoint_).muted;
    return std::exchange(muted, mute != FALSE) == (mute != FALSE) ? S_FALSE : S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetMute(BOOL* mute) override {
    Method call(*this, "IAudioEndpointVolume::GetMute");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!mute) return call.misused(kNoRoom, E_POINTER);
    *mute = sound().endpoints.at(endpoint_).muted ? TRUE : FALSE;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetVolumeStepInfo(UINT*, UINT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE VolumeStepUp(const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE VolumeStepDown(const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryHardwareSupport(DWORD*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetVolumeRange(float*, float*, float*) override { return E_NOTIMPL; }

 private:
  const std::size_t endpoint_;
};

class Device final : public Com<IMMDevice> {
 public:
  explicit Device(std::size_t endpoint) : Com("IMMDevice"), endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE Activate(const GUID& iid, DWORD context, PROPVARIANT* parameters, void** object) override {
    Method call(*this, "IMMDevice::Activate");
    if (const HRESULT error = call.refused(AUDCLNT_E_DEVICE_INVALIDATED); FAILED(error)) return error;
    if (!object) return call.misused(kNoRoom, E_POINTER);
    *object = nullptr;
    if ((context & CLSCTX_INPROC_SERVER) == 0) {
      return call.misused("a context in which the interface is not", E_INVALIDARG);
    }
    if (parameters) return call.misused("parameters that the interface does not take", E_INVALIDARG);
    if (endpoint_ == kSpeakerIndex && pulls_ != sound().speaker.pulls) return AUDCLNT_E_DEVICE_INVALIDATED;
    if (same(iid, kAudioClient) && endpoint_ == kSpeakerIndex) {
      *object = makeAudioClient();
    } else if (same(iid, kSessionManager) && endpoint_ != kSpeakerIndex) {
      *object = static_cast<IAudioSessionManager*>(makeCom<SessionManager>(endpoint_));
    } else if (same(iid, kEndpointVolume) && endpoint_ != kSpeakerIndex) {
      *object = static_cast<IAudioEndpointVolume*>(makeCom<EndpointVolume>(endpoint_));
    } else {
      return E_NOINTERFACE;
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OpenPropertyStore(DWORD access, IPropertyStore** store) override {
    Method call(*this, "IMMDevice::OpenPropertyStore");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!store) return call.misused(kNoRoom, E_POINTER);
    if (access != STGM_READ) return call.misused("the machine's stores are read alone", E_INVALIDARG);
    *store = makeCom<Store>(endpoint_ == kSpeakerIndex ? sound().speaker.name : sound().endpoints.at(endpoint_).name);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetId(WCHAR** id) override {
    Method call(*this, "IMMDevice::GetId");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!id) return call.misused(kNoRoom, E_POINTER);
    *id = taskText(std::to_wstring(endpoint_));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetState(DWORD*) override { return E_NOTIMPL; }

 private:
  const std::size_t endpoint_;
  const unsigned pulls_ = sound().speaker.pulls;
};

class Collection final : public Com<IMMDeviceCollection> {
 public:
  explicit Collection(std::size_t count) : Com("IMMDeviceCollection"), count_(count) {}
  HRESULT STDMETHODCALLTYPE GetCount(UINT* count) override {
    Method call(*this, "IMMDeviceCollection::GetCount");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!count) return call.misused(kNoRoom, E_POINTER);
    *count = static_cast<UINT>(count_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Item(UINT index, IMMDevice** device) override {
    Method call(*this, "IMMDeviceCollection::Item");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!device) return call.misused(kNoRoom, E_POINTER);
    if (index >= count_) return call.misused("an endpoint that it does not have", E_INVALIDARG);
    *device = makeCom<Device>(index);
    return S_OK;
  }

 private:
  const std::size_t count_;
};

class Enumerator final : public Com<IMMDeviceEnumerator> {
 public:
  Enumerator() : Com("IMMDeviceEnumerator") {}
  HRESULT STDMETHODCALLTYPE EnumAudioEndpoints(EDataFlow flow, DWORD states, IMMDeviceCollection** devices) override {
    Method call(*this, "IMMDeviceEnumerator::EnumAudioEndpoints");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!devices) return call.misused(kNoRoom, E_POINTER);
    if (flow != eCapture || states != DEVICE_STATE_ACTIVE) {
      return call.misused("the machine lists active capture endpoints alone", E_INVALIDARG);
    }
    *devices = makeCom<Collection>(sound().endpoints.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDefaultAudioEndpoint(EDataFlow flow, ERole role, IMMDevice** device) override {
    constexpr auto kNotFound = static_cast<HRESULT>(0x80070490);
    Method call(*this, "IMMDeviceEnumerator::GetDefaultAudioEndpoint");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!device) return call.misused(kNoRoom, E_POINTER);
    if (flow != eRender || role != eConsole) return call.misused("the machine has one for rendering", E_INVALIDARG);
    if (!sound().hasSpeaker) return kNotFound;
    *device = makeCom<Device>(kSpeakerIndex);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDevice(const WCHAR* id, IMMDevice** device) override {
    constexpr auto kNotFound = static_cast<HRESULT>(0x80070490);
    Method call(*this, "IMMDeviceEnumerator::GetDevice");
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!id || !device) return call.misused("no identifier, or no room for what it gives", E_POINTER);
    const auto index = static_cast<std::size_t>(std::wcstoul(id, nullptr, 10));
    if (index >= sound().endpoints.size()) return kNotFound;
    *device = makeCom<Device>(index);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RegisterEndpointNotificationCallback(IMMNotificationClient*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE UnregisterEndpointNotificationCallback(IMMNotificationClient*) override {
    return E_NOTIMPL;
  }
};

}  // namespace

IMMDeviceEnumerator* makeEnumerator() { return makeCom<Enumerator>(); }

}  // namespace sim
