// Wave-in and mixers on the simulated machine.
#include <algorithm>
#include <cstring>

#include "platform/os.h"
#include "sim/Machine.h"

namespace sim {
namespace {

constexpr std::size_t kRate = 16000;

// An open capture device. Its driver fills the buffers that it has, one after the other, at the speed of sound.
class WaveIn final : public Object, public std::enable_shared_from_this<WaveIn> {
 public:
  WaveIn(std::shared_ptr<Microphone> source, DWORD threadId) : microphone(std::move(source)), thread(threadId) {}
  bool signalled(const Thread&) const override { return false; }
  const char* kind() const override { return "wave-in"; }

  void start(Kernel& kernel) {
    if (running) return;
    running = true;
    began = kernel.now();
    schedule(kernel);
  }
  // The buffer that is being filled comes back as far as it is.
  void stop(Kernel& kernel) {
    if (!running) return;
    running = false;
    ++generation;
    const auto samples = static_cast<std::size_t>((kernel.now() - began).count()) * kRate / 1'000'000;
    if (!queue.empty()) giveBack(kernel, std::min<std::size_t>(2 * samples, queue.front()->dwBufferLength));
  }
  void reset(Kernel& kernel) {
    stop(kernel);
    while (queue.size() > (microphone->keepsOne ? 1 : 0)) giveBack(kernel, 0);
  }
  void post(Kernel& kernel, UINT message, LPARAM parameter) {
    MSG sent{};
    sent.message = message;
    sent.wParam = reinterpret_cast<WPARAM>(handle);
    sent.lParam = parameter;
    kernel.post(thread, sent);
  }

  const std::shared_ptr<Microphone> microphone;
  const DWORD thread;
  HANDLE handle = nullptr;
  std::deque<WAVEHDR*> queue;
  bool running = false;
  unsigned generation = 0;
  unsigned returned = 0;
  Time began{0};

 private:
  void schedule(Kernel& kernel) {
    constexpr std::size_t kUsualBytes = 4096;
    const std::size_t bytes = queue.empty() ? kUsualBytes : queue.front()->dwBufferLength;
    const Time time(static_cast<std::int64_t>(bytes / 2 * 1'000'000 / kRate));
    kernel.after(time, [this, &kernel, weak = weak_from_this(), mine = generation, bytes] {
      const auto self = weak.lock();
      if (!self || !running || generation != mine) return;
      began = kernel.now();
      if (!queue.empty()) {
        ++returned;
        const bool empty = microphone->emptyEvery != 0 && returned % microphone->emptyEvery == 0;
        giveBack(kernel, empty ? 0 : microphone->halfFull ? bytes / 2 : bytes);
      }
      schedule(kernel);
    });
  }
  void giveBack(Kernel& kernel, std::size_t bytes) {
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
    const auto say = [this, &kernel, header, weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
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
};

class MixerHandle final : public Object {
 public:
  explicit MixerHandle(std::size_t mixer) : index(mixer) {}
  bool signalled(const Thread&) const override { return false; }
  const char* kind() const override { return "mixer"; }
  const std::size_t index;
};

MMRESULT injected(const char* call) { return static_cast<MMRESULT>(Machine::current().sound().fault(call)); }

// Runs `body` on the open device behind a handle.
template <class Body>
MMRESULT withDevice(const char* call, HWAVEIN handle, Body body) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  machine.sound().stalled(lock, call);
  if (const MMRESULT error = injected(call); error != 0) return error;
  const auto device = machine.kernel().find<WaveIn>(handle);
  if (!device) {
    machine.kernel().misused();
    return MMSYSERR_INVALHANDLE;
  }
  return body(machine, *device);
}

template <class Body>
MMRESULT withMixer(const char* call, HMIXEROBJ object, Body body) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (const MMRESULT error = injected(call); error != 0) return error;
  const auto mixer = machine.kernel().find<MixerHandle>(object);
  if (!mixer) {
    machine.kernel().misused();
    return MMSYSERR_INVALHANDLE;
  }
  return body(machine.sound().mixers.at(mixer->index));
}

void fillName(WCHAR (&field)[MAXPNAMELEN], const std::wstring& name) {
  std::copy_n(name.begin(), std::min<std::size_t>(name.size(), MAXPNAMELEN), field);
}

}  // namespace
}  // namespace sim

