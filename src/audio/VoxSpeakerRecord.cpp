#include "VoxDevice/VoxSpeakerRecord.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "VoxDevice/VoxCommon.h"
#include "audio/ConvertTo16kMono.h"
#include "audio/CoreAudio.h"
#include "audio/Recording.h"
#include "support/LogLine.h"
#include "support/Memory.h"
#include "support/Probe.h"

namespace {

constexpr std::size_t kStagingBytes = 8192;
constexpr std::size_t kDeliveryBytes = 4096;
constexpr int kSilenceBytes = 320;                       // 10 ms
constexpr REFERENCE_TIME kEventBufferTime = 10'000'000;  // 1 s, in 100 ns
constexpr int kLeastRate = 16000;
// The part of an extensible format behind its WAVEFORMATEX.
constexpr WORD kExtensionBytes = sizeof(WAVEFORMATEXTENSIBLE) - sizeof(WAVEFORMATEX);

constexpr GUID kFloatFormat{0x00000003, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};
constexpr GUID kPcmFormat{0x00000001, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71}};

// Process-wide, as it always was: bytes in the staging buffer of the one object that records. Never more than fit in
// one, whoever sets it.
Atomic<std::size_t> fillCount{0};
// Successful checks of a format: only the first one is logged.
Atomic<int> formatChecks{0};

bool TimerMode() { return CEnvironmentMonitor::OsVersion() == WindowsVersion_TimerCapture; }

template <class... Pieces>
void Log(LogType type, const Pieces&... pieces) {
  VoxMessage::Log(LogLine<64>(pieces...).Text(), type);
}

void MakeIntegers(WAVEFORMATEX& format) {
  format.wBitsPerSample = 16;
  format.nBlockAlign = static_cast<WORD>(format.nChannels * 2);
  format.nAvgBytesPerSec = format.nBlockAlign * format.nSamplesPerSec;
}

// The multimedia tasks that threads have entered by starting recordings of one object. Only a thread itself can leave
// its own: it does so when it next comes by, or the system does when it ends.
class ThreadTasks {
 public:
  HANDLE Enter() {
    const CAutoLock guard(lock_);
    // Threads that have ended do not come by any more: the oldest are forgotten.
    if (entered_.size() >= kMost) entered_.erase(entered_.begin());
    entered_.reserve(kMost);
    DWORD index = 0;
    const HANDLE task = os::AvSetMmThreadCharacteristicsW(L"Capture", &index);
    if (task) entered_.push_back({os::GetCurrentThreadId(), task, false});
    return task;
  }
  void Leave(HANDLE task) noexcept {
    const CAutoLock guard(lock_);
    for (Entered& entered : entered_) entered.over = entered.over || entered.task == task;
    LeaveMine();
  }
  void LeaveMine() noexcept {
    const CAutoLock guard(lock_);
    std::erase_if(entered_, [me = os::GetCurrentThreadId()](const Entered& entered) {
      if (!entered.over || entered.thread != me) return false;
      os::AvRevertMmThreadCharacteristics(entered.task);
      return true;
    });
  }

 private:
  struct Entered {
    DWORD thread;
    HANDLE task;
    bool over;
  };
  static constexpr std::size_t kMost = 64;
  CLock lock_;
  std::vector<Entered> entered_ GUARDED_BY(lock_);
};

}  // namespace

class CVoxSpeakerRecord::Recording final : public CRecording, public std::enable_shared_from_this<Recording> {
 public:
  Recording(std::shared_ptr<const RecordedData> callback, std::shared_ptr<ThreadTasks> tasks)
      : CRecording(std::move(callback)), tasks_(std::move(tasks)) {
    thread = std::make_shared<CWorker>();
  }
  ~Recording() override { Release(); }

  bool Prepare();
  // Without the lock: nobody else knows the recording yet.
  bool StartEngine() NO_THREAD_SAFETY_ANALYSIS { return engineRuns_ = SUCCEEDED(m_pAudioClient->Start()); }
  bool StartThread();
  unsigned Close() noexcept override;

 protected:
  unsigned StopSource() noexcept override;
  void LeaveThread() noexcept override;

