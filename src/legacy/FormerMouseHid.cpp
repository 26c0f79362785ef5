// The older HID devices: found again every 3 s, read on threads of their own.
#include <array>
#include <climits>
#include <utility>

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/VoxCommon.h"
#include "legacy/States.h"
#include "platform/os.h"
#include "support/DeviceLists.h"
#include "support/HidFile.h"
#include "support/Memory.h"

namespace {

constexpr DWORD kRescan = 3000;   // ms
constexpr DWORD kEndWait = 30;    // ms that the re-check thread waits for its readers
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

}  // namespace

void CFormerMouse_Hid::State::StartCheck() {
  const CAutoLock held(lock);
  if (reChecks.IsRunning()) return;
  // A run that was stopped may not have come to this yet, and must not do it any more.
  KeyState_Left = ButtonUp;
  KeyState_Right = ButtonUp;
  HadMemory([&] {
    reChecks.Start([self = shared_from_this(), run = std::make_shared<Run>()](CWorker& thread) {
      self->OnThreadReCheckHidProc(run, thread);
    });
  });
}

// The readers at once, and not only when the re-check thread comes to it: that may be opening a device.
void CFormerMouse_Hid::State::StopCheck() {
  const CAutoLock held(lock);
  reChecks.Ask();
  readers.Ask();
}

void CFormerMouse_Hid::State::Release() {
  const CAutoLock held(lock);
  reChecks.Release();
  readers.Release();
}

void CFormerMouse_Hid::State::End() {
  Release();
  CTasks::Present({&reChecks, &readers}).End();
}

void CFormerMouse_Hid::State::EndForGood() {
  reChecks.Close();
  End();
}

void CFormerMouse_Hid::State::OnThreadReCheckHidProc(const std::shared_ptr<Run>& run, CWorker& thread) {
  do {
    // What there is no memory for is looked at again at the next scan.
    HadMemory([&] {
      std::vector<std::wstring> paths;
      CAudioHidCenter::EnumerateHidInterfaces(paths);
      for (const std::wstring& path : paths) OpenHidDevice(run, path, thread);
    });
  } while (thread.Sleep(kRescan));
  {
    const CAutoLock held(lock);
    if (!reChecks.IsRunning()) {
      KeyState_Left = ButtonUp;
      KeyState_Right = ButtonUp;
    }
  }
  if (!thread.IsReleased()) DoubleClick.SetKeyState(ButtonUp);
  // Nobody else asks again when one was on its way into its read.
  CTasks::Present({&readers}).Await(CDeadline(kEndWait));
}

void CFormerMouse_Hid::State::OpenHidDevice(const std::shared_ptr<Run>& run, const std::wstring& path,
                                            CWorker& thread) {
  HidPathIdentity identity;
  if (thread.IsAsked() || !CAudioHidCenter::ParseUsbHidPath(NarrowPath(path), identity) || identity.vid != "0d8c" ||
      (identity.pid != "0132" && identity.pid != "0135")) {
    return;
  }
  const auto file = std::make_shared<HidFile>(path, DataChannel_Usb);
  {
    const CAutoLock held(lock);
    if (!run->HidDevices.insert(identity.instance).second) return;
  }
  if (!file->Open(kMinReportLength, INT_MAX)) return;  // nor tried again in this run
  const HidDeviceKind kind = identity.pid == "0135" ? HidKind_VoiceKeyboard : HidKind_Mouse;
  // In one go: whoever asks this thread to end finds the reader, or keeps it from being started.
  const CAutoLock held(lock);
  bool started = false;
  HadMemory([&] {
    started = !thread.IsAsked() &&
              readers.Start([self = shared_from_this(), device = Device{file, kind, identity.instance, run}](
                                CWorker& reader) { self->ReadDevice(device, reader); });
  });
  if (started) {
    file->LeaveOpen();  // deliberately: that of a device that is still there
  } else {
    run->HidDevices.erase(identity.instance);
  }
}

