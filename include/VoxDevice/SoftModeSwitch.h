// CSoftModeSwitch: follows the user between the mouse and the laser pen.
#pragma once

#include <memory>

#include "VoxDevice/Api.h"
#include "VoxDevice/types.h"

class CAudioHidCenter;
class CFormerLaserPen;
class CFormerMouse;

// Every 8 s it looks which older devices are plugged in, and sets the working mode (CPreferences::GetHardWare) when
// there is one kind only. When there are both, it watches the keys every 0.1 s and follows the one that is pressed. A
// switch is told to the main window, the log and the tray.
//
// Threads, copies and the end: as in FormerMouse.h.
class VOXDEVICE_API CSoftModeSwitch {
 public:
  // True: no key may switch the mode now. On the switch thread.
  using PauseCallback = bool (*)(void* context);

  CSoftModeSwitch();
  ~CSoftModeSwitch();
  CSoftModeSwitch(const CSoftModeSwitch& other);
  CSoftModeSwitch& operator=(const CSoftModeSwitch& other);

  // pauseKeyCheck: a PauseCallback; without one no key switches the mode. Starts the thread when mouse, hub and pen are
  // given, which must live until it has ended: until Release, or the destructor of the last copy, has returned. Nothing
  // happens while one runs that was not stopped, nor when the system has no thread left: then it can be called again.
  void StartCheck(void* pauseKeyCheck, void* pauseContext, CFormerMouse* mouse, CAudioHidCenter* hub,
                  CFormerLaserPen* pen);
  // The thread ends within 50 ms; a check that it is at is carried through.
  void StopCheck();
  void Release();
  // Deliberately always true.
  bool ThreadIsClosed() const { return true; }

 private:
  struct State;
  struct Owner;
  std::shared_ptr<Owner> owner_;
};
