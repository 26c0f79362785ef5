// Wave-in on the simulated machine.
#include <algorithm>
#include <cstring>
#include <map>

#include "platform/os.h"
#include "sim/Call.h"

namespace sim {
namespace {

constexpr std::size_t kRate = 16000;

// An open capture device. Its driver fills the buffers that it has, one after the other, at the speed of sound.
class WaveIn final : public Object, public std::enable_shared_from_this<WaveIn> {
 public:
  WaveIn(std::shared_ptr<Microphone> source, DWORD threadId)
      : microphone(std::move(source)), thread(threadId), pulls_(microphone->pulls) {}
  bool signalled(const Thread&) const override { return false; }
  const char* kind() const override { return "wave-in"; }

  // Pulled out since it was opened: there is no driver any more, and nothing is filled.
  bool gone() const { return microphone->pulls != pulls_; }
  bool has(const WAVEHDR* header) const { return std::find(queue.begin(), queue.end(), header) != queue.end(); }
  void start(Kernel& kernel) REQUIRES(gate) {
    if (running) return;
    running = true;
    began_ = kernel.now();
    schedule(kernel);
  }
  // The buffer that is being filled comes back as far as it is.
  void stop(Kernel& kernel) REQUIRES(gate) {
    if (!running) return;
    running = false;
    ++generation_;
    if (gone()) return;
    const auto samples = static_cast<std::size_t>(std::max(kernel.now() - began_, Time{0}).count()) * kRate / 1'000'000;
    if (!queue.empty()) giveBack(kernel, std::min<std::size_t>(2 * samples, queue.front()->dwBufferLength));
  }
  void reset(Kernel& kernel) REQUIRES(gate) {
    stop(kernel);
    while (queue.size() > (microphone->keepsOne ? 1 : 0)) giveBack(kernel, 0);
  }
  void post(Kernel& kernel, UINT message, LPARAM parameter) REQUIRES(gate) {
    MSG sent{};
    sent.message = message;
    sent.wParam = reinterpret_cast<WPARAM>(handle);
    sent.lParam = parameter;
    kernel.post(thread, sent);
  }

  const std::shared_ptr<Microphone> microphone;
  const DWORD thread;
  HANDLE handle = nullptr;  // null again when it is closed: nothing is said after that
  std::deque<WAVEHDR*> queue;
  struct Prepared {
    const char* data;
    DWORD length;
    bool operator==(const Prepared&) const = default;
  };
  std::map<const WAVEHDR*, Prepared> prepared;
  bool running = false;

