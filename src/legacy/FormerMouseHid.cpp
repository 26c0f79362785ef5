// The older HID devices: found again every 3 s, read on threads of their own.
#include <algorithm>
#include <array>
#include <utility>

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/VoxCommon.h"
#include "platform/os.h"
#include "support/CLock.h"
#include "support/DeviceLists.h"
#include "support/HidFile.h"
#include "support/WorkerThread.h"

namespace {

constexpr int kStopLooks = 100;   // between two rescans
constexpr DWORD kStopLook = 30;   // ms
constexpr DWORD kReadPause = 10;  // ms
constexpr int kMinReportLength = 8;
constexpr DWORD kReadBytes = 64;
constexpr std::size_t kMouseKeyByte = 3;
constexpr std::size_t kKeyboardKeyByte = 2;

enum Key : int {
  kRight = 0x11,
  kLeft = 0x21,
  kNavigation = 0x41,
  kScreenshot = 0x51,
  kBatteryLow = 0x65,
};

// Numbers the opened devices of the process; never used again.
std::atomic<int> openedDevices{0};

}  // namespace

// What the object and one reader thread share.
struct CFormerMouse_Hid::HidReaderContext {
  Shared<bool> Stop{false};
  CWorkerThread Thread;
  HANDLE File = nullptr;
  int Number = 0;
  HidDeviceKind Kind = HidKind_VoiceKeyboard;
  int InputLength = 0;
  int OutputLength = 0;
  void* Owner = nullptr;
  void (*OnUnConnect)(void* owner, int number) = nullptr;
  void (*OnKey)(void* owner, int key, HidDeviceKind kind) = nullptr;
};

struct CFormerMouse_Hid::FormerHidEntry {
  int Number = -1;
  HANDLE File = nullptr;
  std::string Key;
  std::shared_ptr<HidReaderContext> Reader;
};

CFormerMouse_Hid::CFormerMouse_Hid()
    : ReCheckThread(std::make_unique<CWorkerThread>()), devicesLock(std::make_unique<CLock>()) {}

CFormerMouse_Hid::~CFormerMouse_Hid() {
  ReCheckThread->Terminate();
  ReleaseHidDevice();
}

// The client's thread and the mode switch's may both call this.
void CFormerMouse_Hid::StartCheck() {
  const CAutoLock lock(*devicesLock);
  StopHidCheck = false;
  if (ReCheckThread->IsSet()) return;
  ReCheckThread->Join();  // its last instructions
  ReCheckThread->Start(&CFormerMouse_Hid::ThreadReCheckHidProc, this);
}

bool CFormerMouse_Hid::ThreadIsClosed() const { return !ReCheckThread->IsSet(); }

unsigned CFormerMouse_Hid::ThreadReCheckHidProc(void* argument) {
  auto* self = static_cast<CFormerMouse_Hid*>(argument);
  if (!self->ReCheckThread->Begin()) return 0;
  self->OnThreadReCheckHidProc();
  self->ReCheckThread->Clear();
  return 0;
}

void CFormerMouse_Hid::OnThreadReCheckHidProc() {
  for (;;) {
    OpenPresentDevices();
    for (int look = 0; look < kStopLooks; ++look) {
      if (StopHidCheck) {
        ReleaseHidDevice();
        KeyState_Left = ButtonUp;
        KeyState_Right = ButtonUp;
        DoubleClick.SetKeyState(ButtonUp);
        // A start either comes before this look, and is seen, or finds the thread ended.
        const CAutoLock lock(*devicesLock);
        if (!StopHidCheck) break;
        ReCheckThread->Clear();
        return;
      }
      if (!ReCheckThread->Park([] { os::Sleep(kStopLook); })) return;
    }
  }
}

// By itself, so that nothing is held while the thread waits, where it may be ended.
void CFormerMouse_Hid::OpenPresentDevices() {
  std::vector<std::wstring> paths;
  CAudioHidCenter::EnumerateHidInterfaces(paths);
  OpenHidDevice(paths);
}

void CFormerMouse_Hid::OpenHidDevice(const std::vector<std::wstring>& paths) {
  for (const std::wstring& path : paths) OpenHidInterface(path);
}

void CFormerMouse_Hid::OpenHidInterface(const std::wstring& path) {
  HidPathIdentity identity;
  if (!CAudioHidCenter::ParseUsbHidPath(NarrowPath(path), identity) || identity.vid != "0d8c" ||
      (identity.pid != "0132" && identity.pid != "0135") || KeyIsKnown(identity.instance)) {
    return;
  }
  HidFile file(path);
  if (!file.Check(kMinReportLength)) return AddInvalidHidDevice(identity.instance);
  // In one go: whoever releases the devices meanwhile finds this one with its reader started, or not at all. The entry
  // comes before the reader runs, which finds it when it ends at once.
  const CAutoLock lock(*devicesLock);
  const std::shared_ptr<HidReaderContext> context = TakeContext();
  context->Number = ++openedDevices;
  context->Kind = identity.pid == "0135" ? HidKind_VoiceKeyboard : HidKind_Mouse;
  context->InputLength = file.InputLength();
  context->OutputLength = file.OutputLength();
  context->File = file.Give();
  context->Owner = this;
  context->OnUnConnect = &CFormerMouse_Hid::HidDeviceUnConnectCallback;
  context->OnKey = &CFormerMouse_Hid::HidKeyCallback;
  context->Stop = false;
  HidDevices.push_back({context->Number, context->File, identity.instance, context});
  context->Thread.Start(&CFormerMouse_Hid::ReaderThreadProc, context.get());
}

