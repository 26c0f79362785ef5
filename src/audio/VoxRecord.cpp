#include "VoxDevice/VoxRecord.h"

#include <algorithm>
#include <array>
#include <vector>

#include "audio/Recording.h"
#include "audio/SoundCard.h"
#include "platform/os.h"
#include "support/Memory.h"
#include "support/Text.h"

namespace {

constexpr std::size_t kBuffers = 8;
constexpr std::size_t kBufferBytes = 4096;

enum RecordResult : unsigned {
  kOk = 0,
  kThreadFailed = 3,
  kBufferFailed = 5,
  kNotOpen = 8,
  kStartFailed = 9,
  kPauseFailed = 10,
  kResetFailed = 11,
  kNoDevice = 14,
};

// 16 kHz, mono, 16-bit.
constexpr WAVEFORMATEX kFormat{WAVE_FORMAT_PCM, 1, 16000, 32000, 2, 16, 0};

constexpr struct {
  MMRESULT error;
  const wchar_t* text;
} kOpenErrors[] = {
    {MMSYSERR_ALLOCATED, L"指定的资源已被分配"},
    {MMSYSERR_BADDEVICEID, L"录音设备的ID越界"},
    {MMSYSERR_NODRIVER, L"没有安装驱动程序"},
    {MMSYSERR_NOMEM, L"不能分配或锁定内存"},
    {WAVERR_BADFORMAT, L"录音设备不支持请求的波形格式"},
};

void SetInputVolume(const std::wstring& deviceName) {
  if (CEnvironmentMonitor::OsVersion() == WindowsVersion_MixerVolume) {
    SetMixerInputVolume(deviceName.c_str());
  } else {
    SetEndpointInputVolume(deviceName.c_str());
  }
}

using Choice = CVoxRecord::Choice;

// The first device whose name fits. volumeName: empty for the device's own name.
template <class Fits>
Choice FirstOf(const std::vector<std::wstring>& names, const char* rule, Fits fits,
               const std::wstring& volumeName = {}) {
  const auto found = std::find_if(names.begin(), names.end(), fits);
  if (found == names.end()) return {};
  return {static_cast<int>(found - names.begin()), *found, volumeName.empty() ? *found : volumeName, rule};
}

Choice ChooseForMouse(const std::vector<std::wstring>& names) {
  const CDeviceData& data = *CDeviceData::Instance();
  const std::wstring recordName = data.GetRecordName();
  const auto isLark = [](const std::wstring& name) { return Contains(name, L"VoxMouse Lark"); };
  const auto isMouse = [&](const std::wstring& name) {
    return Contains(name, L"oxMouse") && !Contains(name, L"VoxMouse Pipit") && !isLark(name);
  };
  Choice choice;
  if (data.IsRecordByName() && !recordName.empty()) {
    choice = FirstOf(
        names, "its name contains the one to record by",
        [&](const std::wstring& name) { return Contains(name, recordName.c_str()); }, recordName);
  } else if (data.GetHidDeviceKind() == HidKind_VoiceKeyboard) {
    choice = FirstOf(names, "the voice keyboard's, whose key was the last", isLark);
  } else {
    choice = FirstOf(names, "a mouse's", isMouse);
    if (choice.index < 0) choice = FirstOf(names, "the voice keyboard's, as there is no mouse's", isLark);
  }
  if (choice.index >= 0) return choice;
  return FirstOf(names, "a USB audio device, as there is none of ours", [](const std::wstring& name) {
    return Contains(name, L"USB Audio Device") || Contains(name, L"PnP Audio Device");
  });
}

}  // namespace

// What the driver works on.
struct CVoxRecord::Buffers {
  Buffers() {
    for (std::size_t i = 0; i < kBuffers; ++i) {
      headers[i].lpData = data.data() + i * kBufferBytes;
      headers[i].dwBufferLength = kBufferBytes;
      headers[i].dwLoops = 1;
    }
  }
  Buffers(const Buffers&) = delete;
  Buffers& operator=(const Buffers&) = delete;

  // The driver may write to them at any time: they are never freed.
  static void GiveUp(std::shared_ptr<Buffers> buffers) noexcept {
    static Atomic<Buffers*> latest{nullptr};
    Buffers& given = *buffers;
    given.before_ = latest;
    given.self_ = std::move(buffers);
    while (!latest.compare_exchange_weak(given.before_, &given)) {
    }
  }

  std::array<WAVEHDR, kBuffers> headers{};
  std::array<char, kBuffers * kBufferBytes> data{};

 private:
  std::shared_ptr<Buffers> self_;
  Buffers* before_ = nullptr;
};

