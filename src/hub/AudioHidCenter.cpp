// The exported class: each operation is the hub's.
#include "VoxDevice/AudioHidCenter.h"

#include "hub/Hub.h"

namespace {

template <class Function, ProbeName name>
void Register(CallbackSlot<Function, name>& slot, void* function, void* context) {
  slot.Set(reinterpret_cast<Function>(function), context);
}

// The original may go meanwhile: the reference to what stands behind it is taken first.
std::shared_ptr<CHub> CopyOf(const std::shared_ptr<CHub>& original) {
  const Operation from(original);
  auto copy = MakeWhole<CHub>();
  copy->CopyFrom(*from);
  return copy;
}

}  // namespace

// All functions and values of the class itself are exported.
struct CAudioHidCenter::ClassWide {
  static inline Atomic<CAudioHidCenter*> s_pHidDeviceCenter{nullptr};
};

CAudioHidCenter* CAudioHidCenter::Instance() noexcept { return ClassWide::s_pHidDeviceCenter; }

CAudioHidCenter::CAudioHidCenter() : m_pHub(MakeWhole<CHub>()) { ClassWide::s_pHidDeviceCenter = this; }

CAudioHidCenter::~CAudioHidCenter() {
  CAudioHidCenter* self = this;
  ClassWide::s_pHidDeviceCenter.compare_exchange_strong(self, nullptr);
  Operation(m_pHub)->Close();
}

CAudioHidCenter::CAudioHidCenter(const CAudioHidCenter& other) : m_pHub(CopyOf(other.m_pHub)) {}

// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): what stands behind the two is compared.
CAudioHidCenter& CAudioHidCenter::operator=(const CAudioHidCenter& other) {
  const CNotCutOff whole;  // first, as either object may go meanwhile: references to what stands behind them
  const auto theirs = other.m_pHub;
  const auto mine = m_pHub;
  const Operation from(theirs);
  const Operation to(mine);
  if (theirs != mine) to->CopyFrom(*from);
  return *this;
}

// ---- Lifecycle ----
void CAudioHidCenter::OpenDevice(void* audioCallback, void* audioContext) {
  Operation(m_pHub)->OpenDevice(audioCallback, audioContext);
}
void CAudioHidCenter::CloseDevice() { Operation(m_pHub)->CloseDevice(); }
void CAudioHidCenter::Release() { Operation(m_pHub)->Release(); }
void CAudioHidCenter::SetHardening(unsigned what) { Operation(m_pHub)->hardening = what; }
bool CAudioHidCenter::ThreadIsClosed() { return Operation(m_pHub)->ThreadIsClosed(); }

// ---- Queries ----
bool CAudioHidCenter::IsConnect() const { return Operation(m_pHub)->anyDeviceConnected; }
int CAudioHidCenter::GetEffectiveDevice() { return Operation(m_pHub)->GetEffectiveDevice(); }
MouseType CAudioHidCenter::GetHidMouseType(int device) { return Operation(m_pHub)->GetHidMouseType(device); }
DataChannel CAudioHidCenter::GetDeviceConnectMode(int device) {
  return Operation(m_pHub)->GetDeviceConnectMode(device);
}
MouseMKeyType CAudioHidCenter::GetMKeyType_Key1(int device, int which) {
  return Operation(m_pHub)->GetMKeyType_Key1(device, which);
}
// A reader holds one function: key 2 answers as key 1.
MouseMKeyType CAudioHidCenter::GetMKeyType_Key2(int device, int which) { return GetMKeyType_Key1(device, which); }
void CAudioHidCenter::GetValidHidList(std::vector<int>& numbers, std::vector<std::wstring>& names) {
  Operation(m_pHub)->GetValidHidList(numbers, names);
}
bool CAudioHidCenter::GetSpeechCounts(int device, VoxSpeechCounts& counts) {
  return Operation(m_pHub)->GetSpeechCounts(device, counts);
}
bool CAudioHidCenter::RecordDeviceIsHidDevice(std::wstring recordingDeviceName) {
  return Operation(m_pHub)->RecordDeviceIsHidDevice(recordingDeviceName);
}
bool CAudioHidCenter::WorkHidIsWren() { return Operation(m_pHub)->WorkHidIsWren(); }
void CAudioHidCenter::ChooseWorkHidDevice(int device) { Operation(m_pHub)->workDevice = device; }

