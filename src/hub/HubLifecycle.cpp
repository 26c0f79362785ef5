// Construction, start and stop, and the table.
#include <algorithm>
#include <utility>

#include "VoxDevice/VoxNet.h"
#include "hub/Detection.h"
#include "hub/Hub.h"
#include "support/Memory.h"
#include "support/Probe.h"

namespace {

constexpr DWORD kDetectionTick = 50;    // ms
constexpr int kDetectionPeriod = 1000;  // ms
// Of the two seconds in which everything ends: what is left for AppExit and the readers when a discovery pass does not
// come to its end.
constexpr DWORD kForExit = 700;  // ms

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
    leaving_.reserve(leaving_.size() + devices.size() + rows.size());
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
  hardening = other.hardening;
  static_cast<CHubCallbacks&>(*this) = other;
}

void CHub::OpenDevice(void* callback, void* context) {
  audioCallback.Set(reinterpret_cast<CAudioHidCenter::AudioCallback>(callback), context);
  std::shared_ptr<Detection> detection;
  CWorker::Body body;
  const bool had = HadMemory([&] {
    detection = std::make_shared<Detection>();
    body = [self = shared_from_this(), detection] {
      self->OnThreadDeviceDetectionProc(*detection);
      return 0U;
    };
  });
  const CAutoLock lock(tableLock);
  if (closed_) return;
  stopDetection = false;
  if (!had) return;
  // Deliberately no guard against a second call: it starts a second discovery thread. The two take turns.
  ForgetEndedDetections();
  detection->before = std::exchange(detections, detection);
  detectionThread = detection;
  detection->thread.Start(std::move(body));
}

void CHub::OnThreadDeviceDetectionProc(Detection& detection) {
  int counter = 0;
  while (!stopDetection) {
    counter += static_cast<int>(kDetectionTick);
    if (counter == kDetectionPeriod) {
      counter = 0;
      Detection* nobody = nullptr;
      if (passRunning.compare_exchange_strong(nobody, &detection)) {
        // One for which there is no memory comes to its end at the next.
        HadMemory([&] { OpenHidDevice(detection); });
        detection.readFile.reset();
        detection.writeFile.reset();
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
bool CHub::Ends(const HidDeviceEntry& row) const {
  return row.reader && (!closed_ || row.reader->callbackContext == this);
}

// Needs no memory. A device that leaves the table meanwhile, all of them with a Release too, is met among those that
// leave.
template <class Call>
void CHub::ForEachToEnd(Call call) {
  for (std::size_t i = 0;; ++i) {
    std::shared_ptr<CDeviceReader> reader;
    {
      const CAutoLock lock(tableLock);
      if (i >= devices.size()) break;
      if (Ends(devices[i])) reader = devices[i].reader;
    }
    if (reader) call(*reader);
  }
  ForEachLeaving(call);
}

template <class Call>
void CHub::ForEachLeaving(Call call) {
  for (std::size_t i = 0;; ++i) {
    std::shared_ptr<CDeviceReader> reader;
    {
      const CAutoLock lock(tableLock);
      if (i >= leaving_.size()) return;
      reader = leaving_[i].lock();
    }
    if (reader) call(*reader);
  }
}

// From its beginning on, no device comes in any more: a pass that runs sees under tableLock that its thread is asked.
void CHub::Stop(CDeadline deadline) {
  stopDetection = true;
  AskDetections();
  // All are asked before one is waited for: they end at the same time. None is let go of by the last of its threads
  // before that has ended.
  std::vector<std::shared_ptr<CDeviceReader>> asked;
  ForEachToEnd([&](CDeviceReader& reader) {
    HadMemory([&] { asked.push_back(reader.shared_from_this()); });
    reader.Ask();
  });
  EndDetections(deadline);
  ForEachToEnd([&](CDeviceReader& reader) { reader.End(deadline); });
}

std::shared_ptr<CHub::Detection> CHub::AskDetections() {
  const CAutoLock lock(tableLock);
  for (Detection* each = detections.get(); each; each = each->before.get()) each->thread.Release();
  return detections;
}

// Whoever else stops at the same time waits for the same threads.
void CHub::EndDetections(CDeadline deadline) {
  {
    const CAutoLock lock(tableLock);
    detectionThread.reset();
  }
  for (auto each = AskDetections(); each; each = each->before) {
    each->thread.End(deadline);
    // One that has not ended, or was ended in the middle of a pass, passes no more.
    Detection* its = each.get();
    passRunning.compare_exchange_strong(its, nullptr);
  }
  const CAutoLock lock(tableLock);
  ForgetEndedDetections();
}

void CHub::ForgetEndedDetections() {
  while (detections && detections->thread.HasEnded()) detections = detections->before;
}

void CHub::CloseDevice() { Stop(CWorker::Patience()); }

void CHub::Release() { ReleaseBy(CWorker::Patience()); }

void CHub::ReleaseBy(CDeadline deadline) {
  stopDetection = true;
  for (auto each = AskDetections(); each; each = each->before) {
    if (!each->thread.IsCurrent()) each->thread.AwaitEnd(deadline.Before(kForExit));
  }
  if (!closed_) SendAppExit(deadline);
  Stop(deadline);
  std::vector<HidDeviceEntry> rows;  // let go of without the lock
  {
    const CAutoLock lock(tableLock);
    rows.swap(devices);
    // Whoever else stops, now or later, waits for those whose threads are not gone.
    for (const HidDeviceEntry& row : rows) {
      if (Ends(row)) Leave(row.reader);
    }
  }
  // Again, for devices that have come since, by an OpenDevice on another thread.
  ForEachLeaving([&](CDeviceReader& reader) { reader.End(deadline); });
  ForEachLeaving([](CDeviceReader& reader) { reader.ShutDown(); });
  if (anyDeviceConnected) ForgetDevices();
  UnloadAscDecoder();
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
