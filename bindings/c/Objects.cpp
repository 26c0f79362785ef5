// Handles, versions, and what is the same for everything that records.
#include "Objects.h"

namespace flat {

constexpr std::size_t kMostSamples = 30 * 16000;
constexpr DWORD kTurnPatience = 2000;  // ms

vox_result Objects::Enter(std::shared_ptr<Object> object) {
  const CNotCutOff whole;
  const CAutoLock lock(lock_);
  if (last_ == INT32_MAX) return VOX_ERROR_SYSTEM;
  object->handle = last_ + 1;
  objects_.emplace(object->handle, object);
  return ++last_;
}

std::shared_ptr<Object> Objects::FindAny(vox_handle handle) noexcept {
  const CAutoLock lock(lock_);
  const auto found = objects_.find(handle);
  return found == objects_.end() ? nullptr : found->second;
}

std::shared_ptr<Object> Objects::Take(vox_handle handle) noexcept {
  const CNotCutOff whole;
  const CAutoLock lock(lock_);
  const auto node = objects_.extract(handle);
  return node ? node.mapped() : nullptr;
}

Source::Source() : audio(kMostSamples) {}

void Source::End() noexcept {
  records_ = false;
  callback.Set(nullptr, nullptr);
  audio.Close();
}

bool Source::TakeTurn() noexcept {
  const DWORD self = os::GetCurrentThreadId();
  if (turn_ == self) return false;
  const CDeadline deadline(kTurnPatience);
  for (DWORD none = 0; !turn_.compare_exchange_strong(none, self); none = 0) {
    if (deadline.HasPassed()) {
      turn_ = self;
      break;
    }
    os::Sleep(1);
  }
  return true;
}

void Source::GiveTurn() noexcept {
  DWORD self = os::GetCurrentThreadId();
  turn_.compare_exchange_strong(self, 0);
}

void Source::Deliver(const void* data, int byteCount, void* context) noexcept {
  // The end is told by who stops: a microphone marks it up to three times.
  if (!data || byteCount <= 1) return;
  const auto* const samples = static_cast<const std::int16_t*>(data);
  const std::int32_t count = byteCount / 2;
  CallbackSlot<vox_audio_fn>::Pair pair;
  bool outermost = false;
  {
    const CNotCutOff whole;
    const auto source = Objects::All().Find<Source>(HandleIn(context));
    if (!source || !source->records_) return;
    pair = source->callback.Get();
    if (!pair.function) return source->audio.Put(samples, static_cast<std::size_t>(count));
    outermost = source->TakeTurn();
    if (!source->records_) return outermost ? source->GiveTurn() : void();
  }
  // Nothing is held meanwhile: the thread may be ended there.
  pair.function(samples, count, pair.context);
  if (!outermost) return;
  const CNotCutOff whole;
  if (const auto source = Objects::All().Find<Source>(HandleIn(context))) source->GiveTurn();
}

vox_result Source::Start() {
  if (busy_.exchange(true)) return VOX_ERROR_BUSY;
  audio.Begin();
  records_ = true;
  const vox_result result = StartRecording();
  if (result < 0) {
    records_ = false;
    audio.End();
  }
  busy_ = false;
  return result;
}

vox_result Source::Stop() {
  if (busy_.exchange(true)) return VOX_ERROR_BUSY;
  const vox_result result = StopRecording();
  const bool outermost = TakeTurn();  // a delivery that runs comes first
  const bool recorded = records_.exchange(false);
  if (outermost) GiveTurn();
  audio.End();
  busy_ = false;
  // Once for each recording, and not when the object has been destroyed meanwhile.
  if (recorded && Objects::All().Find<Source>(handle)) {
    callback(nullptr, 0);
    Tell(VOX_EVENT_AUDIO_END, -1, {handle});
  }
  return result;
}

}  // namespace flat

using flat::Guarded;
using flat::Objects;
using flat::Source;
using flat::With;

constexpr DWORD kLeavePatience = 100;  // ms

uint32_t VOX_CALL vox_api_version(void) { return VOX_API_VERSION; }

const char* VOX_CALL vox_version(void) { return VOXDEVICE_VERSION; }

const char* VOX_CALL vox_error_text(vox_result code) {
  switch (code) {
    case VOX_ERROR_ARGUMENT:
      return "an argument is null, out of range, or a structure too small";
    case VOX_ERROR_HANDLE:
      return "there is no such object, or not any more";
    case VOX_ERROR_NO_DEVICE:
      return "no such device is connected";
    case VOX_ERROR_BUSY:
      return "the device's firmware is being updated, or another thread is just starting or stopping the recording";
    case VOX_ERROR_TIMEOUT:
      return "the device has not answered in time";
    case VOX_ERROR_REFUSED:
      return "the device has refused";
    case VOX_ERROR_NOT_SUPPORTED:
      return "the device, or this kind of object, does not support that";
    case VOX_ERROR_OTHER_FUNCTION:
      return "the device has confirmed another function";
    case VOX_ERROR_FILE:
      return "the file is not there, not readable, or empty";
    case VOX_ERROR_CHARACTER:
      return "the URL has a character that cannot be sent (a to z, A to Z, 0 to 9, - = . / can)";
    case VOX_ERROR_NOT_STARTED:
      return "the recording could not be started; the log says why";
    case VOX_ERROR_NOT_STOPPED:
      return "the driver has not stopped or closed; the next start tries again";
    case VOX_ERROR_NOT_RESET:
      return "the driver has not given its buffers back; the next start tries again";
    case VOX_ERROR_END:
      return "the recording is over";
    case VOX_ERROR_MEMORY:
      return "there is not enough memory";
    case VOX_ERROR_SYSTEM:
      return "the system has no event or thread left";
    default:
      return code < 0 ? "an error that this library does not know" : "no error";
  }
}

vox_result VOX_CALL vox_destroy(vox_handle object) {
  return Guarded([&]() -> vox_result {
    const auto it = Objects::All().Take(object);
    if (!it) return VOX_ERROR_HANDLE;
    it->End();
    // Whoever is inside is leaving now. One on whose stack this is called is not, and frees the object when it does.
    for (const CDeadline deadline(kLeavePatience); it.use_count() > 1 && !deadline.HasPassed();) os::Sleep(1);
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_record_start(vox_handle source) {
  return With<Source>(source, [](Source& it) { return it.Start(); });
}

vox_result VOX_CALL vox_record_stop(vox_handle source) {
  return With<Source>(source, [](Source& it) { return it.Stop(); });
}

vox_result VOX_CALL vox_on_audio(vox_handle source, vox_audio_fn function, void* context) {
  return With<Source>(source, [&](Source& it) -> vox_result {
    it.callback.Set(function, context);
    return VOX_OK;
  });
}

vox_result VOX_CALL vox_read(vox_handle source, int16_t* samples, int32_t capacity, uint32_t milliseconds) {
  if (!samples || capacity <= 0) return VOX_ERROR_ARGUMENT;
  return With<Source>(source, [&](Source& it) {
    return it.audio.Get(milliseconds, [&](const std::int16_t* first, std::size_t count) {
      const std::size_t taken = std::min(count, static_cast<std::size_t>(capacity));
      std::copy_n(first, taken, samples);
      return std::pair(taken, static_cast<vox_result>(taken));
    });
  });
}