namespace os {

using sim::Kernel;
using sim::Machine;

UINT waveInGetNumDevs() {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  return static_cast<UINT>(machine.sound().microphones.size());
}

MMRESULT waveInGetDevCapsW(UINT_PTR device, WAVEINCAPSW* caps, UINT size) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  machine.sound().stalled(lock, "waveInGetDevCapsW");
  const auto& microphones = machine.sound().microphones;
  if (const MMRESULT error = sim::injected("waveInGetDevCapsW"); error != 0) return error;
  if (device >= microphones.size()) return MMSYSERR_BADDEVICEID;
  if (size < sizeof *caps) return MMSYSERR_INVALPARAM;
  sim::fillName(caps->szPname, microphones[device]->name);
  caps->dwFormats = 0xFFFFF;  // every format that has a bit; no zero ends a name that fills its field
  caps->wChannels = 1;
  return MMSYSERR_NOERROR;
}

MMRESULT waveInOpen(HWAVEIN* handle, UINT device, const WAVEFORMATEX* format, DWORD_PTR callback, DWORD_PTR,
                    DWORD flags) {
  Machine& machine = Machine::current();
  Kernel::Lock lock = machine.kernel().enter();
  machine.sound().stalled(lock, "waveInOpen");
  if (const MMRESULT error = sim::injected("waveInOpen"); error != 0) return error;
  if (device >= machine.sound().microphones.size()) return MMSYSERR_BADDEVICEID;
  if (format->wFormatTag != WAVE_FORMAT_PCM || format->nChannels != 1 || format->nSamplesPerSec != sim::kRate ||
      format->wBitsPerSample != 16) {
    return WAVERR_BADFORMAT;
  }
  if (flags != CALLBACK_THREAD) return MMSYSERR_INVALPARAM;
  const auto open = std::make_shared<sim::WaveIn>(machine.sound().microphones[device], static_cast<DWORD>(callback));
  open->handle = machine.kernel().open(open);
  *handle = static_cast<HWAVEIN>(open->handle);
  open->post(machine.kernel(), MM_WIM_OPEN, 0);
  return MMSYSERR_NOERROR;
}

MMRESULT waveInClose(HWAVEIN handle) {
  return sim::withDevice("waveInClose", handle, [handle](Machine& machine, sim::WaveIn& device) -> MMRESULT {
    if (!device.queue.empty()) return WAVERR_STILLPLAYING;
    device.running = false;
    device.post(machine.kernel(), MM_WIM_CLOSE, 0);
    machine.kernel().close(handle);
    return MMSYSERR_NOERROR;
  });
}

MMRESULT waveInPrepareHeader(HWAVEIN handle, WAVEHDR* header, UINT) {
  return sim::withDevice("waveInPrepareHeader", handle, [header](Machine& machine, sim::WaveIn&) {
    if ((header->dwFlags & WHDR_PREPARED) == 0) ++machine.sound().open.preparedHeaders;
    header->dwFlags |= WHDR_PREPARED;
    return MMSYSERR_NOERROR;
  });
}

MMRESULT waveInUnprepareHeader(HWAVEIN handle, WAVEHDR* header, UINT) {
  return sim::withDevice("waveInUnprepareHeader", handle, [header](Machine& machine, sim::WaveIn&) -> MMRESULT {
    if ((header->dwFlags & WHDR_INQUEUE) != 0) return WAVERR_STILLPLAYING;
    if ((header->dwFlags & WHDR_PREPARED) != 0) --machine.sound().open.preparedHeaders;
    header->dwFlags &= ~WHDR_PREPARED;
    return MMSYSERR_NOERROR;
  });
}

MMRESULT waveInAddBuffer(HWAVEIN handle, WAVEHDR* header, UINT) {
  return sim::withDevice("waveInAddBuffer", handle, [header](Machine& machine, sim::WaveIn& device) -> MMRESULT {
    if ((header->dwFlags & WHDR_PREPARED) == 0) return WAVERR_UNPREPARED;
    if ((header->dwFlags & WHDR_INQUEUE) != 0) {
      machine.kernel().misused();
      return WAVERR_STILLPLAYING;
    }
    header->dwFlags = (header->dwFlags | WHDR_INQUEUE) & ~WHDR_DONE;
    device.queue.push_back(header);
    return MMSYSERR_NOERROR;
  });
}

MMRESULT waveInStart(HWAVEIN handle) {
  return sim::withDevice("waveInStart", handle, [](Machine& machine, sim::WaveIn& device) {
    device.start(machine.kernel());
    return MMSYSERR_NOERROR;
  });
}

MMRESULT waveInStop(HWAVEIN handle) {
  return sim::withDevice("waveInStop", handle, [](Machine& machine, sim::WaveIn& device) {
    device.stop(machine.kernel());
    return MMSYSERR_NOERROR;
  });
}

