// Construction, start and stop, the table, callback registration.
#include <utility>

#include "hub/HidDeviceEntry.h"
#include "support/CLock.h"
#include "support/WorkerThread.h"

namespace {

constexpr DWORD kDetectionTick = 50;    // ms
constexpr int kDetectionPeriod = 1000;  // ms
constexpr DWORD kPassPatience = 1000;   // ms that a discovery pass is given to end

template <class Function>
void Register(CallbackSlot<Function>& slot, void* function, void* context) {
  slot.Set(reinterpret_cast<Function>(function), context);
}

}  // namespace

struct CAudioHidCenter::Detection {
  explicit Detection(CAudioHidCenter* owner) : hub(owner) {}
  CAudioHidCenter* hub;
  CWorkerThread thread;
};

std::atomic<CAudioHidCenter*> CAudioHidCenter::s_pHidDeviceCenter{nullptr};

CAudioHidCenter* CAudioHidCenter::Instance() noexcept { return s_pHidDeviceCenter; }

CAudioHidCenter::CAudioHidCenter() : audioLock(std::make_unique<CLock>()) {
  InitLegalPid_Vid();
  InitButtonState();
  s_pHidDeviceCenter = this;
}

CAudioHidCenter::~CAudioHidCenter() {
  detections.clear();
  ClearTable();
  retired.clear();
  CAudioHidCenter* self = this;
  s_pHidDeviceCenter.compare_exchange_strong(self, nullptr);
}

CAudioHidCenter::CAudioHidCenter(const CAudioHidCenter& other) : audioLock(std::make_unique<CLock>()) {
  CopyFrom(other);
}

CAudioHidCenter& CAudioHidCenter::operator=(const CAudioHidCenter& other) {
  if (this != &other) {
    ClearTable();
    CopyFrom(other);
  }
  return *this;
}

void CAudioHidCenter::CopyFrom(const CAudioHidCenter& other) {
  anyDeviceConnected = other.anyDeviceConnected;
  stopDetection = other.stopDetection;
  lastDeviceNumber = other.lastDeviceNumber;
  for (const HidDeviceEntry* row = other.devices; row; row = row->next) {
    auto copy = std::make_unique<HidDeviceEntry>();
    copy->deviceNumber = row->deviceNumber;
    copy->path = row->path;
    copy->pathEmptied = row->pathEmptied;
    copy->reader = row->reader;
    AppendRow(std::move(copy));
  }
  legalIds = other.legalIds;
  audioBytes = other.audioBytes;
  audioBuffer = other.audioBuffer;
  DoubleClick = other.DoubleClick;
  ButtonState_Left = other.ButtonState_Left;
  LastState_Left = other.LastState_Left;
  ButtonState_Right = other.ButtonState_Right;
  ShortPress_R = other.ShortPress_R;
  ButtonState_Key1 = other.ButtonState_Key1;
  ButtonState_Key2 = other.ButtonState_Key2;
  ButtonHid_Left = other.ButtonHid_Left;
  ButtonHid_Right = other.ButtonHid_Right;
  ButtonHid_Key1 = other.ButtonHid_Key1;
  ButtonHid_Key2 = other.ButtonHid_Key2;
  workDevice = other.workDevice;
  audioCallback = other.audioCallback;
  mouseConnectCallback = other.mouseConnectCallback;
  voiceOperateCallback = other.voiceOperateCallback;
  dpiSetCallback = other.dpiSetCallback;
  mouseStateCallback = other.mouseStateCallback;
  dongleStateCallback = other.dongleStateCallback;
  powerReportCallback = other.powerReportCallback;
  downloadUrlCallback = other.downloadUrlCallback;
  fwOtaResultCallback = other.fwOtaResultCallback;
}

void CAudioHidCenter::OpenDevice(void* callback, void* context) {
  Register(audioCallback, callback, context);
  stopDetection = false;
  detections.remove_if([](const Detection& detection) { return detection.thread.IsIdle(); });
  // Deliberately no guard against a second call: it starts a second discovery thread. The two take turns.
  Detection& detection = detections.emplace_back(this);
  detectionThread = &detection.thread;
  detection.thread.Start(&CAudioHidCenter::ThreadDeviceDetectionProc, &detection);
}

