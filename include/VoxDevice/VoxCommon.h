// The client's support services as this library uses them: messages, preferences, environment.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "VoxDevice/Api.h"
#include "VoxDevice/Shared.h"
#include "VoxDevice/types.h"

class CWorker;

// Log categories.
enum LogType : int {
  LogType_Information = 0,
  LogType_Recording = 6,            // errors of the recorders
  LogType_KeyboardNavigation = 23,  // of the voice keyboard
  LogType_DoubleClick = 33,         // and switches of the working mode
  LogType_KeyboardScreenshot = 38,  // of the voice keyboard
  LogType_DeviceConnected = 43,
  LogType_KeyChecking = 45,    // of older devices, started or stopped
  LogType_DeviceRemoved = 44,  // removal, sleep and forced thread ends
};

// What has changed for the main window.
enum UserWorkType : int {
  HardWareChanged = 2,
};

// How the tray shows a text.
enum VoxTrayParams : int {
  VoxTray_Message = 1,
};

// Functions of the client's main window.
enum MainMenuType : int {
  OpenNavigation = 8,
  Screenshot = 16,
};

// Receives what the library tells the client application. Every operation is called on the thread that caused it
// (mostly one of a device's own threads), so several may run at the same time. Texts and lists are valid only during
// the call. One that does not return within two seconds while its thread is stopped is ended there with the thread,
// unless an operation tells it that the client has called in a callback or message.
class VoxMessageSink {
 public:
  virtual ~VoxMessageSink() = default;
  virtual void Log(const wchar_t* /*text*/, LogType /*type*/) {}
  virtual void DebugLog(const wchar_t* /*text*/, LogType /*type*/) {}
  virtual void MainWndWork(UserWorkType /*work*/) {}
  virtual void Tray(const wchar_t* /*text*/, VoxTrayParams /*parameters*/) {}
  virtual void HidConnect(int /*device*/) {}
  virtual void HidDisconnect(int /*device*/) {}
  // types: the device's answer, `length` bytes: the current function of the M key, then those it supports.
  virtual void MKeyTypeSet(int /*device*/, int /*key*/, const unsigned char* /*types*/, int /*length*/) {}
  // A firmware update has come so far: bytes of `total`, or 100 of 100 when an image is done.
  virtual void OtaProgress(int /*done*/, int /*total*/) {}
  virtual void MainMenu(MainMenuType /*menu*/) {}
  virtual void PostMainMenu(MainMenuType /*menu*/) {}
};

class VOXDEVICE_API VoxMessage {
 public:
  // The sink must outlive the library's threads: set it before OpenDevice, take it away (null) after Release.
  static void SetSink(VoxMessageSink* sink) noexcept;

  static void Log(const wchar_t* text, LogType type) noexcept;
  static void DebugLog(const wchar_t* text, LogType type) noexcept;
  static void MainWndWork(UserWorkType work) noexcept;
  static void Tray(const wchar_t* text, VoxTrayParams parameters) noexcept;
  static void HidConnect(int device) noexcept;
  static void HidDisconnect(int device) noexcept;
  static void MKeyTypeSet(int device, int key, const unsigned char* types, int length) noexcept;
  static void OtaProgress(int done, int total) noexcept;
  static void MainMenu(MainMenuType menu) noexcept;
  static void PostMainMenu(MainMenuType menu) noexcept;
};

// The user's preferences. The client sets them; the library reads those of a detector once, when it is built.
class VOXDEVICE_API CPreferences {
 public:
  static CPreferences* Instance() noexcept;

  int GetVoiceClickTimes() const noexcept { return voiceClickTimes_; }
  void SetVoiceClickTimes(int times) noexcept { voiceClickTimes_ = times; }
  int GetDoubleClickTimeInterval_ms() const noexcept { return doubleClickInterval_; }
  void SetDoubleClickTimeInterval_ms(int milliseconds) noexcept { doubleClickInterval_ = milliseconds; }
  int GetVoxButtonLongDown() const noexcept { return voxButtonLongDown_; }
  void SetVoxButtonLongDown(int option) noexcept { voxButtonLongDown_ = option; }
  // Which keys the older mouse uses: 1, 2 or any other layout.
  int GetToggleButton() const noexcept { return toggleButton_; }
  void SetToggleButton(int layout) noexcept { toggleButton_ = layout; }
  VoxHardWare GetHardWare() const noexcept { return hardWare_; }
  void SetHardWare(VoxHardWare hardWare) noexcept { hardWare_ = hardWare; }

