// Construction, start and stop, and the table.
#include <algorithm>
#include <utility>

#include "VoxDevice/VoxNet.h"
#include "hub/Detection.h"
#include "hub/Hub.h"
#include "support/Probe.h"

namespace {

constexpr DWORD kDetectionTick = 50;    // ms
constexpr int kDetectionPeriod = 1000;  // ms
// Of the two seconds in which everything ends: what is left for AppExit and the readers when a discovery pass, and for
// the readers when AppExit, does not come to its end.
constexpr DWORD kForExit = 700;     // ms
constexpr DWORD kForReaders = 200;  // ms
constexpr DWORD kForOneExit = 50;   // ms

}  // namespace

CHub::CHub() : decoders_(SharedDecoders()) {
  InitLegalPid_Vid();
  InitButtonState();
}

CHub::~CHub() = default;

void CHub::CopyFrom(CHub& other) {
  std::vector<HidDeviceEntry> rows;  // those before are let go of without the lock
  {
    const CAutoLock lock(other.tableLock);
    rows = other.devices;
  }
  {
    const CAutoLock lock(tableLock);
    devices.swap(rows);
    for (const HidDeviceEntry& row : rows) {
      const bool stays = std::any_of(devices.begin(), devices.end(),
                                     [&row](const HidDeviceEntry& kept) { return kept.reader == row.reader; });
      if (stays || !row.reader || row.reader->callbackContext != this) continue;
      Leave(row.reader);
      row.reader->Ask();
    }
  }
  anyDeviceConnected = other.anyDeviceConnected;
  stopDetection = other.stopDetection;
  lastDeviceNumber = other.lastDeviceNumber.load();
  CopyAudioFrom(other);
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
  static_cast<CHubCallbacks&>(*this) = other;
}

void CHub::OpenDevice(void* callback, void* context) {
  audioCallback.Set(reinterpret_cast<CAudioHidCenter::AudioCallback>(callback), context);
  const CAutoLock lock(tableLock);
  if (closed_) return;
  stopDetection = false;
  std::erase_if(detections, [](const auto& detection) { return detection->thread.HasEnded(); });
  // Deliberately no guard against a second call: it starts a second discovery thread. The two take turns.
  const auto detection = std::make_shared<Detection>();
  detections.push_back(detection);
  detectionThread = detection;
  detection->thread.Start([self = shared_from_this(), detection] {
    self->OnThreadDeviceDetectionProc(*detection);
    return 0U;
  });
}

void CHub::OnThreadDeviceDetectionProc(Detection& detection) {
  int counter = 0;
  while (!stopDetection) {
    counter += static_cast<int>(kDetectionTick);
    if (counter == kDetectionPeriod) {
      counter = 0;
      Detection* nobody = nullptr;
      if (passRunning.compare_exchange_strong(nobody, &detection)) {
        OpenHidDevice(detection);
        Detection* mine = &detection;
        passRunning.compare_exchange_strong(mine, nullptr);
      } else {
        Probe<"hub: two discovery threads take turns">();
      }
    }
    if (!detection.thread.Sleep(kDetectionTick)) return;
  }
}

// A copy shares the readers of its original. It ends them when it is told to, and leaves them alone when it goes.
CHub::Readers CHub::ReadersToEnd() {
  Readers readers;
  for (const auto& leaving : leaving_) {
    if (auto reader = leaving.lock()) readers.push_back(std::move(reader));
  }
  for (const HidDeviceEntry& row : devices) {
    if (row.reader && (!closed_ || row.reader->callbackContext == this)) readers.push_back(row.reader);
  }
  return readers;
}

// From its beginning on, no device comes in any more: a pass that runs sees under tableLock that its thread is asked.
void CHub::Stop(CDeadline deadline) {
  stopDetection = true;
  Readers readers;
  {
    const CAutoLock lock(tableLock);
    for (const auto& detection : detections) detection->thread.Release();
    readers = ReadersToEnd();
  }
  // All are asked before one is waited for: they end at the same time.
  for (const auto& reader : readers) reader->Ask();
  EndDetections(deadline);
  for (const auto& reader : readers) reader->End(deadline);
}

// Whoever else stops at the same time waits for the same threads.
void CHub::EndDetections(CDeadline deadline) {
  std::vector<std::shared_ptr<Detection>> ending;
  {
    const CAutoLock lock(tableLock);
    ending = detections;
    detectionThread.reset();
  }
  for (const auto& detection : ending) detection->thread.Release();
  for (const auto& detection : ending) {
    detection->thread.End(deadline);
    // One that has not ended, or was ended in the middle of a pass, passes no more.
    Detection* its = detection.get();
    passRunning.compare_exchange_strong(its, nullptr);
  }
  const CAutoLock lock(tableLock);
  std::erase_if(detections, [](const auto& detection) { return detection->thread.HasEnded(); });
}

void CHub::CloseDevice() { Stop(CWorker::Patience()); }

void CHub::Release() { ReleaseBy(CWorker::Patience()); }

void CHub::ReleaseBy(CDeadline deadline) {
  stopDetection = true;
  std::vector<std::shared_ptr<Detection>> discovering;
  {
    const CAutoLock lock(tableLock);
    discovering = detections;
    for (const auto& detection : discovering) detection->thread.Release();
  }
  for (const auto& detection : discovering) {
    if (!detection->thread.IsCurrent()) detection->thread.AwaitEnd(deadline.Before(kForExit));
  }
  if (!closed_) SendAppExit(deadline);
  Stop(deadline);
  std::vector<HidDeviceEntry> rows;  // let go of without the lock
  Readers readers;
  {
    const CAutoLock lock(tableLock);
    readers = ReadersToEnd();
    rows.swap(devices);
    leaving_.clear();
  }
  // Again, for devices that have come since, by an OpenDevice on another thread.
  for (const auto& reader : readers) reader->End(deadline);
  for (const auto& reader : readers) reader->ShutDown();
  if (anyDeviceConnected) ForgetDevices();
  UnloadAscDecoder();
}

// One that is not written by the time that the readers are ended is lost. So a moment is left for each device, also
// when another one does not take its.
void CHub::SendAppExit(CDeadline deadline) {
  const CDeadline together(deadline.Before(kForReaders).Left(CDeviceReader::kWritePatience));
  for (const auto& reader : Addressed(-1)) {
    const CDeadline its(std::max(together.Left(), deadline.Left(kForOneExit)));
    if (reader->otaStage == 0) reader->SendCommand(HidCommand::AppExit, reader->channel, its);
  }
}

void CHub::Close() {
  const CDeadline deadline = CWorker::Patience();
  {
    const CAutoLock lock(tableLock);
    closed_ = true;  // nothing starts any more
  }
  static_cast<CHubCallbacks&>(*this) = CHubCallbacks{};
  ReleaseBy(deadline);
  // Operations on other threads return at once now, but for one that is inside the client's code.
  inside.AwaitOthers(deadline);
}

bool CHub::ThreadIsClosed() {
  const CAutoLock lock(tableLock);
  if (detectionThread && detectionThread->thread.IsSet()) return false;
  return std::any_of(devices.begin(), devices.end(), [](const HidDeviceEntry& row) {
    return row.reader && (row.reader->readThread.IsSet() || row.reader->heartbeatThread.IsSet());
  });
}
