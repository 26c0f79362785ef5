// The client's support services as this library uses them: messages, preferences, environment.
#pragma once

#include "VoxDevice/Shared.h"

// Log categories.
enum LogType : int {
  LogType_DoubleClick = 33,
  LogType_DeviceConnected = 43,
  LogType_DeviceRemoved = 44,  // removal, sleep and forced thread ends
};

// Functions of the client's main window.
enum MainMenuType : int {
  OpenNavigation = 8,
  Screenshot = 16,
};

// Receives what the library tells the client application. Every operation is called on the thread that caused it
// (mostly one of a device's own two threads), so several may run at the same time. Texts and lists are valid only
// during the call.
class VoxMessageSink {
 public:
  virtual ~VoxMessageSink() = default;
  virtual void Log(const wchar_t* /*text*/, LogType /*type*/) {}
  virtual void HidConnect(int /*device*/) {}
  virtual void HidDisconnect(int /*device*/) {}
  // types: the device's answer, `length` bytes: the current function of the M key, then those it supports.
  virtual void MKeyTypeSet(int /*device*/, int /*key*/, const unsigned char* /*types*/, int /*length*/) {}
  // A firmware update has come so far: bytes of `total`, or 100 of 100 when an image is done.
  virtual void OtaProgress(int /*done*/, int /*total*/) {}
  virtual void MainMenu(MainMenuType /*menu*/) {}
  virtual void PostMainMenu(MainMenuType /*menu*/) {}
};

class VoxMessage {
 public:
  // The sink must outlive the library's threads: set it before OpenDevice, take it away (null) after Release.
  static void SetSink(VoxMessageSink* sink) noexcept;

  static void Log(const wchar_t* text, LogType type) noexcept;
  static void HidConnect(int device) noexcept;
  static void HidDisconnect(int device) noexcept;
  static void MKeyTypeSet(int device, int key, const unsigned char* types, int length) noexcept;
  static void OtaProgress(int done, int total) noexcept;
  static void MainMenu(MainMenuType menu) noexcept;
  static void PostMainMenu(MainMenuType menu) noexcept;
};

// The user's preferences. The client sets them; the library reads those of a detector once, when it is built.
class CPreferences {
 public:
  static CPreferences* Instance() noexcept;

  int GetVoiceClickTimes() const noexcept { return voiceClickTimes_; }
  void SetVoiceClickTimes(int times) noexcept { voiceClickTimes_ = times; }
  int GetDoubleClickTimeInterval_ms() const noexcept { return doubleClickInterval_; }
  void SetDoubleClickTimeInterval_ms(int milliseconds) noexcept { doubleClickInterval_ = milliseconds; }
  int GetVoxButtonLongDown() const noexcept { return voxButtonLongDown_; }
  void SetVoxButtonLongDown(int option) noexcept { voxButtonLongDown_ = option; }

 private:
  Shared<int> voiceClickTimes_{1};        // 2: a double click of the voice key opens the navigation
  Shared<int> doubleClickInterval_{400};  // milliseconds
  Shared<int> voxButtonLongDown_{0};
};

class CEnvironmentMonitor {
 public:
  // Whether the network can be reached. The client keeps the answer up to date.
  static bool CheckNet(bool refresh) noexcept;
  static void SetNet(bool reachable) noexcept;
};