void CFormerMouse_Hid::State::ReadDevice(const Device& device, CWorker& thread) {
  do {
    COMMTIMEOUTS timeouts{};
    os::GetCommTimeouts(device.File->Handle(), &timeouts);
    timeouts = {.ReadIntervalTimeout = 200,
                .ReadTotalTimeoutMultiplier = 0,
                .ReadTotalTimeoutConstant = 0,
                .WriteTotalTimeoutMultiplier = 0,
                .WriteTotalTimeoutConstant = 0};
    os::SetCommTimeouts(device.File->Handle(), &timeouts);
    std::array<std::uint8_t, kReadBytes> report{};
    const HidFile::Read read = device.File->ReadReport(report);
    if (!read.done) {
      if (read.error == ERROR_OPERATION_ABORTED && thread.IsAsked()) return;
      {
        const CAutoLock held(lock);
        device.run->HidDevices.erase(device.Key);
      }
      return device.File->Close();
    }
    if (thread.IsAsked()) return;
    OnHidKey(report[device.Kind == HidKind_Mouse ? kMouseKeyByte : kKeyboardKeyByte], device.Kind, thread);
  } while (thread.Sleep(kReadPause));
}

// False, and nothing changes, once the reader is asked to end.
bool CFormerMouse_Hid::State::SetKeys(VoxButtonState left, VoxButtonState right, const CWorker& thread) {
  const CAutoLock held(lock);
  if (thread.IsAsked()) return false;
  KeyState_Left = left;
  KeyState_Right = right;
  return true;
}

void CFormerMouse_Hid::State::OnHidKey(int key, HidDeviceKind kind, const CWorker& thread) {
  const bool pressed = key == kLeft || key == kRight;
  if (!pressed && kind == HidKind_VoiceKeyboard) OnKeyboardKey(key);
  const VoxButtonState left = key == kLeft ? ButtonDown : ButtonUp;
  if (!SetKeys(left, key == kRight ? ButtonDown : ButtonUp, thread)) return;
  DoubleClick.SetKeyState(left);
  // Deliberately a constant when no key is down, whatever the kind.
  CDeviceData::Instance()->SetHidDeviceKind(pressed ? kind : HidKind_Mouse);
}

// The direct keys. Held down they are reported again and again, and count once.
void CFormerMouse_Hid::State::OnKeyboardKey(int key) {
  const auto fire = [this](const wchar_t* text, LogType type, MainMenuType menu) {
    if (!ShortcutArmed.exchange(false)) return;
    VoxMessage::Log(text, type);
    VoxMessage::MainMenu(menu);
  };
  switch (key) {
    case kNavigation:
      return fire(L"检测到 语音键盘 导航键按下，打开VoxMouse导航", LogType_KeyboardNavigation, OpenNavigation);
    case kScreenshot:
      return fire(L"检测到 语音键盘 截图键按下", LogType_KeyboardScreenshot, Screenshot);
    case kBatteryLow:
      return VoxMessage::Tray(L"语音键盘电量低，请充电", VoxTray_Message);
    default:
      ShortcutArmed = true;
  }
}

CFormerMouse_Hid::CFormerMouse_Hid() : owner_(MakeWhole<Owner>()) {}
CFormerMouse_Hid::~CFormerMouse_Hid() = default;
CFormerMouse_Hid::CFormerMouse_Hid(const CFormerMouse_Hid& other) : owner_(other.owner_->Copy()) {}
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it keeps what it has.
CFormerMouse_Hid& CFormerMouse_Hid::operator=(const CFormerMouse_Hid& other) {
  const CNotCutOff whole;
  owner_ = other.owner_->Copy();
  return *this;
}

void CFormerMouse_Hid::StartCheck() { owner_->Share()->StartCheck(); }

void CFormerMouse_Hid::StopCheck() { owner_->Share()->StopCheck(); }

bool CFormerMouse_Hid::ThreadIsClosed() const { return !owner_->Share()->reChecks.IsSet(); }

void CFormerMouse_Hid::Release() { owner_->Share()->End(); }

VoxButtonState CFormerMouse_Hid::GetKey_M_L() const { return owner_->Share()->KeyState_Left; }

VoxButtonState CFormerMouse_Hid::GetKey_M_R() const { return owner_->Share()->KeyState_Right; }

VoxClickMode CFormerMouse_Hid::GetClickMode_L() const { return owner_->Share()->DoubleClick.GetClickMode(); }
