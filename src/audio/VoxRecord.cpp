#include "VoxDevice/VoxRecord.h"

#include <algorithm>
#include <array>
#include <vector>

#include "audio/SoundCard.h"
#include "platform/os.h"

namespace {

constexpr std::size_t kBuffers = 8;
constexpr std::size_t kBufferBytes = 4096;

enum RecordResult : unsigned {
  kOk = 0,
  kThreadFailed = 3,
  kBufferFailed = 5,
  kStopFailed = 7,
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

void LogError(const wchar_t* text) { VoxMessage::Log(text, LogType_Recording); }

void Complain(const wchar_t* text) {
  LogError(text);
  VoxMessage::Tray(text, VoxTray_Message);
}

bool Contains(const std::wstring& text, const wchar_t* part) { return text.find(part) != std::wstring::npos; }

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
struct CVoxRecord::Capture {
  Capture() {
    for (std::size_t i = 0; i < kBuffers; ++i) {
      headers[i].lpData = data.data() + i * kBufferBytes;
      headers[i].dwBufferLength = kBufferBytes;
      headers[i].dwLoops = 1;
    }
  }
  ~Capture() { Close(); }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  bool Queue(std::size_t i) {
    queued[i] = true;
    if (os::waveInAddBuffer(device, &headers[i], sizeof headers[i]) == MMSYSERR_NOERROR) return true;
    queued[i] = false;
    return false;
  }
  bool Prepare(std::size_t i) {
    return os::waveInPrepareHeader(device, &headers[i], sizeof headers[i]) == MMSYSERR_NOERROR;
  }
  void Unprepare(HWAVEIN from) {
    for (WAVEHDR& header : headers) os::waveInUnprepareHeader(from, &header, sizeof header);
  }
  // Takes the buffers away from the driver, also where an earlier step has failed.
  void Close() {
    for (Shared<HWAVEIN>* field : {&device, &leftOpen}) {
      const HWAVEIN open = field->exchange(nullptr);
      if (!open) continue;
      os::waveInReset(open);
      Unprepare(open);
      os::waveInClose(open);
    }
    std::fill(queued.begin(), queued.end(), false);
  }