// One lock guards the device: which buffers the driver has, whether one may still be queued, and the driver's calls
// that change that. So none is queued once the device is being stopped.
class CVoxRecord::Recording final : public CRecording {
 public:
  Recording(std::shared_ptr<const RecordedData> callback, std::shared_ptr<Buffers> buffers)
      : CRecording(std::move(callback)), buffers_(std::move(buffers)) {}
  ~Recording() override {
    if (Close() != kStopped) Buffers::GiveUp(std::move(buffers_));
  }

  MMRESULT Open(int index, DWORD_PTR instance) noexcept {
    HWAVEIN device = nullptr;
    const MMRESULT error =
        os::waveInOpen(&device, static_cast<UINT>(index), &kFormat, thread->Id(), instance, CALLBACK_THREAD);
    const CAutoLock lock(lock_);
    if (error == MMSYSERR_NOERROR) device_ = device;
    return error;
  }
  bool Queue() noexcept {
    const CAutoLock lock(lock_);
    if (!device_) return false;
    for (std::size_t i = 0; i < kBuffers; ++i) {
      if (os::waveInPrepareHeader(device_, &Header(i), sizeof(WAVEHDR)) != MMSYSERR_NOERROR || !Queue(i)) return false;
    }
    return true;
  }
  // All that the driver does not have. False when one stays prepared.
  bool Unprepare() noexcept {
    const CAutoLock lock(lock_);
    bool all = true;
    for (std::size_t i = 0; device_ && i < kBuffers; ++i) {
      const bool has = queued_[i] && (Header(i).dwFlags & WHDR_DONE) == 0;
      all = !has && os::waveInUnprepareHeader(device_, &Header(i), sizeof(WAVEHDR)) == MMSYSERR_NOERROR && all;
    }
    return all;
  }
  unsigned StartGetRecordData() noexcept {
    const CAutoLock lock(lock_);
    if (!device_) return kNotOpen;
    return os::waveInStart(device_) == MMSYSERR_NOERROR ? kOk : kStartFailed;
  }
  unsigned long Run();
  unsigned Close() noexcept override;

 protected:
  unsigned StopSource() noexcept override;
  bool SourceKeeps() noexcept override;

 private:
  WAVEHDR& Header(std::size_t i) noexcept { return buffers_->headers[i]; }
  bool Queue(std::size_t i) noexcept REQUIRES(lock_) {
    if (!device_ || !recording_) return false;
    queued_[i] = true;
    queued_[i] = os::waveInAddBuffer(device_, &Header(i), sizeof(WAVEHDR)) == MMSYSERR_NOERROR;
    return queued_[i];
  }
  bool AllReturned() noexcept {
    const CAutoLock lock(lock_);
    return !recording_ && std::none_of(queued_.begin(), queued_.end(), [](bool queued) { return queued; });
  }
  bool OnBuffer(std::intptr_t header);

  std::shared_ptr<Buffers> buffers_;
  CLock lock_;
  HWAVEIN device_ GUARDED_BY(lock_) = nullptr;
  bool recording_ GUARDED_BY(lock_) = true;  // whether a buffer that comes back is queued again
  bool reset_ GUARDED_BY(lock_) = false;
  std::array<bool, kBuffers> queued_ GUARDED_BY(lock_){};  // which the driver has
};

// What stands behind a CVoxRecord.
struct CVoxRecord::Recorder final : CRecorder, std::enable_shared_from_this<Recorder> {
  Recorder(CThread* owner, std::shared_ptr<Threads> its) : object(owner), threads(std::move(its)) {}

  void CopyFrom(const std::shared_ptr<Recorder>& other);
  Choice ChooseDevice();
  unsigned FindDevice(int& index);
  unsigned OpenDevice(int index, std::shared_ptr<Recording>& opened);
  int StartRecord();
  // Inside a message the client may destroy the object: then nothing more is told.
  void LogError(const wchar_t* text) {
    if (!IsClosed()) VoxMessage::Log(text, LogType_Recording);
  }
  // The one that ran before ends, and its device is closed.
  void EndEarlier() noexcept;
  std::shared_ptr<Buffers> FreeBuffers();

  CThread* const object;  // for its thread alone
  const std::shared_ptr<Threads> threads;
  // Under the lock.
  bool penMeetMode = false;
  std::wstring penMeetDevice;
  std::shared_ptr<Buffers> buffers = std::make_shared<Buffers>();
};

CVoxRecord::CVoxRecord() : m_pRecorder(MakeWhole<Recorder>(this, threads_)) {}

