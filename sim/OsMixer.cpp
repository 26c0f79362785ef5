// Mixers on the simulated machine.
#include <algorithm>
#include <cstring>

#include "platform/os.h"
#include "sim/Call.h"

namespace sim {
namespace {

class MixerHandle final : public Object {
 public:
  explicit MixerHandle(std::size_t mixer) : index(mixer) {}
  bool signalled(const Thread&) const override { return false; }
  const char* kind() const override { return "mixer"; }
  const std::size_t index;
};

// The mixer of a call. With the flag of a handle, it must be one; with that of a number, Windows takes both. Null: the
// call is over, and returns `result`.
MixerDevice* mixerFor(Call& call, HMIXEROBJ object, DWORD flags, MMRESULT& result) REQUIRES(gate) {
  result = call.fault(MMSYSERR_NODRIVER);
  if (result != MMSYSERR_NOERROR) return nullptr;
  auto& mixers = call.machine.sound().mixers;
  const auto number = reinterpret_cast<std::uintptr_t>(object);
  if ((flags & MIXER_OBJECTF_HMIXER) == 0 && number < mixers.size()) return &mixers[number];
  const auto* handle = call.object<MixerHandle>(object);
  if (!handle) result = MMSYSERR_INVALHANDLE;
  return handle ? &mixers.at(handle->index) : nullptr;
}

template <class Struct>
bool sized(Call& call, const Struct* data) REQUIRES(gate) {
  if (data && data->cbStruct == sizeof *data) return true;
  return call.misused("cbStruct is not the size of the structure", false);
}

bool isControl(const MixerDevice& mixer, DWORD control) {
  // One control to a line, of the line's number; without a source there is that of line 0.
  return control == 0 || std::any_of(mixer.sources.begin(), mixer.sources.end(),
                                     [control](const auto& source) { return source.lineId == control; });
}

// A volume is one value for all channels.
MMRESULT checkDetails(Call& call, const MixerDevice& mixer, const MIXERCONTROLDETAILS* details) REQUIRES(gate) {
  if (!sized(call, details)) return MMSYSERR_INVALPARAM;
  if (!isControl(mixer, details->dwControlID)) return call.misused("not a control of this mixer", MIXERR_INVALCONTROL);
  if (details->cChannels != 1) return call.misused("cChannels is not that of a volume", MMSYSERR_INVALPARAM);
  if (details->cMultipleItems != 0) return call.misused("a volume has no items", MMSYSERR_INVALPARAM);
  if (details->cbDetails != sizeof(MIXERCONTROLDETAILS_UNSIGNED)) {
    return call.misused("cbDetails is not the size of a volume's value", MMSYSERR_INVALPARAM);
  }
  if (!details->paDetails) return call.misused("no room for the value", MMSYSERR_INVALPARAM);
  return MMSYSERR_NOERROR;
}

}  // namespace
}  // namespace sim