unsigned CAudioHidCenter::ThreadDeviceDetectionProc(void* argument) {
  auto* detection = static_cast<Detection*>(argument);
  if (!detection->thread.Begin()) return 0;
  detection->hub->OnThreadDeviceDetectionProc(detection->thread);
  detection->thread.Clear();
  return 0;
}

void CAudioHidCenter::OnThreadDeviceDetectionProc(CWorkerThread& thread) {
  int counter = 0;
  while (!stopDetection) {
    counter += static_cast<int>(kDetectionTick);
    if (counter == kDetectionPeriod) {
      counter = 0;
      if (!passRunning.exchange(true)) {
        std::vector<std::wstring> paths;
        EnumerateHidInterfaces(paths);
        OpenHidDevice(paths);
        passRunning = false;
      }
    }
    if (!thread.Park([] { os::Sleep(kDetectionTick); })) return;
  }
}

void CAudioHidCenter::CloseDevice() {
  stopDetection = true;
  // A pass that runs now may still start a reader; the readers are stopped after it.
  for (DWORD waited = 0; passRunning && waited < kPassPatience; ++waited) os::Sleep(1);
  ForEachRow([](HidDeviceEntry& row) {
    if (row.reader) row.reader->Stop();
  });
}

void CAudioHidCenter::Release() {
  stopDetection = true;  // a pass that runs now ends with the interface it is at
  detectionThread = nullptr;
  for (Detection& detection : detections) detection.thread.Terminate(kPassPatience);
  detections.clear();
  passRunning = false;
  AppExit(-1);
  // All threads first: a callback on one reader's thread may be sending to the device of another.
  ForEachRow([](HidDeviceEntry& row) {
    if (row.reader) row.reader->EndThreads();
  });
  ForEachRow([this](HidDeviceEntry& row) {
    if (!row.reader) return;
    row.reader->ShutDown();
    if (row.reader->IsOwnThread()) retired.push_back(row.reader);
    row.reader.reset();
  });
  ClearTable();
  UnloadAscDecoder();
}

void CAudioHidCenter::ClearTable() {
  for (HidDeviceEntry* row = devices.exchange(nullptr); row;) delete std::exchange(row, row->next);
}

bool CAudioHidCenter::ThreadIsClosed() {
  const CWorkerThread* detection = detectionThread;
  if (detection && detection->IsSet()) return false;
  bool running = false;
  ForEachRow([&](HidDeviceEntry& row) {
    running = running || (row.reader && (row.reader->readThread.IsSet() || row.reader->heartbeatThread.IsSet()));
  });
  return running;
}

void CAudioHidCenter::AppendRow(std::unique_ptr<HidDeviceEntry> row) {
  std::atomic<HidDeviceEntry*>* end = &devices;
  while (HidDeviceEntry* last = *end) end = &last->next;
  *end = row.release();
}

void CAudioHidCenter::SetCallback_MouseConnect(void* function, void* context) {
  Register(mouseConnectCallback, function, context);
}

void CAudioHidCenter::SetCallback_VoiceOperate(void* function, void* context) {
  Register(voiceOperateCallback, function, context);
}

void CAudioHidCenter::SetCallback_DpiSet(void* function, void* context) { Register(dpiSetCallback, function, context); }

void CAudioHidCenter::SetCallback_MouseState(void* function, void* context) {
  Register(mouseStateCallback, function, context);
}

void CAudioHidCenter::SetCallback_DongleState(void* function, void* context) {
  Register(dongleStateCallback, function, context);
}

void CAudioHidCenter::SetCallback_PowerReport(void* function, void* context) {
  Register(powerReportCallback, function, context);
}

void CAudioHidCenter::SetCallback_DownloadUrl(void* function, void* context) {
  Register(downloadUrlCallback, function, context);
}

void CAudioHidCenter::SetCallback_FwOtaResult(void* function, void* context) {
  Register(fwOtaResultCallback, function, context);
}
