// What older hardware is plugged in, and the keys of both of its sources.
#include "VoxDevice/FormerMouse.h"

#include <cstdio>
#include <cstdlib>

#include "VoxDevice/VoxCommon.h"
#include "VoxDevice/VoxNet.h"
#include "platform/os.h"
#include "support/DeviceLists.h"
#include "support/WorkerThread.h"

namespace {

constexpr GUID kUsbDevices{0xa5dcbf10, 0x6530, 0x11d2, {0x90, 0x1f, 0x00, 0xc0, 0x4f, 0xb9, 0x51, 0xed}};
constexpr GUID kMediaDevices{0x4d36e96c, 0xe325, 0x11ce, {0xbf, 0xc1, 0x08, 0x00, 0x2b, 0xe1, 0x03, 0x18}};
constexpr std::size_t kDetailBytes = 1024;       // of an interface's detail
constexpr std::size_t kHardwareIdBytes = 16384;  // of the ids of one device
constexpr DWORD kQlLook = 40;                    // ms
constexpr int kQlPeriod = 4000;                  // ms
constexpr const wchar_t* kLaserPenMark = L"vx0pipit";
constexpr const wchar_t* kQlMark = L"vx9ql";
constexpr int kFirstRevision = 0;
constexpr int kSecondRevision = 1;
constexpr int kNoRevision = 2;

// Deliberately case-sensitive: Windows spells these paths in lower case.
constexpr const wchar_t* kPrefixes[] = {L"vid_0d8c&pid_0132#", L"vid_0d8c&pid_0134#"};

bool Contains(const std::wstring& text, const wchar_t* part) { return text.find(part) != std::wstring::npos; }

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
  for (const std::wstring& path : PresentInterfaces(kUsbDevices, true, kDetailBytes)) {
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

bool MatchesAny(const std::string& text, const std::vector<std::string>& ids) {
  for (const std::string& id : ids) {
    if (text.find(id) != std::string::npos) return true;
  }
  return false;
}

}  // namespace

// Both spellings on purpose: the match is case-sensitive.
CFormerMouse::CFormerMouse()
    : QlCheckThread(std::make_unique<CWorkerThread>()),
      HardwareIds_Rev1{"VID_0D8C&PID_0132&REV_0100&MI_00", "VID_0D8C&PID_0134&REV_0100&MI_00",
                       "Vid_0d8c&Pid_0132&Rev_0100&MI_00", "Vid_0d8c&Pid_0134&Rev_0100&MI_00"},
      HardwareIds_Rev2{"VID_0D8C&PID_0132&REV_0200&MI_00", "Vid_0d8c&Pid_0132&Rev_0200&MI_00",
                       "VID_0D8C&PID_0135&REV_0200&MI_00", "Vid_0d8c&Pid_0135&Rev_0200&MI_00"} {
  CheckOnlyQlMouse();
}

CFormerMouse::~CFormerMouse() { QlCheckThread->Terminate(); }

void CFormerMouse::Init() {
  StopQlCheck = false;
  if (QlCheckThread->IsSet()) return;
  QlCheckThread->Join();
  QlCheckThread->Start(&CFormerMouse::ThreadProcCheckOnlyQlMouse, this);
}

void CFormerMouse::StartCheck() {
  if (!Usb.Checking) {
    VoxMessage::DebugLog(L"连接了VoxMouse硬件，开始键值检测", LogType_KeyChecking);
    Usb.Checking = true;
  }
  Hid.StartCheck();
}

void CFormerMouse::StopCheck() {
  VoxMessage::DebugLog(L"未连接VoxMouse硬件，停止键值检测", LogType_KeyChecking);
  Usb.StopCheck();
  LastState_Left = ButtonUp;
  Hid.StopHidCheck = true;
}

void CFormerMouse::CloseThread() {
  Usb.CloseThread();
  Hid.CloseThread();
  StopQlCheck = true;
}

bool CFormerMouse::ThreadIsClosed() const {
  return Usb.ThreadIsClosed() && Hid.ThreadIsClosed() && !QlCheckThread->IsSet();
}

void CFormerMouse::Release() {
  Usb.Release();
  Hid.ReleaseHidDevice();
  QlCheckThread->Terminate();
}

int CFormerMouse::ReCheckHardwareKind() {
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
  bool pen = false;
  bool other = false;
  // Deliberately the mark is looked for in the whole tail.
  for (const std::wstring& tail : OlderDeviceTails()) (Contains(tail, kLaserPenMark) ? pen : other) = true;
  return pen && !other ? HardWare_LaserPen : HardWare_Mouse;
}

void CFormerMouse::CheckOnlyQlMouse() {
  bool ql = false;
  bool other = false;
  for (const std::wstring& tail : OlderDeviceTails()) {
    std::wstring serial;
    if (CutSerial(tail, serial)) (Contains(serial, kQlMark) ? ql : other) = true;
  }
  OnlyQlMouse = ql && !other;
}

unsigned CFormerMouse::ThreadProcCheckOnlyQlMouse(void* argument) {
  auto* self = static_cast<CFormerMouse*>(argument);
  if (!self->QlCheckThread->Begin()) return 0;
  self->OnThreadCheckOnlyQlMouse();
  self->QlCheckThread->Clear();
  return 0;
}

void CFormerMouse::OnThreadCheckOnlyQlMouse() {
  int counter = 0;
  while (!StopQlCheck) {
    counter += static_cast<int>(kQlLook);
    if (counter == kQlPeriod) {
      counter = 0;
      CheckOnlyQlMouse();
    }
    if (!QlCheckThread->Park([] { os::Sleep(kQlLook); })) return;
  }
}

int CFormerMouse::IsConnect() {
  if (OnlyQlMouse) return -1;
  Usb.ImitateRevision = Usb.MouseRevision;
  DeviceSet devices(kMediaDevices);
  std::string ids;
  for (DWORD index = 0; devices.Select(index); ++index) {
    if (!devices.HardwareIds(ids)) continue;
    if (ids.size() >= kHardwareIdBytes) {
      std::fprintf(
          stderr,
          "VoxDevice: the hardware ids of media device %u have %zu bytes, more than the %zu there is room for\n",
          static_cast<unsigned>(index), ids.size(), kHardwareIdBytes - 1);
      std::abort();
    }
    const bool first = MatchesAny(ids, HardwareIds_Rev1);
    const bool second = MatchesAny(ids, HardwareIds_Rev2);
    if (!first && !second) continue;
    // Ids of both revisions: the revision known so far is asked for first.
    const bool firstWins = first && (!second || Usb.MouseRevision == kFirstRevision);
    Usb.MouseRevision = firstWins ? kFirstRevision : kSecondRevision;
    return static_cast<int>(index);
  }
  Usb.MouseRevision = kNoRevision;
  return -1;
}

VoxButtonState CFormerMouse::GetKey_M_L() const {
  return Hid.KeyState_Left == ButtonUp && Usb.KeyState_Left == ButtonUp ? ButtonUp : ButtonDown;
}

VoxButtonState CFormerMouse::GetKey_M_R() const {
  return Hid.KeyState_Right == ButtonUp && Usb.KeyState_Right == ButtonUp ? ButtonUp : ButtonDown;
}

VoxClickMode CFormerMouse::GetClickMode_L() const {
  const VoxClickMode hid = Hid.GetClickMode_L();
  const VoxClickMode usb = Usb.GetClickMode_L();
  if (hid == ClickDouble || usb == ClickDouble) return ClickDouble;
  return hid == ClickDoubleNoNet || usb == ClickDoubleNoNet ? ClickDoubleNoNet : ClickNone;
}

bool CFormerMouse::LeftKeyDown_Up() {
  const VoxButtonState current = GetKey_M_L();
  const VoxButtonState previous = LastState_Left.exchange(current);
  return previous == ButtonDown && current == ButtonUp;
}
