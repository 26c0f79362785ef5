// The audio engine of the simulated machine: its client, and the loopback of the speaker.
#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "sim/Com.h"

namespace sim {
namespace {

constexpr GUID kCaptureClient{0xc8adbd64, 0xe71e, 0x48a0, {0xa4, 0xde, 0x18, 0x5c, 0x39, 0x5c, 0xd3, 0x17}};
constexpr DWORD kKnownFlags = AUDCLNT_STREAMFLAGS_LOOPBACK | AUDCLNT_STREAMFLAGS_EVENTCALLBACK;
constexpr std::size_t kLeastPackets = 2;  // of the backlog

SoundSystem& sound() { return Machine::current().sound(); }

WAVEFORMATEX mixed() {
  WAVEFORMATEX format;
  std::memcpy(&format, sound().speaker.mixFormat.data(), sizeof format);
  return format;
}

// What is wrong with a format that the engine is to deliver; null: nothing. It gives 16-bit integers at the rate and
// with the channels of the mix.
const char* wrongWith(const WAVEFORMATEX& format) {
  if (format.wFormatTag == WAVE_FORMAT_EXTENSIBLE) {
    if (format.cbSize < sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX)) return "cbSize of an extensible format";
    WAVEFORMATEXTENSIBLE extensible;
    std::memcpy(&extensible, &format, sizeof extensible);
    if (!same(extensible.SubFormat, {1, 0, 0x10, {0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71}})) return "the sub-format";
    if (extensible.Samples.wValidBitsPerSample != format.wBitsPerSample) return "the valid bits";
  } else if (format.wFormatTag != WAVE_FORMAT_PCM) {
    return "the format tag";
  }
  const WAVEFORMATEX mix = mixed();
  if (format.nSamplesPerSec != mix.nSamplesPerSec) return "the rate is not that of the mix";
  if (format.nChannels != mix.nChannels) return "the channels are not those of the mix";
  if (format.wBitsPerSample != 16) return "the bits";
  if (format.nBlockAlign != format.nChannels * 2) return "the block align";
  return format.nAvgBytesPerSec != format.nBlockAlign * format.nSamplesPerSec ? "the average bytes" : nullptr;
}

// What an audio client and its capture client share, in packets. It runs until it is stopped or both have gone.
class Stream final : public std::enable_shared_from_this<Stream> {
 public:
  struct Packet {
    std::vector<std::int16_t> samples;
    bool afterGap = false;
  };

  void start(Machine& machine) REQUIRES(gate) {
    running = true;
    stopCalled = false;
    began_ = machine.kernel().now();
    periods_ = 0;
    passed_ = 0;
    schedule(machine);
  }
  void stop() {
    running = false;
    ++generation_;
  }
  void leave(Kernel& kernel) REQUIRES(gate) {
    if (--clients > 0) return;
    if (running && event && !kernel.find<Event>(event)) eventIsClosed(kernel);
    stop();
  }
  // The speaker has been pulled out since the client was made, or its service has failed.
  bool isInvalid() const { return failed || pulls_ != sound().speaker.pulls; }
  UINT32 nextFrames() const {
    return packets.empty() ? 0 : static_cast<UINT32>(packets.front().samples.size() / mixed().nChannels);
  }

  std::deque<Packet> packets;  // each in a block of its own
  HANDLE event = nullptr;
  bool initialized = false;
  DWORD flags = 0;
  REFERENCE_TIME bufferDuration = 0;
  bool running = false;
  bool stopCalled = false;  // also when it has failed
  bool failed = false;
  bool taken = false;  // the first packet is with the client, between GetBuffer and ReleaseBuffer
  std::size_t delivered = 0;
  int clients = 0;

