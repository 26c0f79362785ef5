// Microphones and the speaker.
#include <string>

#include "Objects.h"
#include "VoxDevice/VoxRecord.h"
#include "VoxDevice/VoxSpeakerRecord.h"
#include "support/Text.h"

namespace flat {
namespace {

void DeliverBytes(const char* data, int byteCount, void* context) { Source::Deliver(data, byteCount, context); }

template <class Recorder>
class Recording : public Source {
 public:
  // The recorder goes at once, also while another thread is inside StopRecord: a callback that does not return is then
  // ended. While one is inside StartRecord, that one ends it.
  void End() noexcept override {
    Source::End();
    std::unique_ptr<Owned> going;
    const CAutoLock lock(lock_);
    hasEnded_ = true;
    if (!starts_) going = std::move(recorder_);
  }
  // Calls `work` with an object that shares the recording, and may outlive the one that has started it.
  template <class Work>
  vox_result WithShare(Work&& work) {
    Recorder share;
    {
      const CAutoLock lock(lock_);
      if (!recorder_) return VOX_ERROR_HANDLE;
      share = *recorder_;
    }
    return work(share);
  }
  vox_result PenMeeting(const std::wstring& name) {
    const CAutoLock lock(lock_);
    if (!recorder_) return VOX_ERROR_HANDLE;
    recorder_->SetPen_MeetMode(name);
    return VOX_OK;
  }

 private:
  struct Owned final : Recorder {};

  vox_result StartRecording() override {
    {
      const CAutoLock lock(lock_);
      if (!recorder_) return VOX_ERROR_HANDLE;
      starts_ = true;
    }
    recorder_->Init(reinterpret_cast<void*>(&DeliverBytes), ContextOf(handle));
    const bool started = recorder_->StartRecord() == 1;
    std::unique_ptr<Owned> going;
    const CAutoLock lock(lock_);
    starts_ = false;
    if (hasEnded_) going = std::move(recorder_);
    return started ? VOX_OK : VOX_ERROR_NOT_STARTED;
  }
  vox_result StopRecording() override {
    return WithShare([](Recorder& recorder) -> vox_result {
      switch (recorder.StopRecord()) {
        case 0:
          return VOX_OK;
        case 7:
          return VOX_ERROR_NOT_STOPPED;
        default:
          return VOX_ERROR_NOT_RESET;
      }
    });
  }

  CLock lock_;
  std::unique_ptr<Owned> recorder_ = std::make_unique<Owned>();
  bool starts_ = false;
  bool hasEnded_ = false;
};

using MicrophoneSource = Recording<CVoxRecord>;
using SpeakerSource = Recording<CVoxSpeakerRecord>;

template <class It>
vox_result Create() noexcept {
  return Guarded([]() -> vox_result {
    if (const vox_result result = Listen(); result < 0) return result;
    const vox_result handle = Objects::All().Add<It>();
    return handle < 0 ? handle : With<It>(handle, [&](It& it) -> vox_result {
      if (!it.audio.IsWhole()) return Objects::All().Take(handle), VOX_ERROR_SYSTEM;
      return handle;
    });
  });
}

}  // namespace
}  // namespace flat

using flat::Guarded;
using flat::MicrophoneSource;
using flat::SpeakerSource;
using flat::With;

vox_result VOX_CALL vox_microphone_create(void) { return flat::Create<MicrophoneSource>(); }
vox_result VOX_CALL vox_speaker_create(void) { return flat::Create<SpeakerSource>(); }

vox_result VOX_CALL vox_microphone_choice(vox_handle microphone, vox_choice* choice) {
  if (!choice || choice->size < sizeof *choice) return VOX_ERROR_ARGUMENT;
  return With<MicrophoneSource>(microphone, [&](MicrophoneSource& it) -> vox_result {
    return it.WithShare([&](const CVoxRecord& recorder) -> vox_result {
      const CVoxRecord::Choice chosen = recorder.ChooseDevice();
      choice->index = chosen.index;
      flat::GiveStart(Utf8(chosen.name), choice->name);
      flat::GiveStart(Utf8(chosen.volumeName), choice->volume_name);
      flat::GiveStart(chosen.rule, choice->rule);
      return VOX_OK;
    });
  });
}

vox_result VOX_CALL vox_microphone_pen_meeting(vox_handle microphone, const char* device_name) {
  if (!device_name) return VOX_ERROR_ARGUMENT;
  return With<MicrophoneSource>(microphone, [&](MicrophoneSource& it) { return it.PenMeeting(Wide(device_name)); });
}

vox_result VOX_CALL vox_sound_card_check(void) {
  return Guarded([]() -> vox_result {
    const int index = CVoxRecord::VoxCheckSoundCard();
    return index < 0 ? VOX_ERROR_NO_DEVICE : index;
  });
}
