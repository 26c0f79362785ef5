#include "VoxDevice/SoftModeSwitch.h"

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/VoxCommon.h"
#include "legacy/States.h"
#include "platform/os.h"
#include "support/Memory.h"

namespace {

constexpr int kCycle = 50;             // ms
constexpr int kHardwarePeriod = 8000;  // ms
constexpr int kKeyPeriod = 100;        // ms
constexpr const wchar_t* kMouseText = L"程序切换到“鼠标”模式";
constexpr const wchar_t* kLaserPenText = L"程序切换到“激光笔”模式";
constexpr int kMouse = HardWare_Mouse;
constexpr int kLaserPen = HardWare_LaserPen;
constexpr int kBoth = 3;

}  // namespace

struct CSoftModeSwitch::State : std::enable_shared_from_this<State> {
  // What one thread works with: the objects are the client's.
  struct Run {
    PauseCallback PauseKeyCheck;
    void* PauseContext;
    CFormerMouse* Mouse;
    CAudioHidCenter* Hub;
    CFormerLaserPen* LaserPen;
  };

  void StartCheck(const Run& run);
  void Release(bool forGood);
  void EndForGood() { Release(true); }
  void OnThreadChangeHardwareMode(const Run& run, const CWorker& thread);
  void OnThreadCheck_ID(const Run& run, const CWorker& thread);
  static void OnThreadCheck_Key(const Run& run, const CWorker& thread);

  CLock lock;
  CTasks switches{lock};
  Shared<bool> BothPresent{false};
};

struct CSoftModeSwitch::Owner : LastCopy<Owner, State> {
  using LastCopy::LastCopy;
};

CSoftModeSwitch::CSoftModeSwitch() : owner_(MakeWhole<Owner>()) {}
CSoftModeSwitch::~CSoftModeSwitch() = default;
CSoftModeSwitch::CSoftModeSwitch(const CSoftModeSwitch& other) : owner_(other.owner_->Copy()) {}
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it keeps what it has.
CSoftModeSwitch& CSoftModeSwitch::operator=(const CSoftModeSwitch& other) {
  const CNotCutOff whole;
  owner_ = other.owner_->Copy();
  return *this;
}

void CSoftModeSwitch::StartCheck(void* pauseKeyCheck, void* pauseContext, CFormerMouse* mouse, CAudioHidCenter* hub,
                                 CFormerLaserPen* pen) {
  if (!mouse || !hub || !pen) return;
  owner_->Share()->StartCheck({reinterpret_cast<PauseCallback>(pauseKeyCheck), pauseContext, mouse, hub, pen});
}

void CSoftModeSwitch::StopCheck() { owner_->Share()->switches.Ask(); }

void CSoftModeSwitch::Release() { owner_->Share()->Release(false); }

void CSoftModeSwitch::State::StartCheck(const Run& run) {
  const CAutoLock held(lock);
  if (switches.IsRunning()) return;
  switches.Start([self = shared_from_this(), run](CWorker& thread) { self->OnThreadChangeHardwareMode(run, thread); });
}

void CSoftModeSwitch::State::Release(bool forGood) {
  if (forGood) switches.Close();
  switches.Release();
  CTasks::Present({&switches}).End();
}

namespace {

// False when the thread is released meanwhile.
bool ChangeHardwareMode(VoxHardWare kind, const CWorker& thread) {
  CPreferences::Instance()->SetHardWare(kind);
  VoxMessage::MainWndWork(HardWareChanged);
  VoxMessage::Log(kind == HardWare_Mouse ? kMouseText : kLaserPenText, LogType_DoubleClick);
  VoxMessage::Tray(kMouseText, VoxTray_Message);  // deliberately this text, whatever the kind
  return !thread.IsReleased();
}

bool MayKeysSwitch(CSoftModeSwitch::PauseCallback pause, void* context) {
  const CClientCode inside;
  return inside && !pause(context);
}

}  // namespace

void CSoftModeSwitch::State::OnThreadChangeHardwareMode(const Run& run, const CWorker& thread) {
  int sinceHardware = 0;
  int sinceKeys = 0;
  do {
    sinceHardware += kCycle;
    if (sinceHardware == kHardwarePeriod) {
      sinceHardware = 0;
      HadMemory([&] { OnThreadCheck_ID(run, thread); });  // or else at the next look
    }
    sinceKeys = BothPresent ? sinceKeys + kCycle : 0;
    if (sinceKeys == kKeyPeriod) {
      sinceKeys = 0;
      if (!thread.IsReleased()) OnThreadCheck_Key(run, thread);
    }
  } while (thread.Sleep(kCycle));
}

void CSoftModeSwitch::State::OnThreadCheck_ID(const Run& run, const CWorker& thread) {
  if (!CDeviceData::Instance()->IsHardwareChecked()) {
    BothPresent = false;
    return;
  }
  const int current = CPreferences::Instance()->GetHardWare();
  const int kind = PresentHardwareKind();
  if (thread.IsReleased()) return;
  if (kind == kBoth || (kind == kLaserPen && run.Hub->IsConnect())) {
    BothPresent = true;
    if (current == kLaserPen && kind == kBoth) run.Mouse->StartCheck();
    return;
  }
  BothPresent = false;
  if (kind == current) return;
  if (current == kLaserPen) {
    if (ChangeHardwareMode(HardWare_Mouse, thread)) run.Mouse->StartCheck();
  } else {
    if (ChangeHardwareMode(HardWare_LaserPen, thread)) run.Mouse->StopCheck();
  }
}

// A switch by a key deliberately neither starts nor stops the checking of the older mouse's keys.
void CSoftModeSwitch::State::OnThreadCheck_Key(const Run& run, const CWorker& thread) {
  if (!run.PauseKeyCheck || !MayKeysSwitch(run.PauseKeyCheck, run.PauseContext) || thread.IsReleased()) return;
  if (CPreferences::Instance()->GetHardWare() == kMouse) {
    if (run.LaserPen->GetKey_P_control() == ButtonDown) ChangeHardwareMode(HardWare_LaserPen, thread);
  } else if (run.Mouse->GetKey_M_L() == ButtonDown || run.Hub->GetButtonState_Left() == ButtonDown) {
    ChangeHardwareMode(HardWare_Mouse, thread);
  }
}
