// The older hardware: a USB mouse and a laser pen whose keys arrive as keyboard keys, and the older HID devices (a
// mouse and a voice keyboard).
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "VoxDevice/Api.h"
#include "VoxDevice/KzCheckDoubleClick.h"
#include "VoxDevice/Shared.h"
#include "VoxDevice/types.h"

class CLock;
class CWorkerThread;

// The keys of the older USB mouse, polled on a thread of its own about every 13 ms while checking.
//
// Threads: the constructor, StartCheck to Release and the destructor belong to one client thread; getters may be called
// from any thread.
class VOXDEVICE_API CFormerMouse_Usb {
 public:
  // Takes the key layout and the double-click preferences, once, and starts the thread, which idles.
  CFormerMouse_Usb();
  // Ends the thread, if that still runs. Deliberately does not close the stop event.
  ~CFormerMouse_Usb();
  CFormerMouse_Usb(const CFormerMouse_Usb&) = delete;
  CFormerMouse_Usb& operator=(const CFormerMouse_Usb&) = delete;

  void StartCheck() { Checking = true; }
  bool IsChecking() const { return Checking; }
  // Releases the keys and forgets clicks.
  void StopCheck();
  // Asks the thread to end; it does so within about 0.1 s.
  void CloseThread();
  bool ThreadIsClosed() const;
  // Ends the thread by force.
  void Release();

  VoxButtonState GetKey_M_L() const { return KeyState_Left; }
  VoxButtonState GetKey_M_R() const { return KeyState_Right; }
  VoxClickMode GetClickMode_L() const { return DoubleClick.GetClickMode(); }
  // Send the release of a key to the system.
  void ImitateKeyM_L() const;
  void ImitateKeyM_R() const;

 private:
  friend class CFormerMouse;
  static unsigned ThreadCheckButtonProc(void* self);
  // One cycle. False when the thread is being ended.
  bool OnThreadCheckButtonProc();
  void ThisTerminate();
  VoxButtonState CheckM_L() const;
  VoxButtonState CheckM_R() const;

  std::unique_ptr<CWorkerThread> PollThread;
  void* StopEvent;
  Shared<bool> Checking{false};
  const int ToggleButton;
  Shared<VoxButtonState> KeyState_Left{ButtonUp};
  Shared<VoxButtonState> KeyState_Right{ButtonUp};
  KzCheckDoubleClick DoubleClick;
  Shared<int> ImitateRevision{2};
  Shared<int> MouseRevision{2};  // 0 first, 1 second, 2 none found
};

// The keys of the older HID devices: rescanned every 3 s, each device read on a thread of its own.
//
// Threads: as CFormerMouse_Usb.
class VOXDEVICE_API CFormerMouse_Hid {
 public:
  CFormerMouse_Hid();
  // Ends every thread.
  ~CFormerMouse_Hid();
  CFormerMouse_Hid(const CFormerMouse_Hid&) = delete;
  CFormerMouse_Hid& operator=(const CFormerMouse_Hid&) = delete;

  void StartCheck();
  // Asks the re-check thread to release every device and end; it does so within about 30 ms.
  void StopCheck() { StopHidCheck = true; }
  void CloseThread() { StopHidCheck = true; }
  bool ThreadIsClosed() const;
  // Ends the readers by force and forgets all devices. Deliberately does not close their files.
  void Release() { ReleaseHidDevice(); }

  VoxButtonState GetKey_M_L() const { return KeyState_Left; }
  VoxButtonState GetKey_M_R() const { return KeyState_Right; }
  VoxClickMode GetClickMode_L() const { return DoubleClick.GetClickMode(); }

 private:
  friend class CFormerMouse;
  struct HidReaderContext;
  struct FormerHidEntry;

