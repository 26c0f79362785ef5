// The older USB mouse and the laser pen: keys that the system sees as keys of the keyboard.
#include "VoxDevice/VoxCommon.h"
#include "legacy/States.h"
#include "platform/os.h"

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

// The event is manual-reset, since the thread looks at it in more than one place.
CFormerMouse_Usb::State::State()
    : StopEvent(os::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      ToggleButton(CPreferences::Instance()->GetToggleButton()) {}

void CFormerMouse_Usb::State::StartThread() {
  if (StopEvent)
    pollers.Start([self = shared_from_this()](CWorker& thread) { self->OnThreadCheckButtonProc(thread); }, StopEvent);
}

void CFormerMouse_Usb::State::StopCheck() {
  if (Checking.exchange(false)) KeysUp();
}

void CFormerMouse_Usb::State::End() {
  pollers.Release();
  CTasks::Present({&pollers}).End();
}

void CFormerMouse_Usb::State::OnThreadCheckButtonProc(CWorker& thread) {
  while (thread.Sleep(kStopWait) && Poll(thread)) {
  }
  if (!thread.IsReleased()) DoubleClick.SetKeyState(ButtonUp);
  KeyState_Left = ButtonUp;
  KeyState_Right = ButtonUp;
}

bool CFormerMouse_Usb::State::Poll(const CWorker& thread) {
  if (!Checking) return thread.Sleep(kIdleSleep);
  KeyState_Left = CheckM_L();
  DoubleClick.SetKeyState(KeyState_Left);  // the level, at every cycle
  KeyState_Right = CheckM_R();
  if (!Checking) KeysUp();  // stopped meanwhile
  return thread.Sleep(kCheckingSleep);
}

void CFormerMouse_Usb::State::KeysUp() {
  DoubleClick.Clear();
  KeyState_Left = ButtonUp;
  KeyState_Right = ButtonUp;
}

VoxButtonState CFormerMouse_Usb::State::CheckM_L() const { return CheckPair(Pair(kLeft, ToggleButton), MouseRevision); }

VoxButtonState CFormerMouse_Usb::State::CheckM_R() const {
  return CheckPair(Pair(kRight, ToggleButton), MouseRevision);
}

void CFormerMouse_Usb::State::ImitateKeyM_L() const {
  const KeyPair pair = Pair(kLeft, ToggleButton);
  ReleaseKey(ImitateRevision == kSecondRevision ? pair.second : pair.other);
}

void CFormerMouse_Usb::State::ImitateKeyM_R() const {
  const KeyPair pair = Pair(kRight, ToggleButton);
  ReleaseKey(ImitateRevision == kSecondRevision ? pair.second : pair.other);
}

CFormerMouse_Usb::CFormerMouse_Usb() : owner_(MakeWhole<Owner>()) { owner_->Share()->StartThread(); }
CFormerMouse_Usb::~CFormerMouse_Usb() = default;
CFormerMouse_Usb::CFormerMouse_Usb(const CFormerMouse_Usb& other) : owner_(other.owner_->Copy()) {}
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it keeps what it has.
CFormerMouse_Usb& CFormerMouse_Usb::operator=(const CFormerMouse_Usb& other) {
  const CNotCutOff whole;
  owner_ = other.owner_->Copy();
  return *this;
}

void CFormerMouse_Usb::StartCheck() { owner_->Share()->Checking = true; }

bool CFormerMouse_Usb::IsChecking() const { return owner_->Share()->Checking; }

void CFormerMouse_Usb::StopCheck() { owner_->Share()->StopCheck(); }

void CFormerMouse_Usb::CloseThread() { owner_->Share()->pollers.Ask(); }

bool CFormerMouse_Usb::ThreadIsClosed() const { return !owner_->Share()->pollers.IsSet(); }

void CFormerMouse_Usb::Release() { owner_->Share()->End(); }

VoxButtonState CFormerMouse_Usb::GetKey_M_L() const { return owner_->Share()->KeyState_Left; }

VoxButtonState CFormerMouse_Usb::GetKey_M_R() const { return owner_->Share()->KeyState_Right; }

VoxClickMode CFormerMouse_Usb::GetClickMode_L() const { return owner_->Share()->DoubleClick.GetClickMode(); }

void CFormerMouse_Usb::ImitateKeyM_L() const { owner_->Share()->ImitateKeyM_L(); }

void CFormerMouse_Usb::ImitateKeyM_R() const { owner_->Share()->ImitateKeyM_R(); }

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