// ---- Commands ----
void CAudioHidCenter::GetMouseState(int device) { Operation(m_pHub)->GetMouseState(device); }
void CAudioHidCenter::GetDongleState(int device) { Operation(m_pHub)->GetDongleState(device); }
void CAudioHidCenter::SetDpi(int device, short dpi) { Operation(m_pHub)->SetDpi(device, dpi); }
void CAudioHidCenter::SetDownloadURL(int device, unsigned char* url, int length) {
  Operation(m_pHub)->SetDownloadURL(device, url, length);
}
void CAudioHidCenter::getMKeyTypeList_Key1(int device) { Operation(m_pHub)->getMKeyTypeList_Key1(device); }
void CAudioHidCenter::getMKeyTypeList_Key2(int device) { Operation(m_pHub)->getMKeyTypeList_Key2(device); }
SetMKeyTypeStatus CAudioHidCenter::setMKeyType_Key1(int device, MouseMKeyType type) {
  return Operation(m_pHub)->setMKeyType_Key1(device, type);
}
SetMKeyTypeStatus CAudioHidCenter::setMKeyType_Key2(int device, MouseMKeyType type) {
  return Operation(m_pHub)->setMKeyType_Key2(device, type);
}
bool CAudioHidCenter::OpenHidRecord() { return Operation(m_pHub)->OpenHidRecord(); }
bool CAudioHidCenter::CloseHidRecord() { return Operation(m_pHub)->CloseHidRecord(); }
void CAudioHidCenter::StartOTA(int device, FwUpdateType type, std::string firstPath, std::string secondPath) {
  Operation(m_pHub)->StartOTA(device, type, firstPath, secondPath);
}

// ---- Keys ----
VoxButtonState CAudioHidCenter::GetButtonState_Left() { return Operation(m_pHub)->GetButtonState_Left(); }
VoxButtonState CAudioHidCenter::GetButtonState_Right() { return Operation(m_pHub)->GetButtonState_Right(); }
VoxButtonState CAudioHidCenter::GetButtonState_Key1() { return Operation(m_pHub)->GetButtonState_Key1(); }
VoxButtonState CAudioHidCenter::GetButtonState_Key2() { return Operation(m_pHub)->GetButtonState_Key2(); }
bool CAudioHidCenter::LeftKeyDown_Up() { return Operation(m_pHub)->LeftKeyDown_Up(); }
bool CAudioHidCenter::Tern_IsShortPress_R() { return Operation(m_pHub)->Tern_IsShortPress_R(); }
VoxClickMode CAudioHidCenter::GetClickMode_L() const { return Operation(m_pHub)->DoubleClick.GetClickMode(); }

// ---- Callbacks ----
void CAudioHidCenter::SetCallback_MouseConnect(void* function, void* context) {
  Register(Operation(m_pHub)->mouseConnectCallback, function, context);
}
void CAudioHidCenter::SetCallback_VoiceOperate(void* function, void* context) {
  Register(Operation(m_pHub)->voiceOperateCallback, function, context);
}
void CAudioHidCenter::SetCallback_DpiSet(void* function, void* context) {
  Register(Operation(m_pHub)->dpiSetCallback, function, context);
}
void CAudioHidCenter::SetCallback_MouseState(void* function, void* context) {
  Register(Operation(m_pHub)->mouseStateCallback, function, context);
}
void CAudioHidCenter::SetCallback_DongleState(void* function, void* context) {
  Register(Operation(m_pHub)->dongleStateCallback, function, context);
}
void CAudioHidCenter::SetCallback_PowerReport(void* function, void* context) {
  Register(Operation(m_pHub)->powerReportCallback, function, context);
}
void CAudioHidCenter::SetCallback_DownloadUrl(void* function, void* context) {
  Register(Operation(m_pHub)->downloadUrlCallback, function, context);
}
void CAudioHidCenter::SetCallback_SpeechLost(void* function, void* context) {
  Register(Operation(m_pHub)->speechLostCallback, function, context);
}
void CAudioHidCenter::SetCallback_FwOtaResult(void* function, void* context) {
  Register(Operation(m_pHub)->fwOtaResultCallback, function, context);
}

void CAudioHidCenter::HidDeviceReaderCallback(int device, MouseType model, DataChannel link, unsigned char* report,
                                              int reportLength, void* hub) {
  CHidData reply;
  if (reportLength <= 0 || !ParseReport({report, static_cast<std::size_t>(reportLength)}, link, reply)) return;
  Operation(static_cast<CAudioHidCenter*>(hub)->m_pHub)->OnHidDeviceReaderCallback(device, model, link, reply);
}
void CAudioHidCenter::HidDeviceDisconnect(int device, void* hub) {
  Operation(static_cast<CAudioHidCenter*>(hub)->m_pHub)->OnHidDeviceDisconnect(device);
}
void CAudioHidCenter::FwOtaResultCallback(int device, DataChannel link, FwUpdateState state, void* hub) {
  Operation(static_cast<CAudioHidCenter*>(hub)->m_pHub)->OnFwOtaResultCallback(device, link, state);
}