MMRESULT waveInReset(HWAVEIN handle) {
  return sim::withDevice("waveInReset", handle, [](Machine& machine, sim::WaveIn& device) {
    device.reset(machine.kernel());
    return MMSYSERR_NOERROR;
  });
}

UINT mixerGetNumDevs() {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  return static_cast<UINT>(machine.sound().mixers.size());
}

MMRESULT mixerOpen(HMIXER* handle, UINT mixer, DWORD_PTR, DWORD_PTR, DWORD flags) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  if (const MMRESULT error = sim::injected("mixerOpen"); error != 0) return error;
  if (mixer >= machine.sound().mixers.size() || flags != MIXER_OBJECTF_MIXER) return MMSYSERR_BADDEVICEID;
  *handle = static_cast<HMIXER>(machine.kernel().open(std::make_shared<sim::MixerHandle>(mixer)));
  return MMSYSERR_NOERROR;
}

MMRESULT mixerClose(HMIXER handle) {
  Machine& machine = Machine::current();
  const Kernel::Lock lock = machine.kernel().enter();
  return machine.kernel().close(handle) ? MMSYSERR_NOERROR : MMSYSERR_INVALHANDLE;
}

MMRESULT mixerGetLineInfoW(HMIXEROBJ mixer, MIXERLINEW* line, DWORD flags) {
  return sim::withMixer("mixerGetLineInfoW", mixer, [line, flags](sim::MixerDevice& device) -> MMRESULT {
    if (flags == (MIXER_OBJECTF_HMIXER | MIXER_GETLINEINFOF_COMPONENTTYPE)) {
      if (!device.hasDestination || line->dwComponentType != MIXERLINE_COMPONENTTYPE_DST_WAVEIN) {
        return MMSYSERR_INVALPARAM;
      }
      line->dwDestination = 0;
      line->cConnections = static_cast<DWORD>(device.sources.size());
      sim::fillName(line->Target.szPname, device.name);
      return MMSYSERR_NOERROR;
    }
    if (flags != (MIXER_OBJECTF_HMIXER | MIXER_GETLINEINFOF_SOURCE) || line->dwSource >= device.sources.size()) {
      return MMSYSERR_INVALPARAM;
    }
    line->dwComponentType = device.sources[line->dwSource].componentType;
    line->dwLineID = device.sources[line->dwSource].lineId;
    return MMSYSERR_NOERROR;
  });
}

MMRESULT mixerGetLineControlsW(HMIXEROBJ mixer, MIXERLINECONTROLSW* controls, DWORD flags) {
  return sim::withMixer("mixerGetLineControlsW", mixer, [controls, flags](sim::MixerDevice& device) -> MMRESULT {
    if (flags != (MIXER_OBJECTF_MIXER | MIXER_GETLINECONTROLSF_ONEBYTYPE) ||
        controls->dwControlType != MIXERCONTROL_CONTROLTYPE_VOLUME || controls->cControls != 1 ||
        controls->cbmxctrl != sizeof(MIXERCONTROLW)) {
      return MMSYSERR_INVALPARAM;
    }
    controls->pamxctrl->dwControlID = controls->dwLineID;  // one control to a line
    controls->pamxctrl->Bounds.dwMaximum = device.bound;
    return MMSYSERR_NOERROR;
  });
}

MMRESULT mixerGetControlDetailsW(HMIXEROBJ mixer, MIXERCONTROLDETAILS* details, DWORD) {
  return sim::withMixer("mixerGetControlDetailsW", mixer, [details](sim::MixerDevice& device) {
    const MIXERCONTROLDETAILS_UNSIGNED value{device.volumes[details->dwControlID]};
    std::memcpy(details->paDetails, &value, std::min<std::size_t>(sizeof value, details->cbDetails));
    return MMSYSERR_NOERROR;
  });
}

MMRESULT mixerSetControlDetails(HMIXEROBJ mixer, MIXERCONTROLDETAILS* details, DWORD flags) {
  return sim::withMixer("mixerSetControlDetails", mixer, [details, flags](sim::MixerDevice& device) -> MMRESULT {
    if (flags != (MIXER_OBJECTF_HMIXER | MIXER_SETCONTROLDETAILSF_VALUE)) return MMSYSERR_INVALPARAM;
    MIXERCONTROLDETAILS_UNSIGNED value;
    std::memcpy(&value, details->paDetails, sizeof value);
    device.volumes[details->dwControlID] = value.dwValue;
    return MMSYSERR_NOERROR;
  });
}

}  // namespace os
