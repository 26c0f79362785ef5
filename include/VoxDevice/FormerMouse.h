// The older hardware: a USB mouse and a laser pen whose keys arrive as keyboard keys, and the older HID devices (a
// mouse and a voice keyboard).
//
// Threads: any operation may be called from any thread at any moment, also inside a message of the library's, and also
// while another thread releases or destroys the object; only assigning to an object, which changes what it shares, must
// not meet another call of that same object. A call that meets the destructor of the last copy finds everything ended.
// Copies share everything: the threads, the keys and what was set up. What runs ends with the last copy, or in Release.
//
// A thread that is asked to end does so within 50 ms. Release, and the destructor of the last copy, wait until the
// threads are gone, 2 s at most: a thread that a driver keeps is left to end when it comes back, one that is still
// inside the client's code is then ended by force, unless it is inside an operation of the library's. Inside a message
// they wait 0.1 s at most, and use no force; the thread of that message ends after it. Once they have returned nothing
// more is told to the client, until it starts again.
//
// Where the system has no thread left, whatever a start would have run does not run, silently, and can be started
// again; but for the poller of the USB mouse, whose keys the object then never sees. A list of devices that the system
// cannot give counts as empty. It is the same where there is no memory left: whatever ends something needs none, the
// threads leave out a look that they have none for, and only constructors and copies throw std::bad_alloc. A device
// that cannot be opened, or whose read fails, is tried again: at the next start, or the next rescan.
#pragma once

#include <memory>

#include "VoxDevice/Api.h"
#include "VoxDevice/types.h"

// The keys of the older USB mouse, polled on a thread of its own about every 13 ms while checking.
class VOXDEVICE_API CFormerMouse_Usb {
 public:
  // Takes the key layout and the double-click preferences, once, and starts the thread, which idles.
  CFormerMouse_Usb();
  // Deliberately does not close the stop event.
  ~CFormerMouse_Usb();
  CFormerMouse_Usb(const CFormerMouse_Usb& other);
  CFormerMouse_Usb& operator=(const CFormerMouse_Usb& other);

  void StartCheck();
  bool IsChecking() const;
  // Releases the keys and forgets clicks.
  void StopCheck();
  // Asks the thread to end, for good.
  void CloseThread();
  bool ThreadIsClosed() const;
  // Ends the thread, for good.
  void Release();

  VoxButtonState GetKey_M_L() const;
  VoxButtonState GetKey_M_R() const;
  VoxClickMode GetClickMode_L() const;
  // Send the release of a key to the system.
  void ImitateKeyM_L() const;
  void ImitateKeyM_R() const;

 private:
  friend class CFormerMouse;
  struct State;
  struct Owner;
  std::shared_ptr<Owner> owner_;
};

// The keys of the older HID devices: rescanned every 3 s, each device read on a thread of its own.
//
// 0x21 is the left key, 0x11 the right one. On a voice keyboard 0x41 opens the navigation and 0x51 takes a screenshot,
// once until the keys are armed again: by any key byte of a keyboard other than 0x41, 0x51, 0x65 (a low battery), 0x21
// and 0x11, and by no report of a mouse.
class VOXDEVICE_API CFormerMouse_Hid {
 public:
  CFormerMouse_Hid();
  ~CFormerMouse_Hid();
  CFormerMouse_Hid(const CFormerMouse_Hid& other);
  CFormerMouse_Hid& operator=(const CFormerMouse_Hid& other);

  void StartCheck();
  // Ask the re-check thread and the readers to end: the keys are up, and all devices are forgotten. Deliberately the
  // files of devices that are still plugged in stay open; so they do in Release.
  void StopCheck();
  void CloseThread() { StopCheck(); }
  // True when the re-check thread has ended.
  bool ThreadIsClosed() const;
  // Ends the re-check thread and the readers.
  void Release();

  VoxButtonState GetKey_M_L() const;
  VoxButtonState GetKey_M_R() const;
  VoxClickMode GetClickMode_L() const;

 private:
  friend class CFormerMouse;
  struct State;
  struct Owner;
  std::shared_ptr<Owner> owner_;
};

// The keys of the laser pen, asked for when they are wanted.
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
  ~CFormerMouse();
  CFormerMouse(const CFormerMouse& other);
  CFormerMouse& operator=(const CFormerMouse& other);

  // Starts to look for the Ql variant every 4 s.
  void Init();
  // Starts the checking of both sources. The USB mouse's poller is there from the constructor to CloseThread or
  // Release.
  void StartCheck();
  void StopCheck();
  // Asks all threads to end. Init and StartCheck start theirs again, but for the USB mouse's.
  void CloseThread();
  // True when all threads have ended, those that read HID devices apart.
  bool ThreadIsClosed() const;
  // Ends all threads.
  void Release();

  // What is plugged in: 1 a mouse (or nothing), 2 a laser pen, 3 both. Its identity goes to CVoxDeviceInfo.
  int ReCheckHardwareKind();
  // Deliberately different: 2 for a laser pen alone, and nothing is reported.
  static VoxHardWare InitVoxHardwareKind();
  // The index of the mouse's sound function in the media device class; -1 when there is none.
  int IsConnect();
  // The hardware revision that IsConnect found last: 0 the first, 1 the second, 2 none.
  int GetMouseRevision() const;

  VoxButtonState GetKey_M_L() const;
  VoxButtonState GetKey_M_R() const;
  VoxClickMode GetClickMode_L() const;
  // True once for each press of the left key that one call has seen down and the next sees up.
  bool LeftKeyDown_Up();
  void ImitateKeyM_L() const;
  void ImitateKeyM_R() const;

 private:
  struct State;
  struct Owner;
  std::shared_ptr<Owner> owner_;
};