 private:
  int AdjustFormatTo16Bits(WAVEFORMATEX* format);
  void StopEngine() noexcept REQUIRES(lock_);
  void Release() noexcept;
  void OnThreadStartRoutine();
  bool TakePacket();
  void Stage(std::span<const std::int16_t> packet);

  const std::shared_ptr<ThreadTasks> tasks_;
  CLock lock_;  // held while the engine is stopped or let go of: one who stops may meet a thread that ends
  bool engineRuns_ GUARDED_BY(lock_) = false;
  Shared<HANDLE> m_hTask{nullptr};
  HANDLE m_hWake = nullptr;  // event or waitable timer: there may be data
  ComPtr<IAudioCaptureClient> m_pCaptureClient;
  ComPtr<IAudioClient> m_pAudioClient;
  WAVEFORMATEX* m_pFormat = nullptr;  // the mix format, rewritten to 16 bits
  HANDLE m_hStop = nullptr;           // manual-reset event
  IMMDevice* m_pDevice = nullptr;     // deliberately never released
  int m_nSampleRate = 0;
  int m_nChannels = 0;
  int m_nBits = 0;
  std::array<char, kStagingBytes> m_pBuffer{};
};

// What stands behind a CVoxSpeakerRecord.
struct CVoxSpeakerRecord::Recorder final : CRecorder {
  bool StartRecord();
  bool Run(const std::shared_ptr<Recording>& next);

  const std::shared_ptr<ThreadTasks> tasks = std::make_shared<ThreadTasks>();
};

CVoxSpeakerRecord::CVoxSpeakerRecord() : m_pRecorder(MakeWhole<Recorder>()) {}

CVoxSpeakerRecord::~CVoxSpeakerRecord() {
  const Operation inside(m_pRecorder);
  inside->callback->Set(nullptr, nullptr);
  inside->Close(CWorker::Patience());
  inside->tasks->LeaveMine();
}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): what stands behind the two is compared.
CVoxSpeakerRecord& CVoxSpeakerRecord::operator=(const CVoxSpeakerRecord& other) {
  const CNotCutOff whole;  // first, as either object may go meanwhile: references to what stands behind them
  const auto theirs = other.m_pRecorder;
  const auto mine = m_pRecorder;
  if (theirs == mine) return *this;
  const Operation from(theirs);
  const Operation to(mine);
  *mine->callback = *theirs->callback;
  mine->ShareRecordingOf(*theirs);
  return *this;
}

void CVoxSpeakerRecord::Init(void* dataCallback, void* context) {
  Operation(m_pRecorder)->callback->Set(reinterpret_cast<DataCallback>(dataCallback), context);
}

int CVoxSpeakerRecord::StartRecord() {
  const Operation inside(m_pRecorder);
  inside->tasks->LeaveMine();
  if (inside->starting.exchange(true)) return 0;
  bool started = false;
  HadMemory([&] { started = inside->StartRecord(); });
  inside->starting = false;
  return started ? 1 : 0;
}

unsigned int CVoxSpeakerRecord::StopRecord() {
  const Operation inside(m_pRecorder);
  inside->Stop();
  inside->tasks->LeaveMine();
  return 0;
}

bool CVoxSpeakerRecord::Recorder::StartRecord() {
  if (const auto earlier = Current(); earlier && !earlier->IsOver()) {
    // Its thread ends by itself only when the engine has failed.
    if (!earlier->thread->HasEnded() || !earlier->Claim()) return false;
    earlier->End(CDeadline(0), false);
    earlier->Close();
  }
  const ComApartment com;
  const auto next = std::make_shared<Recording>(callback, tasks);
  return next->Prepare() && next->StartEngine() && Run(next);
}

// Nobody sees the recording before its thread runs: who stops it closes what the thread needs.
bool CVoxSpeakerRecord::Recorder::Run(const std::shared_ptr<Recording>& next) {
  std::shared_ptr<CRecording> earlier = next;
  const CAutoLock guard(lock);
  if (closed) Probe<"speaker: a start meets the end of the object">();
  if (closed || !next->StartThread()) return false;
  recording.swap(earlier);
  return true;
}