  static unsigned ThreadReCheckHidProc(void* self);
  void OnThreadReCheckHidProc();
  static unsigned ReaderThreadProc(void* context);
  static void ReadDevice(HidReaderContext& context);
  void OpenPresentDevices();
  void OpenHidDevice(const std::vector<std::wstring>& paths);
  void OpenHidInterface(const std::wstring& path);
  void AddInvalidHidDevice(const std::string& key);
  bool KeyIsKnown(const std::string& key);
  std::shared_ptr<HidReaderContext> TakeContext();
  void ReleaseHidDevice();
  static void HidDeviceUnConnectCallback(void* owner, int number);
  static void HidKeyCallback(void* owner, int key, HidDeviceKind kind);
  void OnHidDeviceUnConnectCallback(int number);
  void OnHidKeyCallback(int key, HidDeviceKind kind);
  void OnKeyboardKey(int key);

  Shared<bool> StopHidCheck{false};
  std::unique_ptr<CWorkerThread> ReCheckThread;
  Shared<bool> ShortcutArmed{true};
  // Guards the list, and the start and end of the re-check thread; never held while a thread is ended by force or a
  // client is called.
  std::unique_ptr<CLock> devicesLock;
  std::list<FormerHidEntry> HidDevices;
  Shared<VoxButtonState> KeyState_Left{ButtonUp};
  Shared<VoxButtonState> KeyState_Right{ButtonUp};
  KzCheckDoubleClick DoubleClick;
};

// The keys of the laser pen, asked for when they are wanted. Any thread.
class VOXDEVICE_API CFormerLaserPen {
 public:
  VoxButtonState GetKey_P_subtitle() const;
  VoxButtonState GetKey_P_translate() const;
  VoxButtonState GetKey_P_control() const;
  VoxButtonState GetKey_P_disturb() const;
  // Unlike the others also down once when the key was tapped since the last query.
  VoxButtonState GetKey_P_close() const;
  void ImitateKeyP_subtitle() const;
  void ImitateKeyP_control() const;
  // Down when either virtual key is.
  static VoxButtonState CheckKeys(int first, int second);
};

// The older mice as the client sees them: detection, and the keys of both sources merged.
class VOXDEVICE_API CFormerMouse {
 public:
  // Starts the poller of the USB mouse, and looks once whether only mice of the Ql variant are there.
  CFormerMouse();
  // Ends what still runs; CloseThread or Release first.
  ~CFormerMouse();
  CFormerMouse(const CFormerMouse&) = delete;
  CFormerMouse& operator=(const CFormerMouse&) = delete;

  // Starts to look for the Ql variant every 4 s.
  void Init();
  void StartCheck();
  void StopCheck();
  void CloseThread();
  // True when all of its threads have ended.
  bool ThreadIsClosed() const;
  void Release();

  // What is plugged in: 1 a mouse (or nothing), 2 a laser pen, 3 both. Its identity goes to CVoxDeviceInfo.
  int ReCheckHardwareKind();
  // Deliberately different: 2 for a laser pen alone, and nothing is reported.
  static VoxHardWare InitVoxHardwareKind();
  // The index of the mouse's sound function in the media device class; -1 when there is none.
  int IsConnect();
  // The hardware revision that IsConnect found last: 0 the first, 1 the second, 2 none.
  int GetMouseRevision() const { return Usb.MouseRevision; }

  VoxButtonState GetKey_M_L() const;
  VoxButtonState GetKey_M_R() const;
  VoxClickMode GetClickMode_L() const;
  // True once for each completed press of the left key. One polling thread.
  bool LeftKeyDown_Up();
  void ImitateKeyM_L() const { Usb.ImitateKeyM_L(); }
  void ImitateKeyM_R() const { Usb.ImitateKeyM_R(); }

 private:
  void CheckOnlyQlMouse();
  static unsigned ThreadProcCheckOnlyQlMouse(void* self);
  void OnThreadCheckOnlyQlMouse();

  CFormerMouse_Usb Usb;
  CFormerMouse_Hid Hid;
  Shared<VoxButtonState> LastState_Left{ButtonUp};
  std::unique_ptr<CWorkerThread> QlCheckThread;
  Shared<bool> StopQlCheck{false};
  Shared<bool> OnlyQlMouse{false};
  const std::vector<std::string> HardwareIds_Rev1;
  const std::vector<std::string> HardwareIds_Rev2;
};