 private:
  // Began is when the buffer in hand did by the clock of the sound; a driver that is late says so later.
  void schedule(Kernel& kernel) REQUIRES(gate) {
    constexpr std::size_t kUsualBytes = 4096;
    const std::size_t bytes = queue.empty() ? kUsualBytes : queue.front()->dwBufferLength;
    const Time full = began_ + Time(static_cast<std::int64_t>(bytes / 2 * 1'000'000 / kRate));
    const Time late = jitter(kernel, microphone->jitter);
    kernel.after(full + late - kernel.now(),
                 [this, &kernel, weak = weak_from_this(), mine = generation_, bytes, full]() REQUIRES(gate) {
                   const auto self = weak.lock();
                   if (!self || !running || generation_ != mine || gone()) return;
                   began_ = full;
                   if (!queue.empty()) {
                     ++returned_;
                     const bool empty = microphone->emptyEvery != 0 && returned_ % microphone->emptyEvery == 0;
                     giveBack(kernel, empty ? 0 : microphone->halfFull ? bytes / 2 : bytes);
                   }
                   schedule(kernel);
                 });
  }
  void giveBack(Kernel& kernel, std::size_t bytes) REQUIRES(gate) {
    WAVEHDR* header = queue.front();
    queue.pop_front();
    for (std::size_t i = 0; i + 2 <= bytes; i += 2) {
      std::size_t& at = microphone->heard;
      const std::int16_t sample = at < microphone->hears.size() ? microphone->hears[at] : std::int16_t{0};
      ++at;
      std::memcpy(header->lpData + i, &sample, 2);
    }
    header->dwBytesRecorded = static_cast<DWORD>(microphone->overstates && bytes > 0 ? 100'000 : bytes);
    header->dwFlags = (header->dwFlags | WHDR_DONE) & ~WHDR_INQUEUE;
    const auto say = [this, &kernel, header, weak = weak_from_this()]() REQUIRES(gate) {
      const auto self = weak.lock();
      if (!self || !handle) return;
      for (int i = 0; i < (microphone->returnsTwice ? 2 : 1); ++i) {
        post(kernel, MM_WIM_DATA, reinterpret_cast<LPARAM>(header));
      }
    };
    if (microphone->late.count() > 0) {
      kernel.after(microphone->late, say);
    } else {
      say();
    }
  }

  const unsigned pulls_;
  unsigned generation_ = 0;
  unsigned returned_ = 0;
  Time began_{0};
};

// The device behind a handle, for a call that fails with `usual` where that is asked for. Null: the call is over, and
// returns `result`.
WaveIn* deviceFor(Call& call, HWAVEIN handle, MMRESULT usual, MMRESULT& result) REQUIRES(gate) {
  call.stall();
  result = call.fault(usual);
  if (result != MMSYSERR_NOERROR) return nullptr;
  auto* device = call.object<WaveIn>(handle);
  if (!device) result = MMSYSERR_INVALHANDLE;
  return device;
}

// The same for a call that works on a header.
WaveIn* deviceFor(Call& call, HWAVEIN handle, const WAVEHDR* header, UINT size, MMRESULT usual, MMRESULT& result)
    REQUIRES(gate) {
  auto* device = deviceFor(call, handle, usual, result);
  if (device && (!header || size < sizeof *header || !header->lpData)) {
    result = call.misused("no header, one without data, or one of another size", MMSYSERR_INVALPARAM);
    return nullptr;
  }
  return device;
}

// A header that is prepared stays where it is and as it is.
bool isPrepared(Call& call, const WaveIn& device, const WAVEHDR& header) REQUIRES(gate) {
  const auto it = device.prepared.find(&header);
  if (it == device.prepared.end()) {
    if ((header.dwFlags & WHDR_PREPARED) != 0) call.misused("a header that was moved while it was prepared", 0);
    return false;
  }
  if (it->second != WaveIn::Prepared{header.lpData, header.dwBufferLength}) {
    call.misused("a header whose data was changed while it was prepared", 0);
  }
  return true;
}

bool isConsistent(const WAVEFORMATEX& format) {
  return format.nBlockAlign == format.nChannels * format.wBitsPerSample / 8 &&
         format.nAvgBytesPerSec == format.nSamplesPerSec * format.nBlockAlign;
}

}  // namespace
}  // namespace sim

namespace os {

using sim::Call;

UINT waveInGetNumDevs() {
  Call call("waveInGetNumDevs");
  return static_cast<UINT>(call.machine.sound().microphones.size());
}

MMRESULT waveInGetDevCapsW(UINT_PTR device, WAVEINCAPSW* caps, UINT size) {
  Call call("waveInGetDevCapsW");
  call.stall();
  if (!caps || size < sizeof *caps) return call.misused("no room for all of them", MMSYSERR_INVALPARAM);
  if (const MMRESULT error = call.fault(MMSYSERR_NODRIVER); error != 0) return error;
  // A device may have gone since they were counted.
  const auto& microphones = call.machine.sound().microphones;
  if (device >= microphones.size()) return MMSYSERR_BADDEVICEID;
  sim::fillName(caps->szPname, microphones[device]->name);
  caps->dwFormats = 0xFFFFF;  // every format that has a bit; no zero ends a name that fills its field
  caps->wChannels = 1;
  return MMSYSERR_NOERROR;
}

MMRESULT waveInOpen(HWAVEIN* handle, UINT device, const WAVEFORMATEX* format, DWORD_PTR callback, DWORD_PTR,
                    DWORD flags) {
  Call call("waveInOpen");
  call.stall();
  if (!handle || !format) return call.misused("no handle, or no format", MMSYSERR_INVALPARAM);
  if (flags != CALLBACK_THREAD) return call.misused("the machine knows messages to threads alone", MMSYSERR_INVALFLAG);
  if (!sim::isConsistent(*format)) return call.misused("a format that contradicts itself", WAVERR_BADFORMAT);
  if (const MMRESULT error = call.fault(MMSYSERR_ALLOCATED); error != 0) return error;
  const auto& microphones = call.machine.sound().microphones;
  if (device >= microphones.size()) return MMSYSERR_BADDEVICEID;
  if (format->wFormatTag != WAVE_FORMAT_PCM || format->nChannels != 1 || format->nSamplesPerSec != sim::kRate ||
      format->wBitsPerSample != 16) {
    return WAVERR_BADFORMAT;
  }
  const auto open = std::make_shared<sim::WaveIn>(microphones[device], static_cast<DWORD>(callback));
  open->handle = call.kernel.open(open);
  *handle = static_cast<HWAVEIN>(open->handle);
  open->post(call.kernel, MM_WIM_OPEN, 0);
  return MMSYSERR_NOERROR;
}

MMRESULT waveInClose(HWAVEIN handle) {
  Call call("waveInClose");
  call.stall();
  // It may fail, but no more often than other closes.
  if (const auto error = static_cast<MMRESULT>(call.machine.faults().named(call.name)); error != 0) return error;
  auto* device = call.object<sim::WaveIn>(handle);
  if (!device) return MMSYSERR_INVALHANDLE;
  if (!device->queue.empty()) {
    // A driver that keeps what it was asked for is not the caller's fault.
    return device->microphone->keepsOne ? WAVERR_STILLPLAYING
                                        : call.misused("buffers are in its queue", WAVERR_STILLPLAYING);
  }
  if (!device->prepared.empty()) call.misused("headers are still prepared", 0);
  device->running = false;
  device->post(call.kernel, MM_WIM_CLOSE, 0);
  device->handle = nullptr;
  call.kernel.close(handle);
  return MMSYSERR_NOERROR;
}

MMRESULT waveInPrepareHeader(HWAVEIN handle, WAVEHDR* header, UINT size) {
  Call call("waveInPrepareHeader");
  MMRESULT result;
  auto* device = sim::deviceFor(call, handle, header, size, MMSYSERR_NOMEM, result);
  if (!device) return result;
  if (device->gone()) return MMSYSERR_NODRIVER;
  if (device->prepared.contains(header)) return call.misused("prepared already", MMSYSERR_NOERROR);
  device->prepared[header] = {header->lpData, header->dwBufferLength};
  header->dwFlags |= WHDR_PREPARED;
  ++call.machine.sound().open.preparedHeaders;
  return MMSYSERR_NOERROR;
}

// One that is not prepared is left as it is: no rule is broken.
MMRESULT waveInUnprepareHeader(HWAVEIN handle, WAVEHDR* header, UINT size) {
  Call call("waveInUnprepareHeader");
  MMRESULT result;
  auto* device = sim::deviceFor(call, handle, header, size, MMSYSERR_NOMEM, result);
  if (!device) return result;
  if (device->has(header)) {
    return device->microphone->keepsOne ? WAVERR_STILLPLAYING : call.misused("it is in the queue", WAVERR_STILLPLAYING);
  }
  if (!sim::isPrepared(call, *device, *header)) return MMSYSERR_NOERROR;
  device->prepared.erase(header);
  header->dwFlags &= ~WHDR_PREPARED;
  --call.machine.sound().open.preparedHeaders;
  return MMSYSERR_NOERROR;
}

MMRESULT waveInAddBuffer(HWAVEIN handle, WAVEHDR* header, UINT size) {
  Call call("waveInAddBuffer");
  MMRESULT result;
  auto* device = sim::deviceFor(call, handle, header, size, MMSYSERR_NOMEM, result);
  if (!device) return result;
  if (!sim::isPrepared(call, *device, *header)) return call.misused("it is not prepared", WAVERR_UNPREPARED);
  if (device->has(header)) return call.misused("it is in the queue already", WAVERR_STILLPLAYING);
  if (device->gone()) return MMSYSERR_NODRIVER;
  header->dwFlags = (header->dwFlags | WHDR_INQUEUE) & ~WHDR_DONE;
  device->queue.push_back(header);
  return MMSYSERR_NOERROR;
}

MMRESULT waveInStart(HWAVEIN handle) {
  Call call("waveInStart");
  MMRESULT result;
  auto* device = sim::deviceFor(call, handle, MMSYSERR_NOMEM, result);
  if (!device) return result;
  if (device->gone()) return MMSYSERR_NODRIVER;
  device->start(call.kernel);
  return MMSYSERR_NOERROR;
}

MMRESULT waveInStop(HWAVEIN handle) {
  Call call("waveInStop");
  MMRESULT result;
  auto* device = sim::deviceFor(call, handle, MMSYSERR_NOMEM, result);
  if (!device) return result;
  if (device->gone()) return MMSYSERR_NODRIVER;
  device->stop(call.kernel);
  return MMSYSERR_NOERROR;
}

// Also where the driver has gone, this gives the buffers back.
MMRESULT waveInReset(HWAVEIN handle) {
  Call call("waveInReset");
  MMRESULT result;
  auto* device = sim::deviceFor(call, handle, MMSYSERR_NOMEM, result);
  if (!device) return result;
  device->reset(call.kernel);
  return MMSYSERR_NOERROR;
}

}  // namespace os
