#include "VoxDevice/SoftModeSwitch.h"

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/VoxCommon.h"
#include "platform/os.h"
#include "support/WorkerThread.h"

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

CSoftModeSwitch::CSoftModeSwitch() : SwitchThread(std::make_unique<CWorkerThread>()) {}

CSoftModeSwitch::~CSoftModeSwitch() { Release(); }

void CSoftModeSwitch::StartCheck(void* pauseKeyCheck, void* pauseContext, CFormerMouse* mouse, CAudioHidCenter* hub,
                                 CFormerLaserPen* pen) {
  if (SwitchThread->IsSet()) return;
  SwitchThread->Join();
  PauseKeyCheck = reinterpret_cast<PauseCallback>(pauseKeyCheck);
  PauseContext = pauseContext;
  Mouse = mouse;
  Hub = hub;
  LaserPen = pen;
  if (!mouse || !hub || !pen) return;
  StopSwitch = false;
  SwitchThread->Start(&CSoftModeSwitch::ThreadProcChangeHardwareMode, this);
}

void CSoftModeSwitch::Release() { SwitchThread->Terminate(); }

void CSoftModeSwitch::ChangeHardwareMode(VoxHardWare kind) {
  CPreferences::Instance()->SetHardWare(kind);
  VoxMessage::MainWndWork(HardWareChanged);
  VoxMessage::Log(kind == HardWare_Mouse ? kMouseText : kLaserPenText, LogType_DoubleClick);
  VoxMessage::Tray(kMouseText, VoxTray_Message);  // deliberately this text, whatever the kind
}

unsigned CSoftModeSwitch::ThreadProcChangeHardwareMode(void* argument) {
  auto* self = static_cast<CSoftModeSwitch*>(argument);
  if (!self->SwitchThread->Begin()) return 0;
  self->OnThreadChangeHardwareMode();
  self->SwitchThread->Clear();
  return 0;
}

void CSoftModeSwitch::OnThreadChangeHardwareMode() {
  int sinceHardware = 0;
  int sinceKeys = 0;
  while (!StopSwitch) {
    sinceHardware += kCycle;
    if (sinceHardware == kHardwarePeriod) {
      sinceHardware = 0;
      OnThreadCheck_ID();
    }
    sinceKeys = BothPresent ? sinceKeys + kCycle : 0;
    if (sinceKeys == kKeyPeriod) {
      sinceKeys = 0;
      OnThreadCheck_Key();
    }
    if (!SwitchThread->Park([] { os::Sleep(kCycle); })) return;
  }
}

void CSoftModeSwitch::OnThreadCheck_ID() {
  if (!CDeviceData::Instance()->IsHardwareChecked()) {
    BothPresent = false;
    return;
  }
  const int current = CPreferences::Instance()->GetHardWare();
  const int kind = Mouse->ReCheckHardwareKind();
  if (kind == kBoth || (kind == kLaserPen && Hub->IsConnect())) {
    BothPresent = true;
    if (current == kLaserPen && kind == kBoth) Mouse->StartCheck();
    return;
  }
  BothPresent = false;
  if (kind == current) return;
  if (current == kLaserPen) {
    ChangeHardwareMode(HardWare_Mouse);
    Mouse->StartCheck();
  } else {
    ChangeHardwareMode(HardWare_LaserPen);
    Mouse->StopCheck();
  }
}

// A switch by a key deliberately neither starts nor stops the checking of the older mouse's keys.
void CSoftModeSwitch::OnThreadCheck_Key() {
  if (!PauseKeyCheck || PauseKeyCheck(PauseContext)) return;
  if (CPreferences::Instance()->GetHardWare() == kMouse) {
    if (LaserPen->GetKey_P_control() == ButtonDown) ChangeHardwareMode(HardWare_LaserPen);
  } else if (Mouse->GetKey_M_L() == ButtonDown || Hub->GetButtonState_Left() == ButtonDown) {
    ChangeHardwareMode(HardWare_Mouse);
  }
}