bool CVoxSpeakerRecord::Recording::Prepare() {
  {
    ComPtr<IMMDeviceEnumerator> enumerator;
    if (FAILED(MakeDeviceEnumerator(enumerator)) ||
        FAILED(enumerator->GetDefaultAudioEndpoint(eRender, eConsole, &m_pDevice))) {
      return false;
    }
  }
  m_hStop = os::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!m_hStop) return false;
  if (FAILED(m_pDevice->Activate(kIidAudioClient, CLSCTX_ALL, nullptr, m_pAudioClient.PutVoid()))) return false;
  REFERENCE_TIME period = 0;
  REFERENCE_TIME minimum = 0;
  if (FAILED(m_pAudioClient->GetDevicePeriod(&period, &minimum)) || FAILED(m_pAudioClient->GetMixFormat(&m_pFormat)) ||
      AdjustFormatTo16Bits(m_pFormat) == 0) {
    return false;
  }
  const bool timer = TimerMode();
  m_hWake = timer ? os::CreateWaitableTimerW(nullptr, FALSE, nullptr)
                  : os::CreateEventExW(nullptr, nullptr, 0, EVENT_MODIFY_STATE | SYNCHRONIZE);
  if (!m_hWake) return false;
  const DWORD flags = AUDCLNT_STREAMFLAGS_LOOPBACK | (timer ? 0U : AUDCLNT_STREAMFLAGS_EVENTCALLBACK);
  if (FAILED(m_pAudioClient->Initialize(AUDCLNT_SHAREMODE_SHARED, flags, timer ? 0 : kEventBufferTime, 0, m_pFormat,
                                        nullptr)) ||
      FAILED(m_pAudioClient->GetService(kIidAudioCaptureClient, m_pCaptureClient.PutVoid())) ||
      (!timer && FAILED(m_pAudioClient->SetEventHandle(m_hWake)))) {
    return false;
  }
  // Deliberately on this thread, not on the one that captures.
  m_hTask = tasks_->Enter();
  if (!m_hTask) return false;
  if (!timer) return true;
  LARGE_INTEGER due{};
  due.QuadPart = period / -2;
  const auto half = static_cast<LONG>(static_cast<std::uint32_t>(period) / 20000);  // ms
  return os::SetWaitableTimer(m_hWake, &due, half, nullptr, nullptr, FALSE) != FALSE;
}

bool CVoxSpeakerRecord::Recording::StartThread() {
  return thread->Start([self = shared_from_this()] {
    self->OnThreadStartRoutine();
    // Who has asked it to end may not have waited for that.
    if (CWorker::CurrentIsAsked()) self->Release();
    return 0U;
  });
}

// Makes the engine deliver 16-bit integers. 0 when the format cannot be recorded, and deliberately also when it is one
// of integers already.
int CVoxSpeakerRecord::Recording::AdjustFormatTo16Bits(WAVEFORMATEX* format) {
  int changed = 0;
  if (format->wFormatTag == WAVE_FORMAT_IEEE_FLOAT) {
    format->wFormatTag = WAVE_FORMAT_PCM;
    MakeIntegers(*format);
    changed = 1;
  } else if (format->wFormatTag == WAVE_FORMAT_EXTENSIBLE && format->cbSize >= kExtensionBytes) {
    auto* extensible = reinterpret_cast<WAVEFORMATEXTENSIBLE*>(format);
    if (std::memcmp(&extensible->SubFormat, &kFloatFormat, sizeof kFloatFormat) == 0) {
      extensible->Samples.wValidBitsPerSample = 16;
      std::memcpy(&extensible->SubFormat, &kPcmFormat, sizeof kPcmFormat);
      MakeIntegers(*format);
      changed = 1;
    }
  }
  m_nSampleRate = static_cast<int>(format->nSamplesPerSec);
  m_nChannels = format->nChannels;
  m_nBits = format->wBitsPerSample;
  if (m_nBits != 16) {
    Log(LogType_Recording, L"扬声器录音是", m_nBits, L"位，不是16位");
    return 0;
  }
  if (m_nChannels != 1 && m_nChannels != 2) {
    Log(LogType_Recording, L"扬声器通道数是", m_nChannels, L"，不是1、2");
    return 0;
  }
  if (m_nSampleRate < kLeastRate) {
    Log(LogType_Recording, L"扬声器采样率是", m_nSampleRate, L"，低于16000");
    return 0;
  }
  if (++formatChecks == 1) Log(LogType_Information, L"扬声器采样率：", m_nSampleRate, L"，通道数：", m_nChannels);
  return changed;
}

