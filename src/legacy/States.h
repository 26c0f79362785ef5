// What the two sources of the older mice's keys work on, for themselves and for the facade.
#pragma once

#include <set>
#include <string>

#include "VoxDevice/FormerMouse.h"
#include "VoxDevice/KzCheckDoubleClick.h"
#include "legacy/Tasks.h"
#include "support/HidFile.h"

// As CFormerMouse::ReCheckHardwareKind; throws std::bad_alloc.
int PresentHardwareKind();

struct CFormerMouse_Usb::State : std::enable_shared_from_this<State> {
  State();

  void StartThread();
  void StopCheck();
  void End();
  void EndForGood() { End(); }  // nothing starts again
  void OnThreadCheckButtonProc(CWorker& thread);
  // One cycle. False when the thread is being ended.
  bool Poll(const CWorker& thread);
  void KeysUp();
  VoxButtonState CheckM_L() const;
  VoxButtonState CheckM_R() const;
  void ImitateKeyM_L() const;
  void ImitateKeyM_R() const;

  CLock lock;
  CTasks pollers{lock};
  const HANDLE StopEvent;
  Shared<bool> Checking{false};
  const int ToggleButton;
  Shared<VoxButtonState> KeyState_Left{ButtonUp};
  Shared<VoxButtonState> KeyState_Right{ButtonUp};
  KzCheckDoubleClick DoubleClick;
  Shared<int> ImitateRevision{2};
  Shared<int> MouseRevision{2};  // 0 first, 1 second, 2 none found
};

struct CFormerMouse_Hid::State : std::enable_shared_from_this<State> {
  // The devices that one run of the re-check thread has found, open and refused ones, by their keys.
  struct Run {
    std::set<std::string> HidDevices;
  };
  struct Device {
    std::shared_ptr<HidFile> File;
    HidDeviceKind Kind;
    std::string Key;
    std::shared_ptr<Run> run;
  };

  void StartCheck();
  void StopCheck();
  void Release();
  void End();
  void EndForGood();
  void OnThreadReCheckHidProc(const std::shared_ptr<Run>& run, CWorker& thread);
  void OpenHidDevice(const std::shared_ptr<Run>& run, const std::wstring& path, CWorker& thread);
  void ReadDevice(const Device& device, CWorker& thread);
  void OnHidKey(int key, HidDeviceKind kind, const CWorker& thread);
  void OnKeyboardKey(int key);
  bool SetKeys(VoxButtonState left, VoxButtonState right, const CWorker& thread);

  // Guards the threads and the devices; never held while the client is called or a thread is waited for.
  CLock lock;
  CTasks reChecks{lock};
  CTasks readers{lock};
  Shared<bool> ShortcutArmed{true};
  Shared<VoxButtonState> KeyState_Left{ButtonUp};
  Shared<VoxButtonState> KeyState_Right{ButtonUp};
  KzCheckDoubleClick DoubleClick;
};

struct CFormerMouse_Usb::Owner : LastCopy<Owner, State> {
  using LastCopy::LastCopy;
};

struct CFormerMouse_Hid::Owner : LastCopy<Owner, State> {
  using LastCopy::LastCopy;
};