void CFormerMouse_Hid::AddInvalidHidDevice(const std::string& key) {
  const CAutoLock lock(*devicesLock);
  HidDevices.push_back({-1, nullptr, key, nullptr});
}

bool CFormerMouse_Hid::KeyIsKnown(const std::string& key) {
  const CAutoLock lock(*devicesLock);
  return std::any_of(HidDevices.begin(), HidDevices.end(),
                     [&](const FormerHidEntry& entry) { return entry.Key == key; });
}

// With the lock held. That of a device that has gone, or a new one.
std::shared_ptr<CFormerMouse_Hid::HidReaderContext> CFormerMouse_Hid::TakeContext() {
  for (const FormerHidEntry& entry : HidDevices) {
    if (entry.Reader && !entry.Reader->Thread.IsSet() && entry.Reader->Thread.IsIdle()) return entry.Reader;
  }
  return std::make_shared<HidReaderContext>();
}

unsigned CFormerMouse_Hid::ReaderThreadProc(void* argument) {
  auto& context = *static_cast<HidReaderContext*>(argument);
  if (!context.Thread.Begin()) return 0;
  ReadDevice(context);
  context.Thread.Clear();
  return 0;
}

void CFormerMouse_Hid::ReadDevice(HidReaderContext& context) {
  if (context.Stop.exchange(false)) return;
  while (context.File && context.File != INVALID_HANDLE_VALUE) {
    COMMTIMEOUTS timeouts{};
    os::GetCommTimeouts(context.File, &timeouts);
    timeouts = {.ReadIntervalTimeout = 200,
                .ReadTotalTimeoutMultiplier = 0,
                .ReadTotalTimeoutConstant = 0,
                .WriteTotalTimeoutMultiplier = 0,
                .WriteTotalTimeoutConstant = 0};
    os::SetCommTimeouts(context.File, &timeouts);
    std::array<std::uint8_t, kReadBytes> report{};
    DWORD count = 0;
    BOOL read = FALSE;
    if (!context.Thread.Park([&] { read = os::ReadFile(context.File, report.data(), kReadBytes, &count, nullptr); }))
      return;
    if (!read) break;
    context.OnKey(context.Owner, report[context.Kind == HidKind_Mouse ? kMouseKeyByte : kKeyboardKeyByte],
                  context.Kind);
    if (!context.Thread.Park([] { os::Sleep(kReadPause); })) return;
    if (context.Stop.exchange(false)) return;
  }
  context.OnUnConnect(context.Owner, context.Number);
}

void CFormerMouse_Hid::HidDeviceUnConnectCallback(void* owner, int number) {
  static_cast<CFormerMouse_Hid*>(owner)->OnHidDeviceUnConnectCallback(number);
}

void CFormerMouse_Hid::OnHidDeviceUnConnectCallback(int number) {
  HANDLE file = nullptr;
  {
    const CAutoLock lock(*devicesLock);
    const auto entry = std::find_if(HidDevices.begin(), HidDevices.end(),
                                    [number](const FormerHidEntry& known) { return known.Number == number; });
    if (entry == HidDevices.end()) return;
    file = std::exchange(entry->File, nullptr);
    entry->Number = -1;
    entry->Key.clear();
  }
  os::CloseHandle(file);
}

void CFormerMouse_Hid::HidKeyCallback(void* owner, int key, HidDeviceKind kind) {
  static_cast<CFormerMouse_Hid*>(owner)->OnHidKeyCallback(key, kind);
}

void CFormerMouse_Hid::OnHidKeyCallback(int key, HidDeviceKind kind) {
  CDeviceData* data = CDeviceData::Instance();
  if (key == kLeft) {
    KeyState_Left = ButtonDown;
    KeyState_Right = ButtonUp;
    DoubleClick.SetKeyState(ButtonDown);
    return data->SetHidDeviceKind(kind);
  }
  if (key == kRight) {
    KeyState_Left = ButtonUp;
    KeyState_Right = ButtonDown;
    DoubleClick.SetKeyState(ButtonUp);
    return data->SetHidDeviceKind(kind);
  }
  if (kind == HidKind_VoiceKeyboard) OnKeyboardKey(key);
  KeyState_Left = ButtonUp;
  KeyState_Right = ButtonUp;
  DoubleClick.SetKeyState(ButtonUp);
  data->SetHidDeviceKind(HidKind_Mouse);  // deliberately, whatever the kind
}

// The direct keys. Held down they are reported again and again, and count once.
void CFormerMouse_Hid::OnKeyboardKey(int key) {
  switch (key) {
    case kNavigation:
      if (!ShortcutArmed) return;
      VoxMessage::Log(L"检测到 语音键盘 导航键按下，打开VoxMouse导航", LogType_KeyboardNavigation);
      VoxMessage::MainMenu(OpenNavigation);
      ShortcutArmed = false;
      break;
    case kScreenshot:
      if (!ShortcutArmed) return;
      VoxMessage::Log(L"检测到 语音键盘 截图键按下", LogType_KeyboardScreenshot);
      VoxMessage::MainMenu(Screenshot);
      ShortcutArmed = false;
      break;
    case kBatteryLow:
      VoxMessage::Tray(L"语音键盘电量低，请充电", VoxTray_Message);
      break;
    default:
      ShortcutArmed = true;
      break;
  }
}

void CFormerMouse_Hid::ReleaseHidDevice() {
  std::list<FormerHidEntry> released;
  {
    const CAutoLock lock(*devicesLock);
    released.swap(HidDevices);
  }
  // Deliberately their files stay open.
  for (const FormerHidEntry& entry : released) {
    if (entry.Reader) entry.Reader->Thread.Terminate();
  }
}