CVoxRecord::~CVoxRecord() {
  const Operation inside(m_pRecorder);
  inside->callback->Set(nullptr, nullptr);
  const CDeadline deadline = CWorker::Patience();
  inside->Close(deadline);
  EndThreads(deadline.Left());
}

// The original may go while it is copied: a reference to what stands behind it is taken before anything else.
CVoxRecord::CVoxRecord(const CVoxRecord& other) : CVoxRecord(other.m_pRecorder) {}

CVoxRecord::CVoxRecord(std::shared_ptr<Recorder> original) : m_pRecorder(MakeWhole<Recorder>(this, threads_)) {
  m_pRecorder->CopyFrom(original);
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): what stands behind the two is compared.
CVoxRecord& CVoxRecord::operator=(const CVoxRecord& other) {
  const CNotCutOff whole;
  const auto from = other.m_pRecorder;
  const auto to = m_pRecorder;
  if (from != to) to->CopyFrom(from);
  return *this;
}

void CVoxRecord::Recorder::CopyFrom(const std::shared_ptr<Recorder>& other) {
  bool meets = false;
  std::wstring device;
  const Operation from(other);
  const Operation to(shared_from_this());
  {
    const CAutoLock guard(from->lock);
    meets = from->penMeetMode;
    device = from->penMeetDevice;
  }
  {
    const CAutoLock guard(lock);
    penMeetMode = meets;
    penMeetDevice.swap(device);
  }
  *callback = *from->callback;
  ShareRecordingOf(*other);
}

void CVoxRecord::Init(void* dataCallback, void* context) {
  Operation(m_pRecorder)->callback->Set(reinterpret_cast<DataCallback>(dataCallback), context);
}

void CVoxRecord::SetPen_MeetMode(std::wstring deviceName) {
  const Operation inside(m_pRecorder);
  const CAutoLock lock(inside->lock);
  inside->penMeetMode = true;
  inside->penMeetDevice.swap(deviceName);
}

CVoxRecord::Choice CVoxRecord::ChooseDevice() const {
  Choice choice;
  HadMemory([&] { choice = Operation(m_pRecorder)->ChooseDevice(); });
  return choice;
}
int CVoxRecord::StartRecord() { return Operation(m_pRecorder)->StartRecord(); }
unsigned int CVoxRecord::StopRecord() { return Operation(m_pRecorder)->Stop(); }

unsigned long CVoxRecord::ThreadProc() {
  // Nothing of this object from here on: it may go while its thread is in a callback.
  if (auto* recording = static_cast<Recording*>(Owned())) return recording->Run();
  for (Message message; NextMessage(message);) {
  }
  return 1;
}

// ---- Starting -------------------------------------------------------------------------------------------------------

CVoxRecord::Choice CVoxRecord::Recorder::ChooseDevice() {
  const std::vector<std::wstring> names = WaveInDeviceNames();
  if (CPreferences::Instance()->GetHardWare() == HardWare_Mouse) return ChooseForMouse(names);
  const CAutoLock guard(lock);
  if (penMeetMode) {
    return FirstOf(names, "the meeting's", [this](const std::wstring& name) { return name == penMeetDevice; });
  }
  const std::wstring pen = L"VoxMouse Pipit";
  return FirstOf(
      names, "the laser pen's", [&](const std::wstring& name) { return Contains(name, pen.c_str()); }, pen);
}

unsigned CVoxRecord::Recorder::FindDevice(int& index) {
  if (os::waveInGetNumDevs() == 0) return kNoDevice;
  const Choice choice = ChooseDevice();
  if (choice.index < 0) {
    if (CPreferences::Instance()->GetHardWare() != HardWare_Mouse) {
      const CAutoLock guard(lock);
      penMeetMode = false;
      penMeetDevice.clear();
    }
    return kNoDevice;
  }
  SetInputVolume(choice.volumeName);
  index = choice.index;
  return kOk;
}

void CVoxRecord::Recorder::EndEarlier() noexcept {
  const auto earlier = Current();
  if (!earlier) return;
  if (earlier->Claim()) {
    earlier->End(CWorker::Patience(), false);
  } else {
    earlier->AwaitOver();
  }
  earlier->Close();
}

// Allocated once, but where a recording or a copy of this object's still has them.
std::shared_ptr<CVoxRecord::Buffers> CVoxRecord::Recorder::FreeBuffers() {
  const CAutoLock guard(lock);
  if (buffers.use_count() > 1) buffers = std::make_shared<Buffers>();
  return buffers;
}

