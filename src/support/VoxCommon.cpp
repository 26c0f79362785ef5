#include "VoxDevice/VoxCommon.h"

#include "support/Observer.h"
#include "support/Operation.h"

namespace {

Atomic<VoxMessageSink*> registeredSink{nullptr};
Atomic<bool> netReachable{true};
Atomic<WindowsVersion> osVersion{WindowsVersion_Current};

// name, device, text, values: for an observer.
template <class Call>
void Tell(const char* name, int device, const wchar_t* text, std::initializer_list<int> values, Call call) noexcept {
  VoxMessageSink* sink = registeredSink;
  if (!sink) return;
  CObserver::Told(name, device, text, values);
  if (const CClientCode inside; inside) call(*sink);
}

}  // namespace

void VoxMessage::SetSink(VoxMessageSink* sink) noexcept { registeredSink = sink; }

void VoxMessage::Log(const wchar_t* text, LogType type) noexcept {
  Tell("log", -1, text, {type}, [=](VoxMessageSink& sink) { sink.Log(text, type); });
}

void VoxMessage::DebugLog(const wchar_t* text, LogType type) noexcept {
  Tell("debuglog", -1, text, {type}, [=](VoxMessageSink& sink) { sink.DebugLog(text, type); });
}

void VoxMessage::MainWndWork(UserWorkType work) noexcept {
  Tell("window", -1, nullptr, {work}, [=](VoxMessageSink& sink) { sink.MainWndWork(work); });
}

void VoxMessage::Tray(const wchar_t* text, VoxTrayParams parameters) noexcept {
  Tell("tray", -1, text, {parameters}, [=](VoxMessageSink& sink) { sink.Tray(text, parameters); });
}

void VoxMessage::HidConnect(int device) noexcept {
  Tell("connect", device, nullptr, {}, [=](VoxMessageSink& sink) { sink.HidConnect(device); });
}

void VoxMessage::HidDisconnect(int device) noexcept {
  Tell("disconnect", device, nullptr, {}, [=](VoxMessageSink& sink) { sink.HidDisconnect(device); });
}

void VoxMessage::MKeyTypeSet(int device, int key, const unsigned char* types, int length) noexcept {
  Tell("mkey", device, nullptr, {key}, [=](VoxMessageSink& sink) { sink.MKeyTypeSet(device, key, types, length); });
}

void VoxMessage::OtaProgress(int done, int total) noexcept {
  Tell("ota", -1, nullptr, {done, total}, [=](VoxMessageSink& sink) { sink.OtaProgress(done, total); });
}

void VoxMessage::MainMenu(MainMenuType menu) noexcept {
  Tell("menu", -1, nullptr, {menu}, [=](VoxMessageSink& sink) { sink.MainMenu(menu); });
}

void VoxMessage::PostMainMenu(MainMenuType menu) noexcept {
  Tell("postmenu", -1, nullptr, {menu}, [=](VoxMessageSink& sink) { sink.PostMainMenu(menu); });
}

CPreferences* CPreferences::Instance() noexcept {
  static CPreferences instance;
  return &instance;
}

bool CEnvironmentMonitor::CheckNet(bool) noexcept { return netReachable; }

void CEnvironmentMonitor::SetNet(bool reachable) noexcept { netReachable = reachable; }

WindowsVersion CEnvironmentMonitor::OsVersion() noexcept { return osVersion; }

void CEnvironmentMonitor::SetOsVersion(WindowsVersion version) noexcept { osVersion = version; }

CDeviceData* CDeviceData::Instance() noexcept {
  static CDeviceData instance;
  return &instance;
}

std::wstring CDeviceData::GetRecordName() const {
  const CMutexGuard lock(mutex_);
  return recordName_;
}

void CDeviceData::SetRecordName(const std::wstring& name) {
  const CMutexGuard lock(mutex_);
  recordName_ = name;
}