 private:
  Shared<int> voiceClickTimes_{1};        // 2: a double click of the voice key opens the navigation
  Shared<int> doubleClickInterval_{400};  // milliseconds
  Shared<int> voxButtonLongDown_{0};
  Shared<int> toggleButton_{1};
  Shared<VoxHardWare> hardWare_{HardWare_Mouse};
};

// A record that the client and the library share. Any thread.
class VOXDEVICE_API CDeviceData {
 public:
  static CDeviceData* Instance() noexcept;

  // Whether the working mode follows the older hardware.
  bool IsHardwareChecked() const noexcept { return hardwareChecked_; }
  void SetHardwareChecked(bool checked) noexcept { hardwareChecked_ = checked; }
  // The kind of device that sent the last key of older HID hardware.
  HidDeviceKind GetHidDeviceKind() const noexcept { return hidDeviceKind_; }
  void SetHidDeviceKind(HidDeviceKind kind) noexcept { hidDeviceKind_ = kind; }
  // Whether the microphone is the one whose name the client has set.
  bool IsRecordByName() const noexcept { return recordByName_; }
  void SetRecordByName(bool byName) noexcept { recordByName_ = byName; }
  std::wstring GetRecordName() const;
  void SetRecordName(const std::wstring& name);

 private:
  Shared<bool> hardwareChecked_{true};
  Shared<HidDeviceKind> hidDeviceKind_{HidKind_Mouse};
  Shared<bool> recordByName_{false};
  mutable std::mutex mutex_;
  std::wstring recordName_;
};

// Base of an object with a thread of its own that receives thread messages.
class VOXDEVICE_API CThread {
 public:
  virtual unsigned long ThreadProc() = 0;

  // Starts a thread that runs ThreadProc; another one, when one runs. The thread can receive messages when this
  // returns.
  bool StartThread();
  // The system's number of the thread started last; 0 before.
  unsigned GetThreadID() const noexcept;
  bool SetThreadPriority(int priority) noexcept;

  struct Message {
    unsigned message = 0;
    std::uintptr_t wParam = 0;
    std::intptr_t lParam = 0;
  };

 protected:
  struct Threads;

  CThread();
  // A copy has no thread of its own.
  CThread(const CThread& other);
  CThread& operator=(const CThread& other);
  // EndThreads must have been called: the threads run a member of the object that is going.
  ~CThread();
  // On the thread: waits for its next message. False when the thread is to end.
  static bool NextMessage(Message& message);
  // Asks every thread that was started to end, and waits for them, so many milliseconds at most; no other starts any
  // more. Those that wait for messages end at once. On one of them: that one ends when it comes back from what it does.
  // One that is inside the client's code when the time is over is ended by force, unless this is called on a thread of
  // the library's.
  void EndThreads(unsigned milliseconds = 2000) noexcept;
  // The same as StartThread, for who may outlive the object: the thread runs its ThreadProc all the same, unless
  // EndThreads has been called. It owns `owned` until it has ended. Null: it could not be started.
  static std::shared_ptr<CWorker> Start(const std::shared_ptr<Threads>& threads, CThread* object,
                                        std::shared_ptr<void> owned);
  // On the thread: what it owns. Null on any other.
  void* Owned() const noexcept;

  const std::shared_ptr<Threads> threads_;
};

// The Windows version as far as it matters here.
enum WindowsVersion : int {
  WindowsVersion_MixerVolume = 0,   // input volume through the wave mixer
  WindowsVersion_TimerCapture = 2,  // the speaker is captured by a timer
  WindowsVersion_FullVolume = 5,    // input volume is set to 0.99
  WindowsVersion_Current = 6,       // any other
};

class VOXDEVICE_API CEnvironmentMonitor {
 public:
  // Whether the network can be reached. The client keeps the answer up to date.
  static bool CheckNet(bool refresh) noexcept;
  static void SetNet(bool reachable) noexcept;
  // The version that the client has found.
  static WindowsVersion OsVersion() noexcept;
  static void SetOsVersion(WindowsVersion version) noexcept;
};