 private:
  void schedule(Machine& machine) REQUIRES(gate) {
    const Time due = began_ + Time((periods_ + 1) * machine.sound().speaker.period / 10);
    const Time late = jitter(machine.kernel(), machine.sound().speaker.jitter);
    machine.kernel().after(due + late - machine.kernel().now(),
                           [&machine, weak = weak_from_this(), mine = generation_]() REQUIRES(gate) {
                             const auto self = weak.lock();
                             if (!self || !self->running || self->generation_ != mine || self->isInvalid()) return;
                             self->period(machine);
                             self->schedule(machine);
                           });
  }
  void period(Machine& machine) REQUIRES(gate) {
    RenderEndpoint& speaker = machine.sound().speaker;
    const WAVEFORMATEX format = mixed();
    // Frames that have passed so far, so that rates that are no multiple of the period keep their time.
    ++periods_;
    const std::int64_t passed = periods_ * format.nSamplesPerSec * speaker.period / 10'000'000;
    const std::size_t frames =
        speaker.packetFrames != 0 ? speaker.packetFrames : static_cast<std::size_t>(passed - passed_);
    passed_ = passed;
    const std::size_t samples = std::min(frames * format.nChannels, speaker.plays.size() - speaker.played);
    if (samples > 0) {
      const auto from = speaker.plays.begin() + static_cast<std::ptrdiff_t>(speaker.played);
      packets.push_back({{from, from + static_cast<std::ptrdiff_t>(samples)}});
      speaker.played += samples;
      dropOldest(speaker.period);
    }
    if (!event) return;
    if (const auto object = machine.kernel().find<Event>(event)) {
      object->set(machine.kernel());
    } else {
      eventIsClosed(machine.kernel());
    }
  }
  // Who has tried to stop it can do no more.
  void eventIsClosed(Kernel& kernel) const REQUIRES(gate) {
    if (!stopCalled) kernel.misused("IAudioClient::SetEventHandle: the event was closed while the stream runs");
  }
  // The backlog is as long as the buffer that was asked for. The packet that the client has stays.
  void dropOldest(REFERENCE_TIME period) {
    const std::size_t most = std::max(kLeastPackets, static_cast<std::size_t>(bufferDuration / period));
    const std::size_t first = taken ? 1 : 0;
    while (packets.size() > most + first) {
      packets.erase(packets.begin() + static_cast<std::ptrdiff_t>(first));
      packets[first].afterGap = true;
    }
  }

  unsigned generation_ = 0;
  Time began_{0};
  std::int64_t periods_ = 0;
  std::int64_t passed_ = 0;
  const unsigned pulls_ = sound().speaker.pulls;
};

// A call of a method of a stream.
struct SCOPED_CAPABILITY StreamMethod : Method {
  StreamMethod(ComObject& called, const char* method, Stream& its) ACQUIRE(gate) NO_THREAD_SAFETY_ANALYSIS
      : Method(called, method),
        stream(its) {}
  ~StreamMethod() RELEASE() NO_THREAD_SAFETY_ANALYSIS = default;
  StreamMethod(const StreamMethod&) = delete;
  StreamMethod& operator=(const StreamMethod&) = delete;
  // An engine whose calls fail has lost its device: they all do from then on.
  HRESULT refused() REQUIRES(gate) {
    HRESULT error = Method::refused(AUDCLNT_E_DEVICE_INVALIDATED);
    stream.failed = stream.failed || error == AUDCLNT_E_DEVICE_INVALIDATED;
    return SUCCEEDED(error) && stream.isInvalid() ? AUDCLNT_E_DEVICE_INVALIDATED : error;
  }
  // The same for one that needs an initialised client.
  HRESULT refusedOrNotInitialized() REQUIRES(gate) {
    if (const HRESULT error = refused(); FAILED(error)) return error;
    return stream.initialized ? S_OK : misused("before Initialize", AUDCLNT_E_NOT_INITIALIZED);
  }
  Stream& stream;
};

template <class Interface>
class StreamObject : public Com<Interface> {
 public:
  StreamObject(const char* interfaceName, std::shared_ptr<Stream> stream)
      : Com<Interface>(interfaceName), stream_(std::move(stream)) {
    ++stream_->clients;
  }
  void released() override REQUIRES(gate) { stream_->leave(Machine::current().kernel()); }

