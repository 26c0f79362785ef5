// What older hardware is plugged in, and the keys of both of its sources.
#include <cstdio>
#include <cstdlib>
#include <span>

#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "legacy/States.h"
#include "platform/os.h"
#include "support/DeviceLists.h"
#include "support/Memory.h"
#include "support/Text.h"

namespace {

constexpr GUID kUsbDevices{0xa5dcbf10, 0x6530, 0x11d2, {0x90, 0x1f, 0x00, 0xc0, 0x4f, 0xb9, 0x51, 0xed}};
constexpr GUID kMediaDevices{0x4d36e96c, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr std::size_t kDetailBytes = 1024;       // of an interface's detail
constexpr std::size_t kHardwareIdBytes = 16384;  // of the ids of one device
constexpr DWORD kFirstQlCheck = 3960;            // ms
constexpr DWORD kQlPeriod = 4000;                // ms
constexpr const wchar_t* kLaserPenMark = L"vx0pipit";
constexpr const wchar_t* kQlMark = L"vx9ql";
constexpr int kFirstRevision = 0;
constexpr int kSecondRevision = 1;
constexpr int kNoRevision = 2;

// Deliberately case-sensitive: Windows spells these paths in lower case.
constexpr const wchar_t* kPrefixes[] = {L"vid_0d8c&pid_0132#", L"vid_0d8c&pid_0134#"};

bool Answers(const std::wstring& path) {
  const HANDLE file =
      os::CreateFileW(path.c_str(), FILE_READ_DATA, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (file == INVALID_HANDLE_VALUE) return false;
  os::CloseHandle(file);
  return true;
}

// What follows the prefix in the path of every older USB device that answers.
std::vector<std::wstring> OlderDeviceTails() {
  std::vector<std::wstring> tails;
  std::vector<std::wstring> paths;
  PresentInterfaces(kUsbDevices, paths, true, kDetailBytes);
  for (const std::wstring& path : paths) {
    if (!Answers(path)) continue;
    for (const wchar_t* prefix : kPrefixes) {
      const std::size_t at = path.find(prefix);
      if (at == std::wstring::npos) continue;
      tails.push_back(path.substr(at + std::char_traits<wchar_t>::length(prefix)));
      break;
    }
  }
  return tails;
}

// The serial text, which ends at "#"; false when it does not.
bool CutSerial(const std::wstring& tail, std::wstring& serial) {
  const std::size_t end = tail.find(L'#');
  if (end == std::wstring::npos) return false;
  serial = tail.substr(0, end);
  return true;
}

// Both spellings on purpose: the match is case-sensitive.
constexpr const char* kHardwareIds_Rev1[] = {"VID_0D8C&PID_0132&REV_0100&MI_00", "VID_0D8C&PID_0134&REV_0100&MI_00",
                                             "Vid_0d8c&Pid_0132&Rev_0100&MI_00", "Vid_0d8c&Pid_0134&Rev_0100&MI_00"};
constexpr const char* kHardwareIds_Rev2[] = {"VID_0D8C&PID_0132&REV_0200&MI_00", "Vid_0d8c&Pid_0132&Rev_0200&MI_00",
                                             "VID_0D8C&PID_0135&REV_0200&MI_00", "Vid_0d8c&Pid_0135&Rev_0200&MI_00"};

bool MatchesAny(const std::string& text, std::span<const char* const> ids) {
  for (const char* id : ids) {
    if (text.find(id) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

struct CFormerMouse::State : std::enable_shared_from_this<State> {
  State() { usb->StartThread(); }

  void Init();
  void StartCheck();
  void StopCheck();
  void CloseThread();
  bool ThreadIsClosed() const;
  void Release(bool forGood);
  void EndForGood() { Release(true); }
  void CheckOnlyQlMouse();

  // Makes the operations on all three kinds of threads one; never held while the client is called or a thread is
  // waited for.
  CLock lock;
  bool closed = false;
  const std::shared_ptr<CFormerMouse_Usb::State> usb = std::make_shared<CFormerMouse_Usb::State>();
  const std::shared_ptr<CFormerMouse_Hid::State> hid = std::make_shared<CFormerMouse_Hid::State>();
  CTasks qlChecks{lock};
  Shared<VoxButtonState> LastState_Left{ButtonUp};
  Shared<bool> OnlyQlMouse{false};
  Shared<bool> Announced{false};  // that checking has started
};

struct CFormerMouse::Owner : LastCopy<Owner, State> {
  using LastCopy::LastCopy;
};

CFormerMouse::CFormerMouse() : owner_(MakeWhole<Owner>()) { owner_->Share()->CheckOnlyQlMouse(); }
CFormerMouse::~CFormerMouse() = default;
CFormerMouse::CFormerMouse(const CFormerMouse& other) : owner_(other.owner_->Copy()) {}
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it keeps what it has.
CFormerMouse& CFormerMouse::operator=(const CFormerMouse& other) {
  const CNotCutOff whole;
  owner_ = other.owner_->Copy();
  return *this;
}

void CFormerMouse::State::Init() {
  const CAutoLock held(lock);
  if (qlChecks.IsRunning()) return;
  qlChecks.Start([self = shared_from_this()](CWorker& thread) {
    for (DWORD wait = kFirstQlCheck; thread.Sleep(wait); wait = kQlPeriod) self->CheckOnlyQlMouse();
  });
}

void CFormerMouse::State::StartCheck() {
  if (!Announced.exchange(true)) VoxMessage::DebugLog(L"连接了VoxMouse硬件，开始键值检测", LogType_KeyChecking);
  const CAutoLock held(lock);
  if (closed) return;
  Announced = true;
  usb->Checking = true;
  hid->StartCheck();
}

void CFormerMouse::State::StopCheck() {
  VoxMessage::DebugLog(L"未连接VoxMouse硬件，停止键值检测", LogType_KeyChecking);
  const CAutoLock held(lock);
  Announced = false;
  usb->StopCheck();
  LastState_Left = ButtonUp;
  hid->StopCheck();
}

void CFormerMouse::State::CloseThread() {
  const CAutoLock held(lock);
  usb->pollers.Ask();
  hid->StopCheck();
  qlChecks.Ask();
}

bool CFormerMouse::State::ThreadIsClosed() const {
  return !usb->pollers.IsSet() && !hid->reChecks.IsSet() && !qlChecks.IsSet();
}

void CFormerMouse::State::Release(bool forGood) {
  {
    const CAutoLock held(lock);
    closed = closed || forGood;
    if (forGood) qlChecks.Close();
    usb->pollers.Release();
    hid->Release();
    qlChecks.Release();
  }
  CTasks::Present({&usb->pollers, &hid->reChecks, &hid->readers, &qlChecks}).End();
}

void CFormerMouse::Init() { owner_->Share()->Init(); }

void CFormerMouse::StartCheck() { owner_->Share()->StartCheck(); }

void CFormerMouse::StopCheck() { owner_->Share()->StopCheck(); }

void CFormerMouse::CloseThread() { owner_->Share()->CloseThread(); }

bool CFormerMouse::ThreadIsClosed() const { return owner_->Share()->ThreadIsClosed(); }

void CFormerMouse::Release() { owner_->Share()->Release(false); }

int CFormerMouse::ReCheckHardwareKind() {
  const CNotCutOff whole;
  int kind = HardWare_Mouse;
  HadMemory([&] { kind = PresentHardwareKind(); });
  return kind;
}

int PresentHardwareKind() {
  const std::vector<std::wstring> tails = OlderDeviceTails();
  std::wstring identity = L"no_ID";
  bool named = false;
  bool pen = false;
  bool other = false;
  for (const std::wstring& tail : tails) {
    std::wstring serial;
    if (!CutSerial(tail, serial)) {
      other = true;
      continue;
    }
    (Contains(serial, kLaserPenMark) ? pen : other) = true;
    // The first device gives the identity, whatever its kind.
    if (!named) identity = serial;
    named = identity != L"no_ID";
  }
  CVoxDeviceInfo::Instance()->SetFormerDeviceID(identity.c_str());
  const int kind = (other ? HardWare_Mouse : 0) + (pen ? HardWare_LaserPen : 0);
  return kind == 0 ? HardWare_Mouse : kind;
}

VoxHardWare CFormerMouse::InitVoxHardwareKind() {
  const CNotCutOff whole;
  bool pen = false;
  bool other = false;
  HadMemory([&] {
    // Deliberately the mark is looked for in the whole tail.
    for (const std::wstring& tail : OlderDeviceTails()) (Contains(tail, kLaserPenMark) ? pen : other) = true;
  });
  return pen && !other ? HardWare_LaserPen : HardWare_Mouse;
}

// A look for which there is no memory is left out.
void CFormerMouse::State::CheckOnlyQlMouse() {
  HadMemory([&] {
    bool ql = false;
    bool other = false;
    for (const std::wstring& tail : OlderDeviceTails()) {
      std::wstring serial;
      if (CutSerial(tail, serial)) (Contains(serial, kQlMark) ? ql : other) = true;
    }
    OnlyQlMouse = ql && !other;
  });
}

int CFormerMouse::IsConnect() {
  const auto state = owner_->Share();
  if (state->OnlyQlMouse) return -1;
  CFormerMouse_Usb::State& usb = *state->usb;
  usb.ImitateRevision = usb.MouseRevision;
  DeviceSet devices(kMediaDevices);
  std::string ids;
  for (DWORD index = 0; devices.Select(index); ++index) {
    bool told = false;
    HadMemory([&] { told = devices.HardwareIds(ids); });
    if (!told) continue;
    if (ids.size() >= kHardwareIdBytes) {
      std::fprintf(
          stderr,
          "VoxDevice: the hardware ids of media device %u have %zu bytes, more than the %zu there is room for\n",
          static_cast<unsigned>(index), ids.size(), kHardwareIdBytes - 1);
      std::abort();
    }
    const bool first = MatchesAny(ids, kHardwareIds_Rev1);
    const bool second = MatchesAny(ids, kHardwareIds_Rev2);
    if (!first && !second) continue;
    // Ids of both revisions: the revision known so far is asked for first.
    const bool firstWins = first && (!second || usb.MouseRevision == kFirstRevision);
    usb.MouseRevision = firstWins ? kFirstRevision : kSecondRevision;
    return static_cast<int>(index);
  }
  usb.MouseRevision = kNoRevision;
  return -1;
}

int CFormerMouse::GetMouseRevision() const { return owner_->Share()->usb->MouseRevision; }

VoxButtonState CFormerMouse::GetKey_M_L() const {
  const auto state = owner_->Share();
  return state->hid->KeyState_Left == ButtonUp && state->usb->KeyState_Left == ButtonUp ? ButtonUp : ButtonDown;
}

VoxButtonState CFormerMouse::GetKey_M_R() const {
  const auto state = owner_->Share();
  return state->hid->KeyState_Right == ButtonUp && state->usb->KeyState_Right == ButtonUp ? ButtonUp : ButtonDown;
}

VoxClickMode CFormerMouse::GetClickMode_L() const {
  const auto state = owner_->Share();
  const VoxClickMode hid = state->hid->DoubleClick.GetClickMode();
  const VoxClickMode usb = state->usb->DoubleClick.GetClickMode();
  if (hid == ClickDouble || usb == ClickDouble) return ClickDouble;
  return hid == ClickDoubleNoNet || usb == ClickDoubleNoNet ? ClickDoubleNoNet : ClickNone;
}

bool CFormerMouse::LeftKeyDown_Up() {
  const VoxButtonState current = GetKey_M_L();
  const VoxButtonState previous = owner_->Share()->LastState_Left.exchange(current);
  return previous == ButtonDown && current == ButtonUp;
}

void CFormerMouse::ImitateKeyM_L() const { owner_->Share()->usb->ImitateKeyM_L(); }

void CFormerMouse::ImitateKeyM_R() const { owner_->Share()->usb->ImitateKeyM_R(); }