  Shared<HWAVEIN> device{nullptr};
  Shared<HWAVEIN> leftOpen{nullptr};  // could not be stopped
  std::array<WAVEHDR, kBuffers> headers{};
  std::array<Shared<bool>, kBuffers> queued{};  // which the driver has
  std::array<char, kBuffers * kBufferBytes> data{};
};

CVoxRecord::CVoxRecord()
    : m_pCapture(std::make_shared<Capture>()), m_hAllReturned(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

CVoxRecord::~CVoxRecord() {
  m_pfnData = nullptr;
  m_pContext = nullptr;
  EndThreads();
}

CVoxRecord::CVoxRecord(const CVoxRecord& other) = default;
CVoxRecord& CVoxRecord::operator=(const CVoxRecord& other) = default;

void CVoxRecord::Init(void* dataCallback, void* context) {
  m_pfnData = reinterpret_cast<DataCallback>(dataCallback);
  m_pContext = context;
}

void CVoxRecord::SetPen_MeetMode(std::wstring deviceName) {
  m_bPenMeetMode = true;
  m_strPenMeetDevice = std::move(deviceName);
}

CVoxRecord::Choice CVoxRecord::ChooseDevice() const {
  const std::vector<std::wstring> names = WaveInDeviceNames();
  if (CPreferences::Instance()->GetHardWare() == HardWare_Mouse) return ChooseForMouse(names);
  if (m_bPenMeetMode) {
    return FirstOf(names, "the meeting's", [this](const std::wstring& name) { return name == m_strPenMeetDevice; });
  }
  const std::wstring pen = L"VoxMouse Pipit";
  return FirstOf(
      names, "the laser pen's", [&](const std::wstring& name) { return Contains(name, pen.c_str()); }, pen);
}

unsigned int CVoxRecord::FindDevice() {
  m_nDeviceId = -1;
  if (os::waveInGetNumDevs() == 0) return kNoDevice;
  const Choice choice = ChooseDevice();
  if (choice.index < 0) {
    if (CPreferences::Instance()->GetHardWare() != HardWare_Mouse) {
      m_bPenMeetMode = false;
      m_strPenMeetDevice.clear();
    }
    return kNoDevice;
  }
  SetInputVolume(choice.volumeName);
  m_nDeviceId = choice.index;
  return kOk;
}

unsigned int CVoxRecord::OpenDevice() {
  Capture& capture = *m_pCapture;
  if (capture.device || capture.leftOpen) {
    // Left open by an earlier failure. Its record thread goes first: what comes back now is nobody's.
    EndThreads();
    capture.Close();
  }
  if (!StartThread()) {
    LogError(L"开启录音线程失败");
    return kThreadFailed;
  }
  HWAVEIN device = nullptr;
  const MMRESULT error = os::waveInOpen(&device, static_cast<UINT>(m_nDeviceId), &kFormat, GetThreadID(),
                                        reinterpret_cast<DWORD_PTR>(this), CALLBACK_THREAD);
  if (error != MMSYSERR_NOERROR) {
    const auto known = std::find_if(std::begin(kOpenErrors), std::end(kOpenErrors),
                                    [error](const auto& entry) { return entry.error == error; });
    LogError(known != std::end(kOpenErrors) ? known->text : L"打开录音设备出现其他错误");
    return error;
  }
  capture.device = device;
  for (std::size_t i = 0; i < kBuffers; ++i) {
    if (capture.Prepare(i) && capture.Queue(i)) continue;
    LogError(L"开始录音时出现错误");
    capture.Unprepare(device);
    return kBufferFailed;
  }
  SetThreadPriority(THREAD_PRIORITY_ABOVE_NORMAL);
  return kOk;
}

int CVoxRecord::StartRecord() {
  if (FindDevice() != kOk) {
    Complain(L"没有找到录音设备");
    return 0;
  }
  if (OpenDevice() != kOk) {
    Complain(L"打开录音设备失败");
    return 0;
  }
  if (StartGetRecordData() == kOk) return 1;
  Complain(L"开始采集声音失败");
  return 0;
}

unsigned int CVoxRecord::StartGetRecordData() {
  m_nReturned = 0;
  m_bRecording = true;
  const HWAVEIN device = m_pCapture->device;
  if (!device) return kNotOpen;
  return os::waveInStart(device) == MMSYSERR_NOERROR ? kOk : kStartFailed;
}

unsigned int CVoxRecord::StopGetRecordData() {
  const HWAVEIN device = m_pCapture->device;
  if (!device) return kNotOpen;
  m_bRecording = false;
  return os::waveInStop(device) == MMSYSERR_NOERROR ? kOk : kPauseFailed;
}

void CVoxRecord::Deliver(const char* data, int byteCount) {
  if (const DataCallback callback = m_pfnData) callback(byteCount > 0 ? data : nullptr, byteCount, m_pContext);
}

unsigned long CVoxRecord::ThreadProc() {
  Message message;
  while (NextMessage(message)) {
    if (message.message == MM_WIM_CLOSE) Deliver(nullptr, 0);
    if (message.message == MM_WIM_DATA && !OnBuffer(message.lParam)) return 0;
  }
  return 1;
}

// A buffer is back. False when the record thread is to end.
bool CVoxRecord::OnBuffer(std::intptr_t headerAddress) {
  Capture& capture = *m_pCapture;
  for (std::size_t i = 0; i < kBuffers; ++i) {
    if (reinterpret_cast<std::intptr_t>(&capture.headers[i]) != headerAddress) continue;
    const WAVEHDR& header = capture.headers[i];
    // A driver may say twice that a buffer is back, which by then is in its queue again, or is known to be back.
    if ((header.dwFlags & WHDR_DONE) == 0 || !capture.queued[i].exchange(false)) return true;
    Deliver(header.lpData, static_cast<int>(std::min<std::size_t>(header.dwBytesRecorded, kBufferBytes)));
    if (m_bRecording) return capture.Queue(i);
    m_nReturned = m_nReturned + 1;
    if (m_nReturned != static_cast<int>(kBuffers)) return true;
    m_nReturned = 0;
    os::SetEvent(m_hAllReturned);
    Deliver(nullptr, 0);
    return false;
  }
  return true;  // none of ours
}

unsigned int CVoxRecord::StopRecord() {
  Capture& capture = *m_pCapture;
  const HWAVEIN device = capture.device;
  if (!device) return kOk;
  m_bRecording = false;
  unsigned result = kOk;
  if (os::waveInStop(device) != MMSYSERR_NOERROR) {
    result = kStopFailed;
  } else if (os::waveInReset(device) != MMSYSERR_NOERROR) {
    result = kResetFailed;
  } else {
    os::WaitForSingleObject(m_hAllReturned, INFINITE);
    Uninitialize();
    if (os::waveInClose(device) != MMSYSERR_NOERROR) result = kStopFailed;
  }
  Deliver(nullptr, 0);
  if (result != kOk) capture.leftOpen = device;
  capture.device = nullptr;
  return result;
}

void CVoxRecord::Uninitialize() { m_pCapture->Unprepare(m_pCapture->device); }
