// COM, Core Audio and the multimedia class scheduler on the simulated machine.
#include <algorithm>
#include <cstring>
#include <cwchar>
#include <new>

#include "platform/os.h"
#include "sim/Machine.h"

namespace sim {
namespace {

constexpr GUID kClassEnumerator{0xbcde0395, 0xe52f, 0x467c, {0x8e, 0x3d, 0xc4, 0x57, 0x92, 0x91, 0x69, 0x2e}};
constexpr GUID kEnumerator{0xa95664d2, 0x9614, 0x4f35, {0xa7, 0x46, 0xde, 0x8d, 0xb6, 0x36, 0x17, 0xe6}};
constexpr GUID kAudioClient{0x1cb9ad4c, 0xdbfa, 0x4c32, {0xb1, 0x78, 0xc2, 0xf5, 0x68, 0xa7, 0x03, 0xb2}};
constexpr GUID kCaptureClient{0xc8adbd64, 0xe71e, 0x48a0, {0xa4, 0xde, 0x18, 0x5c, 0x39, 0x5c, 0xd3, 0x17}};
constexpr GUID kEndpointVolume{0x5cdf2c82, 0x841e, 0x4546, {0x97, 0x22, 0x0c, 0xf7, 0x40, 0x78, 0x22, 0x9a}};
constexpr GUID kSessionManager{0xbfa971f1, 0x4d5e, 0x40bb, {0x93, 0x5e, 0x96, 0x70, 0x39, 0xbf, 0xbe, 0xe4}};
constexpr PROPERTYKEY kFriendlyName{{0xa45c254e, 0xdf1c, 0x4efd, {0x80, 0x20, 0x67, 0xd1, 0x46, 0xa8, 0x50, 0xe0}}, 14};
constexpr std::size_t kSpeakerIndex = 1000;

bool same(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

SoundSystem& sound() { return Machine::current().sound(); }
HRESULT injected(const char* call) { return static_cast<HRESULT>(sound().fault(call)); }

// Enters the machine for one call; a fault of that name ends it.
#define SIM_ENTER(call)                                    \
  Kernel::Lock lock = Machine::current().kernel().enter(); \
  sound().stalled(lock, call);                             \
  if (const HRESULT error = injected(call); FAILED(error)) return error

template <class Interface>
class Com : public Interface, public ComObject {
 public:
  Com() {
    ++sound().open.comReferences;
    sound().objects.insert(this);
  }
  Com(const Com&) = delete;
  Com& operator=(const Com&) = delete;

  HRESULT STDMETHODCALLTYPE QueryInterface(const GUID&, void** object) override {
    *object = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override {
    const Kernel::Lock lock = Machine::current().kernel().enterQuietly();
    ++sound().open.comReferences;
    return ++references_;
  }
  ULONG STDMETHODCALLTYPE Release() override {
    const Kernel::Lock lock = Machine::current().kernel().enterQuietly();
    --sound().open.comReferences;
    const ULONG left = --references_;
    if (left == 0) {
      sound().objects.erase(this);
      delete this;
    }
    return left;
  }

 private:
  ULONG references_ = 1;
};

WCHAR* taskText(const std::wstring& text) {
  auto* copy = static_cast<WCHAR*>(::operator new((text.size() + 1) * sizeof(WCHAR)));
  std::copy_n(text.c_str(), text.size() + 1, copy);
  ++sound().open.taskMemory;
  return copy;
}

class Store final : public Com<IPropertyStore> {
 public:
  explicit Store(std::wstring name) : name_(std::move(name)) {}
  HRESULT STDMETHODCALLTYPE GetCount(DWORD* count) override { return *count = 1, S_OK; }
  HRESULT STDMETHODCALLTYPE GetAt(DWORD, PROPERTYKEY* key) override { return *key = kFriendlyName, S_OK; }
  HRESULT STDMETHODCALLTYPE GetValue(const PROPERTYKEY& key, PROPVARIANT* value) override {
    SIM_ENTER("IPropertyStore::GetValue");
    if (!same(key.fmtid, kFriendlyName.fmtid) || key.pid != kFriendlyName.pid) return value->vt = VT_EMPTY, S_OK;
    value->vt = VT_LPWSTR;
    value->pwszVal = taskText(name_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetValue(const PROPERTYKEY&, const PROPVARIANT&) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE Commit() override { return E_NOTIMPL; }

 private:
  const std::wstring name_;
};

class SessionVolume final : public Com<ISimpleAudioVolume> {
 public:
  explicit SessionVolume(std::size_t endpoint) : endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE SetMasterVolume(float, const GUID*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetMasterVolume(float* level) override { return *level = 1, S_OK; }
  HRESULT STDMETHODCALLTYPE SetMute(BOOL mute, const GUID*) override {
    SIM_ENTER("ISimpleAudioVolume::SetMute");
    sound().endpoints.at(endpoint_).muted = mute != FALSE;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetMute(BOOL* mute) override {
    SIM_ENTER("ISimpleAudioVolume::GetMute");
    *mute = sound().endpoints.at(endpoint_).muted ? TRUE : FALSE;
    return S_OK;
  }

 private:
  const std::size_t endpoint_;
};

class SessionManager final : public Com<IAudioSessionManager> {
 public:
  explicit SessionManager(std::size_t endpoint) : endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE GetAudioSessionControl(const GUID*, DWORD, IAudioSessionControl**) override {
    return E_NOINTERFACE;
  }
  HRESULT STDMETHODCALLTYPE GetSimpleAudioVolume(const GUID* session, DWORD crossProcess,
                                                 ISimpleAudioVolume** volume) override {
    SIM_ENTER("IAudioSessionManager::GetSimpleAudioVolume");
    if (session || crossProcess != FALSE) return E_INVALIDARG;
    *volume = new SessionVolume(endpoint_);
    return S_OK;
  }

 private:
  const std::size_t endpoint_;
};

class EndpointVolume final : public Com<IAudioEndpointVolume> {
 public:
  explicit EndpointVolume(std::size_t endpoint) : endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE RegisterControlChangeNotify(IAudioEndpointVolumeCallback*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE UnregisterControlChangeNotify(IAudioEndpointVolumeCallback*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE GetChannelCount(UINT* count) override { return *count = 1, S_OK; }
  HRESULT STDMETHODCALLTYPE SetMasterVolumeLevel(float, const GUID*) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE SetMasterVolumeLevelScalar(float level, const GUID*) override {
    SIM_ENTER("IAudioEndpointVolume::SetMasterVolumeLevelScalar");
    sound().endpoints.at(endpoint_).volume = level;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetMasterVolumeLevel(float*) override { return E_FAIL; }
  HRESULT STDMETHODCALLTYPE GetMasterVolumeLevelScalar(float* level) override {
    SIM_ENTER("IAudioEndpointVolume::GetMasterVolumeLevelScalar");
    *level = sound().endpoints.at(endpoint_).volume;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetChannelVolumeLevel(UINT, float, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetChannelVolumeLevelScalar(UINT, float, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetChannelVolumeLevel(UINT, float*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetChannelVolumeLevelScalar(UINT, float*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE SetMute(BOOL, const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetMute(BOOL*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetVolumeStepInfo(UINT*, UINT*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE VolumeStepUp(const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE VolumeStepDown(const GUID*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE QueryHardwareSupport(DWORD*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetVolumeRange(float*, float*, float*) override { return E_NOTIMPL; }

 private:
  const std::size_t endpoint_;
};

// What an audio client and its capture client share: the loopback of the speaker, in packets.
struct Stream {
  std::deque<std::vector<std::int16_t>> packets;  // each in a block of its own
  HANDLE event = nullptr;
  bool running = false;
  unsigned generation = 0;
  std::int64_t periods = 0;
  std::size_t delivered = 0;

  void schedule(Machine& machine, std::weak_ptr<Stream> weak) {
    const Time period(machine.sound().speaker.period / 10);
    machine.kernel().after(period, [&machine, weak, mine = generation] {
      const auto self = weak.lock();
      if (!self || !self->running || self->generation != mine) return;
      self->period(machine);
      self->schedule(machine, weak);
    });
  }
  void period(Machine& machine) {
    RenderEndpoint& speaker = machine.sound().speaker;
    WAVEFORMATEX format;
    std::memcpy(&format, speaker.mixFormat.data(), sizeof format);
    // Frames that have passed so far, so that rates that are no multiple of the period keep their time.
    ++periods;
    const std::int64_t passed = periods * format.nSamplesPerSec * speaker.period / 10'000'000;
    const std::size_t frames =
        speaker.packetFrames != 0 ? speaker.packetFrames : static_cast<std::size_t>(passed - passed_);
    passed_ = passed;
    const std::size_t samples = std::min(frames * format.nChannels, speaker.plays.size() - speaker.played);
    if (samples > 0) {
      const auto from = speaker.plays.begin() + static_cast<std::ptrdiff_t>(speaker.played);
      packets.emplace_back(from, from + static_cast<std::ptrdiff_t>(samples));
      speaker.played += samples;
    }
    if (!event) return;
    if (const auto object = machine.kernel().find<Event>(event)) object->set(machine.kernel());
  }

 private:
  std::int64_t passed_ = 0;
};

std::size_t channelsOfMix() {
  WAVEFORMATEX format;
  std::memcpy(&format, sound().speaker.mixFormat.data(), sizeof format);
  return format.nChannels;
}

class CaptureClient final : public Com<IAudioCaptureClient> {
 public:
  explicit CaptureClient(std::shared_ptr<Stream> stream) : stream_(std::move(stream)) {}
  HRESULT STDMETHODCALLTYPE GetBuffer(BYTE** data, UINT32* frames, DWORD* flags, UINT64*, UINT64*) override {
    SIM_ENTER("IAudioCaptureClient::GetBuffer");
    if (stream_->packets.empty()) return *frames = 0, S_OK;
    auto& packet = stream_->packets.front();
    *data = reinterpret_cast<BYTE*>(packet.data());
    *frames = static_cast<UINT32>(packet.size() / channelsOfMix());
    const auto& all = sound().speaker.flags;
    *flags = all.empty() ? 0 : all[stream_->delivered % all.size()];
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ReleaseBuffer(UINT32 frames) override {
    SIM_ENTER("IAudioCaptureClient::ReleaseBuffer");
    if (frames == 0 || stream_->packets.empty()) return S_OK;
    stream_->packets.pop_front();
    ++stream_->delivered;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetNextPacketSize(UINT32* frames) override {
    SIM_ENTER("IAudioCaptureClient::GetNextPacketSize");
    *frames = stream_->packets.empty() ? 0 : static_cast<UINT32>(stream_->packets.front().size() / channelsOfMix());
    return S_OK;
  }

 private:
  const std::shared_ptr<Stream> stream_;
};

class AudioClient final : public Com<IAudioClient> {
 public:
  AudioClient() : stream_(std::make_shared<Stream>()) {}
  HRESULT STDMETHODCALLTYPE Initialize(AUDCLNT_SHAREMODE mode, DWORD flags, REFERENCE_TIME bufferDuration,
                                       REFERENCE_TIME periodicity, const WAVEFORMATEX* format,
                                       const GUID* session) override {
    SIM_ENTER("IAudioClient::Initialize");
    if (mode != AUDCLNT_SHAREMODE_SHARED || session || format->wBitsPerSample != 16) return E_INVALIDARG;
    sound().clientSetup = {.flags = flags,
                           .bufferDuration = bufferDuration,
                           .periodicity = periodicity,
                           .formatTag = format->wFormatTag,
                           .bits = format->wBitsPerSample,
                           .blockAlign = format->nBlockAlign,
                           .bytesPerSecond = format->nAvgBytesPerSec};
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetBufferSize(UINT32* frames) override { return *frames = 0, S_OK; }
  HRESULT STDMETHODCALLTYPE GetStreamLatency(REFERENCE_TIME* latency) override { return *latency = 0, S_OK; }
  HRESULT STDMETHODCALLTYPE GetCurrentPadding(UINT32* frames) override { return *frames = 0, S_OK; }
  HRESULT STDMETHODCALLTYPE IsFormatSupported(AUDCLNT_SHAREMODE, const WAVEFORMATEX*, WAVEFORMATEX**) override {
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetMixFormat(WAVEFORMATEX** format) override {
    SIM_ENTER("IAudioClient::GetMixFormat");
    const auto& bytes = sound().speaker.mixFormat;
    void* memory = ::operator new(bytes.size());
    std::memcpy(memory, bytes.data(), bytes.size());
    ++sound().open.taskMemory;
    *format = static_cast<WAVEFORMATEX*>(memory);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDevicePeriod(REFERENCE_TIME* defaultPeriod, REFERENCE_TIME* minimumPeriod) override {
    SIM_ENTER("IAudioClient::GetDevicePeriod");
    *defaultPeriod = sound().speaker.period;
    *minimumPeriod = sound().speaker.period / 3;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Start() override {
    SIM_ENTER("IAudioClient::Start");
    stream_->running = true;
    stream_->schedule(Machine::current(), stream_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Stop() override {
    SIM_ENTER("IAudioClient::Stop");
    stream_->running = false;
    ++stream_->generation;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Reset() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE SetEventHandle(HANDLE event) override {
    SIM_ENTER("IAudioClient::SetEventHandle");
    stream_->event = event;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetService(const GUID& iid, void** service) override {
    SIM_ENTER("IAudioClient::GetService");
    if (!same(iid, kCaptureClient)) return E_NOINTERFACE;
    *service = static_cast<IAudioCaptureClient*>(new CaptureClient(stream_));
    return S_OK;
  }

 private:
  const std::shared_ptr<Stream> stream_;
};

class Device final : public Com<IMMDevice> {
 public:
  explicit Device(std::size_t endpoint) : endpoint_(endpoint) {}
  HRESULT STDMETHODCALLTYPE Activate(const GUID& iid, DWORD, PROPVARIANT*, void** object) override {
    SIM_ENTER("IMMDevice::Activate");
    if (same(iid, kAudioClient) && endpoint_ == kSpeakerIndex) {
      *object = static_cast<IAudioClient*>(new AudioClient);
    } else if (same(iid, kSessionManager) && endpoint_ != kSpeakerIndex) {
      *object = static_cast<IAudioSessionManager*>(new SessionManager(endpoint_));
    } else if (same(iid, kEndpointVolume) && endpoint_ != kSpeakerIndex) {
      *object = static_cast<IAudioEndpointVolume*>(new EndpointVolume(endpoint_));
    } else {
      return E_NOINTERFACE;
    }
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OpenPropertyStore(DWORD access, IPropertyStore** store) override {
    SIM_ENTER("IMMDevice::OpenPropertyStore");
    if (access != STGM_READ) return E_INVALIDARG;
    *store = new Store(endpoint_ == kSpeakerIndex ? sound().speaker.name : sound().endpoints.at(endpoint_).name);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetId(WCHAR** id) override {
    SIM_ENTER("IMMDevice::GetId");
    *id = taskText(std::to_wstring(endpoint_));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetState(DWORD* state) override { return *state = DEVICE_STATE_ACTIVE, S_OK; }

 private:
  const std::size_t endpoint_;
};

class Collection final : public Com<IMMDeviceCollection> {
 public:
  explicit Collection(std::size_t count) : count_(count) {}
  HRESULT STDMETHODCALLTYPE GetCount(UINT* count) override {
    SIM_ENTER("IMMDeviceCollection::GetCount");
    *count = static_cast<UINT>(count_);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Item(UINT index, IMMDevice** device) override {
    SIM_ENTER("IMMDeviceCollection::Item");
    if (index >= count_) return E_INVALIDARG;
    *device = new Device(index);
    return S_OK;
  }

 private:
  const std::size_t count_;
};

class Enumerator final : public Com<IMMDeviceEnumerator> {
 public:
  HRESULT STDMETHODCALLTYPE EnumAudioEndpoints(EDataFlow flow, DWORD states, IMMDeviceCollection** devices) override {
    SIM_ENTER("IMMDeviceEnumerator::EnumAudioEndpoints");
    if (flow != eCapture || states != DEVICE_STATE_ACTIVE) return E_INVALIDARG;
    *devices = new Collection(sound().endpoints.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDefaultAudioEndpoint(EDataFlow flow, ERole role, IMMDevice** device) override {
    SIM_ENTER("IMMDeviceEnumerator::GetDefaultAudioEndpoint");
    if (flow != eRender || role != eConsole || !sound().hasSpeaker) return E_FAIL;
    *device = new Device(kSpeakerIndex);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDevice(const WCHAR* id, IMMDevice** device) override {
    SIM_ENTER("IMMDeviceEnumerator::GetDevice");
    *device = new Device(static_cast<std::size_t>(std::wcstoul(id, nullptr, 10)));
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE RegisterEndpointNotificationCallback(IMMNotificationClient*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE UnregisterEndpointNotificationCallback(IMMNotificationClient*) override {
    return E_NOTIMPL;
  }
};

#undef SIM_ENTER

class Task final : public Object {
 public:
  bool signalled(const Thread&) const override { return false; }
  const char* kind() const override { return "scheduler task"; }
};

}  // namespace
}  // namespace sim

namespace os {

using sim::Kernel;
using sim::Machine;

HRESULT CoInitialize(void*) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  ++machine.sound().open.apartments;
  return static_cast<HRESULT>(machine.sound().fault("CoInitialize"));
}

void CoUninitialize() {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  --machine.sound().open.apartments;
}

HRESULT CoCreateInstance(const GUID& classId, IUnknown* outer, DWORD context, const GUID& iid, void** object) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (const auto error = static_cast<HRESULT>(machine.sound().fault("CoCreateInstance")); FAILED(error)) return error;
  if (outer || context != CLSCTX_ALL || !sim::same(classId, sim::kClassEnumerator) ||
      !sim::same(iid, sim::kEnumerator)) {
    return E_NOINTERFACE;
  }
  *object = static_cast<IMMDeviceEnumerator*>(new sim::Enumerator);
  return S_OK;
}

void CoTaskMemFree(void* memory) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (memory) --machine.sound().open.taskMemory;
  ::operator delete(memory);
}

HRESULT PropVariantClear(PROPVARIANT* value) {
  if (value->vt == VT_LPWSTR) CoTaskMemFree(value->pwszVal);
  *value = {};
  return S_OK;
}

HANDLE AvSetMmThreadCharacteristicsW(const WCHAR* task, DWORD*) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (machine.sound().fault("AvSetMmThreadCharacteristicsW") != 0 || std::wstring(task) != L"Capture") return nullptr;
  ++machine.sound().open.mmcssTasks;
  return machine.kernel().open(std::make_shared<sim::Task>());
}

BOOL AvRevertMmThreadCharacteristics(HANDLE task) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  --machine.sound().open.mmcssTasks;
  return machine.kernel().close(task) ? TRUE : FALSE;
}

}  // namespace os