 protected:
  const std::shared_ptr<Stream> stream_;
};

class CaptureClient final : public StreamObject<IAudioCaptureClient> {
 public:
  explicit CaptureClient(std::shared_ptr<Stream> stream) : StreamObject("IAudioCaptureClient", std::move(stream)) {}
  HRESULT STDMETHODCALLTYPE GetBuffer(BYTE** data, UINT32* frames, DWORD* flags, UINT64*, UINT64*) override {
    StreamMethod call(*this, "IAudioCaptureClient::GetBuffer", *stream_);
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!data || !frames || !flags) return call.misused("no room for what it gives", E_POINTER);
    if (stream_->taken) return call.misused("the packet before was not released", AUDCLNT_E_OUT_OF_ORDER);
    *frames = stream_->nextFrames();
    if (*frames == 0) return AUDCLNT_S_BUFFER_EMPTY;
    stream_->taken = true;
    auto& packet = stream_->packets.front();
    *data = reinterpret_cast<BYTE*>(packet.samples.data());
    const auto& all = sound().speaker.flags;
    *flags = all.empty() ? 0 : all[stream_->delivered % all.size()];
    if (packet.afterGap) *flags |= AUDCLNT_BUFFERFLAGS_DATA_DISCONTINUITY;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE ReleaseBuffer(UINT32 frames) override {
    StreamMethod call(*this, "IAudioCaptureClient::ReleaseBuffer", *stream_);
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!stream_->taken) {
      return frames == 0 ? S_OK : call.misused("no packet was taken", AUDCLNT_E_OUT_OF_ORDER);
    }
    if (frames != 0 && frames != stream_->nextFrames()) {
      return call.misused("neither the whole packet nor nothing", AUDCLNT_E_INVALID_SIZE);
    }
    stream_->taken = false;
    if (frames == 0) return S_OK;
    stream_->packets.pop_front();
    ++stream_->delivered;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetNextPacketSize(UINT32* frames) override {
    StreamMethod call(*this, "IAudioCaptureClient::GetNextPacketSize", *stream_);
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!frames) return call.misused("no room for what it gives", E_POINTER);
    *frames = stream_->nextFrames();
    return S_OK;
  }
};