namespace os {

using sim::Call;

UINT mixerGetNumDevs() {
  Call call("mixerGetNumDevs");
  return static_cast<UINT>(call.machine.sound().mixers.size());
}

MMRESULT mixerOpen(HMIXER* handle, UINT mixer, DWORD_PTR, DWORD_PTR, DWORD flags) {
  Call call("mixerOpen");
  if (!handle) return call.misused("no handle", MMSYSERR_INVALPARAM);
  if (flags != MIXER_OBJECTF_MIXER) return call.misused("the machine opens mixers by number", MMSYSERR_INVALFLAG);
  if (const MMRESULT error = call.fault(MMSYSERR_ALLOCATED); error != 0) return error;
  if (mixer >= call.machine.sound().mixers.size()) return MMSYSERR_BADDEVICEID;
  *handle = static_cast<HMIXER>(call.kernel.open(std::make_shared<sim::MixerHandle>(mixer)));
  return MMSYSERR_NOERROR;
}

MMRESULT mixerClose(HMIXER handle) {
  Call call("mixerClose");
  if (!call.object<sim::MixerHandle>(handle)) return MMSYSERR_INVALHANDLE;
  call.kernel.close(handle);
  return MMSYSERR_NOERROR;
}

MMRESULT mixerGetLineInfoW(HMIXEROBJ object, MIXERLINEW* line, DWORD flags) {
  Call call("mixerGetLineInfoW");
  MMRESULT result;
  const auto* mixer = sim::mixerFor(call, object, flags, result);
  if (!mixer) return result;
  if (!sim::sized(call, line)) return MMSYSERR_INVALPARAM;
  const DWORD query = flags & ~MIXER_OBJECTF_HMIXER;
  if (query == MIXER_GETLINEINFOF_COMPONENTTYPE) {
    if (!mixer->hasDestination || line->dwComponentType != MIXERLINE_COMPONENTTYPE_DST_WAVEIN) return MIXERR_INVALLINE;
    line->dwDestination = 0;
    line->cConnections = static_cast<DWORD>(mixer->sources.size());
    sim::fillName(line->Target.szPname, mixer->name);
    return MMSYSERR_NOERROR;
  }
  if (query != MIXER_GETLINEINFOF_SOURCE)
    return call.misused("a query that the machine does not know", MMSYSERR_INVALFLAG);
  if (!mixer->hasDestination || line->dwDestination != 0 || line->dwSource >= mixer->sources.size()) {
    return call.misused("a line that the mixer does not have", MIXERR_INVALLINE);
  }
  line->dwComponentType = mixer->sources[line->dwSource].componentType;
  line->dwLineID = mixer->sources[line->dwSource].lineId;
  return MMSYSERR_NOERROR;
}

MMRESULT mixerGetLineControlsW(HMIXEROBJ object, MIXERLINECONTROLSW* controls, DWORD flags) {
  Call call("mixerGetLineControlsW");
  MMRESULT result;
  const auto* mixer = sim::mixerFor(call, object, flags, result);
  if (!mixer) return result;
  if (!sim::sized(call, controls)) return MMSYSERR_INVALPARAM;
  if ((flags & ~MIXER_OBJECTF_HMIXER) != MIXER_GETLINECONTROLSF_ONEBYTYPE) {
    return call.misused("a query that the machine does not know", MMSYSERR_INVALFLAG);
  }
  if (controls->cControls != 1) return call.misused("cControls is not 1 for one control", MMSYSERR_INVALPARAM);
  if (controls->cbmxctrl != sizeof(MIXERCONTROLW) || !controls->pamxctrl) {
    return call.misused("no room for a control, or cbmxctrl is not its size", MMSYSERR_INVALPARAM);
  }
  if (!sim::isControl(*mixer, controls->dwLineID)) return call.misused("not a line of this mixer", MIXERR_INVALLINE);
  if (controls->dwControlType != MIXERCONTROL_CONTROLTYPE_VOLUME) return MIXERR_INVALCONTROL;
  controls->pamxctrl->dwControlID = controls->dwLineID;
  controls->pamxctrl->Bounds.dwMaximum = mixer->bound;
  return MMSYSERR_NOERROR;
}

MMRESULT mixerGetControlDetailsW(HMIXEROBJ object, MIXERCONTROLDETAILS* details, DWORD flags) {
  Call call("mixerGetControlDetailsW");
  MMRESULT result;
  auto* mixer = sim::mixerFor(call, object, flags, result);
  if (!mixer) return result;
  if ((flags & ~MIXER_OBJECTF_HMIXER) != MIXER_GETCONTROLDETAILSF_VALUE) {
    return call.misused("a query that the machine does not know", MMSYSERR_INVALFLAG);
  }
  if (result = sim::checkDetails(call, *mixer, details); result != MMSYSERR_NOERROR) return result;
  const MIXERCONTROLDETAILS_UNSIGNED value{mixer->volumes[details->dwControlID]};
  std::memcpy(details->paDetails, &value, sizeof value);
  return MMSYSERR_NOERROR;
}

MMRESULT mixerSetControlDetails(HMIXEROBJ object, MIXERCONTROLDETAILS* details, DWORD flags) {
  Call call("mixerSetControlDetails");
  MMRESULT result;
  auto* mixer = sim::mixerFor(call, object, flags, result);
  if (!mixer) return result;
  if ((flags & ~MIXER_OBJECTF_HMIXER) != MIXER_SETCONTROLDETAILSF_VALUE) {
    return call.misused("a request that the machine does not know", MMSYSERR_INVALFLAG);
  }
  if (result = sim::checkDetails(call, *mixer, details); result != MMSYSERR_NOERROR) return result;
  MIXERCONTROLDETAILS_UNSIGNED value;
  std::memcpy(&value, details->paDetails, sizeof value);
  mixer->volumes[details->dwControlID] = value.dwValue;
  return MMSYSERR_NOERROR;
}

}  // namespace os
