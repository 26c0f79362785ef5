// The older USB mouse and the laser pen: keys that the system sees as keys of the keyboard.
#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/VoxCommon.h"
#include "platform/os.h"
#include "support/WorkerThread.h"

namespace {

constexpr DWORD kCheckingSleep = 3;  // ms; with the wait for the stop event, a cycle of 13 ms
constexpr DWORD kIdleSleep = 100;    // ms
constexpr DWORD kStopWait = 10;      // ms

// Virtual keys.
enum Key : int {
  kXButton1 = 0x05,
  kXButton2 = 0x06,
  kPageUp = 0x21,
  kPageDown = 0x22,
  kF9 = 0x78,
  kF15 = 0x7E,
  kF16 = 0x7F,
  kF17 = 0x80,
  kF18 = 0x81,
  kF19 = 0x82,
  kF20 = 0x83,
  kF22 = 0x85,
  kF23 = 0x86,
  kF24 = 0x87,
};

// The keys of one logical key: the one that mice of the second revision send, and the other.
struct KeyPair {
  Key second;
  Key other;
};

// The layouts 1, 2 and any other.
constexpr KeyPair kLeft[] = {{kF19, kXButton1}, {kF20, kF9}, {kF20, kXButton2}};
constexpr KeyPair kRight[] = {{kF20, kXButton2}, {kF19, kXButton1}, {kF19, kXButton1}};

constexpr KeyPair Pair(const KeyPair (&layouts)[3], int toggleButton) {
  return layouts[toggleButton == 1 ? 0 : toggleButton == 2 ? 1 : 2];
}

bool IsDown(int key) { return os::GetAsyncKeyState(key) < 0; }

void ReleaseKey(int key) { os::keybd_event(static_cast<std::uint8_t>(key), 0, KEYEVENTF_KEYUP, 0); }

constexpr int kSecondRevision = 1;

// Either key of the pair counts; the revision decides which one is asked first.
VoxButtonState CheckPair(KeyPair pair, int revision) {
  return revision == kSecondRevision ? CFormerLaserPen::CheckKeys(pair.second, pair.other)
                                     : CFormerLaserPen::CheckKeys(pair.other, pair.second);
}

}  // namespace

CFormerMouse_Usb::CFormerMouse_Usb()
    : PollThread(std::make_unique<CWorkerThread>()),
      StopEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      ToggleButton(CPreferences::Instance()->GetToggleButton()) {
  PollThread->Start(&CFormerMouse_Usb::ThreadCheckButtonProc, this);
}

CFormerMouse_Usb::~CFormerMouse_Usb() { Release(); }

void CFormerMouse_Usb::StopCheck() {
  if (!Checking) return;
  Checking = false;
  DoubleClick.Clear();
  KeyState_Left = ButtonUp;
  KeyState_Right = ButtonUp;
}

void CFormerMouse_Usb::CloseThread() { os::SetEvent(StopEvent); }

bool CFormerMouse_Usb::ThreadIsClosed() const { return !PollThread->IsSet(); }

void CFormerMouse_Usb::Release() { PollThread->Terminate(); }

unsigned CFormerMouse_Usb::ThreadCheckButtonProc(void* argument) {
  auto* self = static_cast<CFormerMouse_Usb*>(argument);
  if (!self->PollThread->Begin()) return 0;
  for (;;) {
    DWORD stop = WAIT_TIMEOUT;
    if (!self->PollThread->Park([&] { stop = os::WaitForSingleObject(self->StopEvent, kStopWait); })) return 0;
    if (stop == WAIT_OBJECT_0) break;
    if (!self->OnThreadCheckButtonProc()) return 0;
  }
  self->ThisTerminate();
  return 0;
}

bool CFormerMouse_Usb::OnThreadCheckButtonProc() {
  if (!Checking) return PollThread->Park([] { os::Sleep(kIdleSleep); });
  KeyState_Left = CheckM_L();
  DoubleClick.SetKeyState(KeyState_Left);  // the level, at every cycle
  KeyState_Right = CheckM_R();
  return PollThread->Park([] { os::Sleep(kCheckingSleep); });
}

void CFormerMouse_Usb::ThisTerminate() {
  DoubleClick.SetKeyState(ButtonUp);
  KeyState_Left = ButtonUp;
  KeyState_Right = ButtonUp;
  PollThread->Clear();
}

VoxButtonState CFormerMouse_Usb::CheckM_L() const { return CheckPair(Pair(kLeft, ToggleButton), MouseRevision); }

VoxButtonState CFormerMouse_Usb::CheckM_R() const { return CheckPair(Pair(kRight, ToggleButton), MouseRevision); }

void CFormerMouse_Usb::ImitateKeyM_L() const {
  const KeyPair pair = Pair(kLeft, ToggleButton);
  ReleaseKey(ImitateRevision == kSecondRevision ? pair.second : pair.other);
}

void CFormerMouse_Usb::ImitateKeyM_R() const {
  const KeyPair pair = Pair(kRight, ToggleButton);
  ReleaseKey(ImitateRevision == kSecondRevision ? pair.second : pair.other);
}

// ---- The laser pen ----

VoxButtonState CFormerLaserPen::CheckKeys(int first, int second) {
  return IsDown(first) || IsDown(second) ? ButtonDown : ButtonUp;
}

VoxButtonState CFormerLaserPen::GetKey_P_subtitle() const { return CheckKeys(kF24, kF18); }

VoxButtonState CFormerLaserPen::GetKey_P_translate() const { return CheckKeys(kF22, kF16); }

VoxButtonState CFormerLaserPen::GetKey_P_control() const { return CheckKeys(kF23, kF17); }

VoxButtonState CFormerLaserPen::GetKey_P_disturb() const { return CheckKeys(kPageUp, kPageDown); }

VoxButtonState CFormerLaserPen::GetKey_P_close() const {
  return os::GetAsyncKeyState(kF15) != 0 ? ButtonDown : ButtonUp;
}

void CFormerLaserPen::ImitateKeyP_subtitle() const {
  for (const Key key : {kF24, kF18, kF22, kF16}) ReleaseKey(key);
}

void CFormerLaserPen::ImitateKeyP_control() const {
  for (const Key key : {kF23, kF17, kF24, kF18, kF22, kF16}) ReleaseKey(key);
}