void CVoxSpeakerRecord::Recording::OnThreadStartRoutine() {
  fillCount = 0;
  const ComApartment com;
  const HANDLE events[] = {thread->StopEvent(), m_hStop, m_hWake};
  for (;;) {
    const DWORD signalled = os::WaitForMultipleObjects(3, events, FALSE, INFINITE);
    if (signalled == WAIT_OBJECT_0 + 1) break;
    if (signalled != WAIT_OBJECT_0 + 2 || !TakePacket()) return;
  }
  // Read once, here and below: another object that records changes it.
  if (const std::size_t rest = fillCount; rest != 0) {
    Deliver(m_pBuffer.data(), rest);
  } else {
    const std::array<char, kSilenceBytes> silence{};
    Deliver(silence.data(), silence.size());
  }
  fillCount = 0;
}

// One packet for each wake-up. Flags (silence, discontinuity) are deliberately not looked at. False when the engine
// fails.
bool CVoxSpeakerRecord::Recording::TakePacket() {
  UINT32 frames = 0;
  if (FAILED(m_pCaptureClient->GetNextPacketSize(&frames))) return false;
  if (frames == 0) return true;
  BYTE* data = nullptr;
  DWORD flags = 0;
  if (FAILED(m_pCaptureClient->GetBuffer(&data, &frames, &flags, nullptr, nullptr))) return false;
  if (frames > 0 && data) {
    const std::size_t samples = std::size_t{frames} * static_cast<std::size_t>(m_nChannels);
    Stage({reinterpret_cast<const std::int16_t*>(data), samples});
  }
  return SUCCEEDED(m_pCaptureClient->ReleaseBuffer(frames));
}

// Converts a packet into the staging buffer, and delivers it once it holds enough. A packet that does not fit goes out
// in pieces.
void CVoxSpeakerRecord::Recording::Stage(std::span<const std::int16_t> packet) {
  const To16kMono convert(m_nSampleRate, m_nChannels);
  const std::size_t total = convert.Count(packet.size());
  std::array<std::int16_t, kStagingBytes / 2> pcm;
  for (std::size_t done = 0; done < total;) {
    const std::size_t fill = fillCount;
    const std::size_t count = std::min(total - done, (kStagingBytes - fill) / 2);
    convert.Convert(packet, done, std::span(pcm).first(count));
    std::memcpy(m_pBuffer.data() + fill, pcm.data(), 2 * count);
    const std::size_t filled = fill + 2 * count;
    fillCount = filled;
    done += count;
    if (filled < kDeliveryBytes) continue;
    Deliver(m_pBuffer.data(), filled);
    fillCount = 0;
  }
}

unsigned CVoxSpeakerRecord::Recording::StopSource() noexcept {
  const ComApartment com;
  const CAutoLock lock(lock_);
  StopEngine();
  if (m_hStop) os::SetEvent(m_hStop);
  return kStopped;
}

// One that fails is tried again before what the engine works with is closed.
void CVoxSpeakerRecord::Recording::StopEngine() noexcept {
  if (engineRuns_ && m_pAudioClient) engineRuns_ = FAILED(m_pAudioClient->Stop());
}

void CVoxSpeakerRecord::Recording::LeaveThread() noexcept {
  if (const HANDLE task = m_hTask.exchange(nullptr)) tasks_->Leave(task);
}

// A thread that still runs does it when it ends.
unsigned CVoxSpeakerRecord::Recording::Close() noexcept {
  if (thread->HasEnded()) Release();
  return kStopped;
}

void CVoxSpeakerRecord::Recording::Release() noexcept {
  const ComApartment com;
  const CAutoLock lock(lock_);
  StopEngine();
  const auto close = [](HANDLE& handle) {
    if (handle) os::CloseHandle(std::exchange(handle, nullptr));
  };
  close(m_hStop);
  m_pAudioClient.Reset();
  if (m_pFormat) os::CoTaskMemFree(std::exchange(m_pFormat, nullptr));
  if (m_hWake && TimerMode()) os::CancelWaitableTimer(m_hWake);
  close(m_hWake);
  LeaveThread();
  m_pCaptureClient.Reset();
}