class AudioClient final : public StreamObject<IAudioClient> {
 public:
  AudioClient() : StreamObject("IAudioClient", std::make_shared<Stream>()) {}
  HRESULT STDMETHODCALLTYPE Initialize(AUDCLNT_SHAREMODE mode, DWORD flags, REFERENCE_TIME bufferDuration,
                                       REFERENCE_TIME periodicity, const WAVEFORMATEX* format, const GUID*) override {
    StreamMethod call(*this, "IAudioClient::Initialize", *stream_);
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!format) return call.misused("no format", E_POINTER);
    if (stream_->initialized) return call.misused("initialised already", AUDCLNT_E_ALREADY_INITIALIZED);
    if ((flags & ~kKnownFlags) != 0) {
      return call.misused("flags that the machine does not know", AUDCLNT_E_INVALID_STREAM_FLAG);
    }
    if ((flags & AUDCLNT_STREAMFLAGS_LOOPBACK) == 0) {
      return call.misused("the machine gives the speaker's loopback alone", AUDCLNT_E_WRONG_ENDPOINT_TYPE);
    }
    if (mode != AUDCLNT_SHAREMODE_SHARED) return call.misused("a loopback is shared", E_INVALIDARG);
    if (periodicity != 0) return call.misused("a shared stream has the engine's period", E_INVALIDARG);
    if (bufferDuration < 0) return call.misused("a negative duration", E_INVALIDARG);
    if (const char* wrong = wrongWith(*format)) return call.misused(wrong, AUDCLNT_E_UNSUPPORTED_FORMAT);
    stream_->initialized = true;
    stream_->flags = flags;
    stream_->bufferDuration = bufferDuration;
    sound().clientSetup = {.flags = flags,
                           .bufferDuration = bufferDuration,
                           .periodicity = periodicity,
                           .formatTag = format->wFormatTag,
                           .bits = format->wBitsPerSample,
                           .blockAlign = format->nBlockAlign,
                           .bytesPerSecond = format->nAvgBytesPerSec};
    return S_OK;
  }
  // Not simulated.
  HRESULT STDMETHODCALLTYPE GetBufferSize(UINT32*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetStreamLatency(REFERENCE_TIME*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE GetCurrentPadding(UINT32*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE IsFormatSupported(AUDCLNT_SHAREMODE, const WAVEFORMATEX*, WAVEFORMATEX**) override {
    return E_NOTIMPL;
  }
  HRESULT STDMETHODCALLTYPE Reset() override { return E_NOTIMPL; }

  HRESULT STDMETHODCALLTYPE GetMixFormat(WAVEFORMATEX** format) override {
    StreamMethod call(*this, "IAudioClient::GetMixFormat", *stream_);
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!format) return call.misused("no room for what it gives", E_POINTER);
    const auto& bytes = sound().speaker.mixFormat;
    *format = static_cast<WAVEFORMATEX*>(allocateTask(bytes.size()));
    std::memcpy(*format, bytes.data(), bytes.size());
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetDevicePeriod(REFERENCE_TIME* usual, REFERENCE_TIME* least) override {
    StreamMethod call(*this, "IAudioClient::GetDevicePeriod", *stream_);
    if (const HRESULT error = call.refused(); FAILED(error)) return error;
    if (!usual && !least) return call.misused("no room for what it gives", E_POINTER);
    if (usual) *usual = sound().speaker.period;
    if (least) *least = sound().speaker.period / 3;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Start() override {
    StreamMethod call(*this, "IAudioClient::Start", *stream_);
    if (const HRESULT error = call.refusedOrNotInitialized(); FAILED(error)) return error;
    if ((stream_->flags & AUDCLNT_STREAMFLAGS_EVENTCALLBACK) != 0 && !stream_->event) {
      return call.misused("before SetEventHandle", AUDCLNT_E_EVENTHANDLE_NOT_SET);
    }
    if (stream_->running) return call.misused("already started", AUDCLNT_E_NOT_STOPPED);
    stream_->start(call.machine);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Stop() override {
    StreamMethod call(*this, "IAudioClient::Stop", *stream_);
    stream_->stopCalled = true;
    if (const HRESULT error = call.refusedOrNotInitialized(); FAILED(error)) return error;
    if (!stream_->running) return S_FALSE;
    stream_->stop();
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE SetEventHandle(HANDLE event) override {
    StreamMethod call(*this, "IAudioClient::SetEventHandle", *stream_);
    if (const HRESULT error = call.refusedOrNotInitialized(); FAILED(error)) return error;
    if ((stream_->flags & AUDCLNT_STREAMFLAGS_EVENTCALLBACK) == 0) {
      return call.misused("the stream has no events", AUDCLNT_E_EVENTHANDLE_NOT_EXPECTED);
    }
    if (!call.kernel.find<Event>(event)) return call.misused("not an open event", E_INVALIDARG);
    if (stream_->running) return call.misused("already started", AUDCLNT_E_NOT_STOPPED);
    stream_->event = event;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetService(const GUID& iid, void** service) override {
    StreamMethod call(*this, "IAudioClient::GetService", *stream_);
    if (const HRESULT error = call.refusedOrNotInitialized(); FAILED(error)) return error;
    if (!service) return call.misused("no room for what it gives", E_POINTER);
    if (!same(iid, kCaptureClient)) return E_NOINTERFACE;
    *service = static_cast<IAudioCaptureClient*>(makeCom<CaptureClient>(stream_));
    return S_OK;
  }
};

}  // namespace

IAudioClient* makeAudioClient() { return makeCom<AudioClient>(); }

}  // namespace sim