unsigned CVoxRecord::Recorder::OpenDevice(int index, std::shared_ptr<Recording>& opened) {
  EndEarlier();
  const auto next = std::make_shared<Recording>(callback, FreeBuffers());
  next->thread = CThread::Start(threads, object, next);
  if (!next->thread) {
    LogError(L"开启录音线程失败");
    return kThreadFailed;
  }
  const MMRESULT error = next->Open(index, reinterpret_cast<DWORD_PTR>(object));
  if (error != MMSYSERR_NOERROR) {
    next->End(CWorker::Patience(), false);
    const auto known = std::find_if(std::begin(kOpenErrors), std::end(kOpenErrors),
                                    [error](const auto& entry) { return entry.error == error; });
    LogError(known != std::end(kOpenErrors) ? known->text : L"打开录音设备出现其他错误");
    return error;
  }
  if (!Publish(next)) return kThreadFailed;
  if (!next->Queue()) {
    LogError(L"开始录音时出现错误");
    next->Unprepare();
    return kBufferFailed;
  }
  next->thread->SetPriority(THREAD_PRIORITY_ABOVE_NORMAL);
  opened = next;
  return kOk;
}

int CVoxRecord::Recorder::StartRecord() {
  if (starting.exchange(true)) return 0;
  const wchar_t* failure = L"打开录音设备失败";  // also when there is no memory
  HadMemory([&] {
    int index = -1;
    std::shared_ptr<Recording> opened;
    if (FindDevice(index) != kOk) {
      failure = L"没有找到录音设备";
    } else if (OpenDevice(index, opened) == kOk) {
      failure = opened->StartGetRecordData() == kOk ? nullptr : L"开始采集声音失败";
    }
  });
  starting = false;
  if (failure) LogError(failure);
  if (failure && !IsClosed()) VoxMessage::Tray(failure, VoxTray_Message);
  return failure ? 0 : 1;
}

// ---- The record thread ----------------------------------------------------------------------------------------------

unsigned long CVoxRecord::Recording::Run() {
  while (!AllReturned()) {
    Message message;
    if (!NextMessage(message)) return 1;
    if (message.message == MM_WIM_CLOSE) Deliver(nullptr, 0);
    if (message.message == MM_WIM_DATA && !OnBuffer(message.lParam)) return 0;
  }
  Deliver(nullptr, 0);
  return 0;
}

// A buffer is back. False when it cannot be queued again.
bool CVoxRecord::Recording::OnBuffer(std::intptr_t address) {
  for (std::size_t i = 0; i < kBuffers; ++i) {
    const WAVEHDR& header = Header(i);
    if (reinterpret_cast<std::intptr_t>(&header) != address) continue;
    {
      const CAutoLock lock(lock_);
      // A driver may say twice that a buffer is back, which by then is in its queue again, or is known to be back.
      if ((header.dwFlags & WHDR_DONE) == 0 || !queued_[i]) return true;
      queued_[i] = false;
    }
    Deliver(header.lpData, std::min<std::size_t>(header.dwBytesRecorded, kBufferBytes));
    const CAutoLock lock(lock_);
    return !recording_ || Queue(i);
  }
  return true;  // none of ours
}

// ---- Ending ---------------------------------------------------------------------------------------------------------

unsigned CVoxRecord::Recording::StopSource() noexcept {
  constexpr UINT kLookAgain = 0;  // a message without a meaning: the thread may have nothing to wait for any more
  if (!lock_.Lock(kDriverPatience)) return kStopFailed;
  recording_ = false;
  unsigned result = kStopped;
  if (!device_) {
    // Closed meanwhile, with the object that started it.
  } else if (os::waveInStop(device_) != MMSYSERR_NOERROR) {
    result = kStopFailed;
  } else if (os::waveInReset(device_) != MMSYSERR_NOERROR) {
    result = kResetFailed;
  } else {
    reset_ = true;
  }
  lock_.Unlock();
  os::PostThreadMessageW(thread->Id(), kLookAgain, 0, 0);
  return result;
}

bool CVoxRecord::Recording::SourceKeeps() noexcept {
  const CAutoLock lock(lock_);
  for (std::size_t i = 0; i < kBuffers; ++i) {
    if (queued_[i] && (Header(i).dwFlags & WHDR_DONE) == 0) return true;
  }
  return false;
}

unsigned CVoxRecord::Recording::Close() noexcept {
  if (!lock_.Lock(kDriverPatience)) return kStopFailed;
  recording_ = false;
  if (device_ && !reset_) reset_ = os::waveInReset(device_) == MMSYSERR_NOERROR;
  if (device_ && reset_ && Unprepare() && os::waveInClose(device_) == MMSYSERR_NOERROR) device_ = nullptr;
  const bool closed = !device_;
  lock_.Unlock();
  return closed ? kStopped : kStopFailed;
}
