// CAudioHidCenter: every current model, over USB or Bluetooth LE, through one object.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "VoxDevice/Api.h"
#include "VoxDevice/Hardening.h"
#include "VoxDevice/Shared.h"
#include "VoxDevice/types.h"

class CHub;

// What a HID interface path tells about its device.
struct HidPathIdentity {
  std::string vid;
  std::string pid;
  std::string instance;
};

// Construct one, register callbacks, call OpenDevice; at the end CloseDevice and Release.
//
// A device number is the hub's handle for one attached device: positive, and larger for a device opened later. As the
// argument of a command, -1 addresses every live device. A device is live from its first answer until it sleeps or
// goes away. Commands skip, silently, devices that are not live or whose firmware is being updated.
//
// Threads: any operation may be called from any thread at any moment, a callback or a message included, also while
// CloseDevice, Release or the destructor runs on another thread: it works, or returns its not-ready result. (A call may
// not begin once the destructor has.) Callbacks run on the device's own read thread unless said otherwise, so those of
// two devices may run at the same time; the library holds no lock meanwhile. A callback should return soon: its device
// is not read until it does.
//
// Memory: whatever ends or closes something needs none, nor do commands, keys and registrations. Where there is none
// OpenDevice starts nothing, GetValidHidList gives nothing, and a constructor, a copy or what gives a text throws
// std::bad_alloc. What the hub's own threads have none for is left out: a pass of discovery, until the next, a report,
// a line of the log.
//
// Time: CloseDevice, Release and the destructor return within two seconds, whatever devices and drivers do; in a
// callback or message within 0.1 s. Whatever sends to devices waits for them to take it one second at most, for all
// addressed devices together (setMKeyType_Key1: for each); what a driver is still busy with then goes on its way
// without the caller, and the next report waits or is dropped. A thread that is stuck in a driver is left to itself,
// and frees what it holds when it comes back. A callback or message that has not returned when the two seconds of a
// stop are over is ended with its thread, in the middle of the client's code. It is left to come back, and its thread
// ends then, where the stop is called in a callback or message itself, and while it is inside an operation of the
// library's, or inside what that one tells.
class VOXDEVICE_API CAudioHidCenter {
 public:
  // data: signed 16-bit little-endian mono PCM, 16 kHz, valid during the call only; byteCount bytes of it.
  // (null, 0) marks the end of a recording.
  using AudioCallback = void (*)(const unsigned char* data, int byteCount, void* context);
  // state: 1 or 2 as the device sent it, 0 for anything else.
  using MouseConnectCallback = void (*)(int device, int state, void* context);
  // operation: 3 the device has opened its voice channel, 2 it refused, 0 the channel is closed.
  using VoiceOperateCallback = void (*)(int device, int operation, void* context);
  // dpi: dots per inch; ok: the device has applied it.
  using DpiSetCallback = void (*)(int device, int dpi, bool ok, void* context);
  // stateWord1 carries the DPI and stateByte the power level of the models known so far.
  using MouseStateCallback = void (*)(int device, MouseType model, DataChannel link, int stateWord0, int stateWord1,
                                      int stateByte, void* context);
  using DongleStateCallback = void (*)(int device, MouseType model, DataChannel link, int dongleWord, bool dongleFlag,
                                       void* context);
  // level: 0 to 255 as the device sent it.
  using PowerReportCallback = void (*)(int device, int level, void* context);
  using DownloadUrlCallback = void (*)(int device, bool ok, void* context);
  // Speech has been lost: so many reports are missing since the last call, so many were late. About a second
  // afterwards, on the device's read thread.
  using SpeechLostCallback = void (*)(int device, int missing, int late, void* context);
  using FwOtaResultCallbackFn = void (*)(int device, DataChannel link, FwUpdateState state, void* context);

  // Takes the double-click preferences, once.
  CAudioHidCenter();
  // Ends what still runs, as Release does, but sends nothing. On one of the hub's own threads (in a callback) that
  // thread ends after the callback. Waits, within the same time, for operations that other threads are inside. Nothing
  // is told after it, but what an operation that it no longer waits for is just telling.
  virtual ~CAudioHidCenter();
  // A copy has the values, the callbacks and the devices of its original, and no thread. The devices stay the
  // original's: it alone is told what they send, and they end with it; CloseDevice and Release of a copy end them, too.
  // The results of an update go to who has started it, and end with that. An object that is assigned to goes on with
  // its own discovery; its own devices that the other does not have are asked to end.
  CAudioHidCenter(const CAudioHidCenter& other);
  CAudioHidCenter& operator=(const CAudioHidCenter& other);

  // The instance constructed last; null before there is one.
  static CAudioHidCenter* Instance() noexcept;

  // ---- Lifecycle ----
  // Starts discovery; devices appear about a second later. audioCallback: an AudioCallback, or null. After CloseDevice
  // it finds new devices; one that was open is found again only after Release, or when a device of its model has taken
  // its row. A device that cannot be opened or served, since the system has failed at it, is tried again a second
  // later. Where there is no thread or memory left for discovery, nothing is found, silently: call it again.
  void OpenDevice(void* audioCallback, void* audioContext);
  // Stops discovery, and every thread of every device: no device is live any more, and what waits for an answer
  // returns. When it returns, neither callbacks nor messages run, unless it was called from one; but what an operation
  // tells on its caller's thread (the end mark of CloseHidRecord) may go on there. A firmware update that runs is
  // dropped without a result. The devices stay open, and known, until Release.
  void CloseDevice();
  // Sends AppExit to every live device (after CloseDevice none is), ends every thread, closes every handle and forgets
  // every device. On a thread of the hub's own (in a callback) it leaves that one thread to end after the callback,
  // which then closes what it uses.
  void Release();
  // what: of VoxHardening, added up; none at first. Holds for devices that are opened from then on.
  void SetHardening(unsigned what);
  // Deliberately the shipped rule: true when discovery has ended and some reader thread still runs.
  bool ThreadIsClosed();

  // ---- Queries ----
  // Whether a device was live when discovery last looked, or the last one has gone since. False after Release;
  // CloseDevice alone leaves it as it was.
  bool IsConnect() const;
  // The live device opened last, -1 when there is none.
  int GetEffectiveDevice();
  // 0 when no live device has exactly this number (-1 matches nothing); also below.
  MouseType GetHidMouseType(int device);
  DataChannel GetDeviceConnectMode(int device);
  // The M key's function as the device last reported it; 0 also unless `which` is 1. A device that takes the row of one
  // of its model that has gone begins with that one's function and list.
  MouseMKeyType GetMKeyType_Key1(int device, int which);
  MouseMKeyType GetMKeyType_Key2(int device, int which);
  // Live devices and their names, in the order of the device table: a device takes the row of one of its model that has
  // gone, or else a new one at the end.
  void GetValidHidList(std::vector<int>& numbers, std::vector<std::wstring>& names);
  static std::wstring GetHidName(MouseType model);
  // False, with `counts` untouched, when no live device has this number.
  bool GetSpeechCounts(int device, VoxSpeechCounts& counts);
  // Whether a sound-recording device, by its display name, belongs to a live device; makes that the work device (or
  // none). Deliberately there is no test for a Heron Plus: its name finds a Heron.
  bool RecordDeviceIsHidDevice(std::wstring recordingDeviceName);
  // Whether the work device is a Wren. Forgets an unread short press of the right key unless it is a Tern.
  bool WorkHidIsWren();

  // ---- The work device: the one that records ----
  void ChooseWorkHidDevice(int device);

  // ---- Commands ----
  // Answered through MouseState.
  void GetMouseState(int device);
  // Answered through DongleState.
  void GetDongleState(int device);
  // dpi in dots per inch; answered through DpiSet.
  void SetDpi(int device, short dpi);
  // url: `length` characters, replaced in place by the codes that are sent (a to z, A to Z, 0 to 9, - = . /; any other
  // character, the colon too, ends the operation with nothing sent). At most 8 less than the device's output report has
  // bytes: 56 for reports of 64, 32 for 40; a longer one is replaced and not sent. With -1 the first live device
  // replaces the characters, and gets them; to the others they are codes already. Answered through DownloadUrl.
  void SetDownloadURL(int device, unsigned char* url, int length);
  // Answered through VoxMessageSink::MKeyTypeSet.
  void getMKeyTypeList_Key1(int device);
  // No model has a list for key 2: sends nothing.
  void getMKeyTypeList_Key2(int device);
  // Blocks up to 2.5 s for each addressed device; in a callback of that same device it can only time out. The status of
  // the last one; 1 when none was addressed, or the hub was stopped meanwhile.
  SetMKeyTypeStatus setMKeyType_Key1(int device, MouseMKeyType type);
  // Deliberately sends nothing: 5 when a live device was addressed, else 1.
  SetMKeyTypeStatus setMKeyType_Key2(int device, MouseMKeyType type);
  // Opens the work device's voice channel: true when it confirms within a second of being asked. Blocks meanwhile; in a
  // callback of that same device it can only time out.
  bool OpenHidRecord();
  // Closes the work device's voice channel (every live device's when there is no work device), delivers the rest of
  // the audio and then the end mark, both on the calling thread. False when a device did not confirm within a second,
  // which each is waited for in turn; in a callback of that same device it can only time out. True when the hub is
  // stopped meanwhile.
  bool CloseHidRecord();
  // Updates the firmware of the live device with exactly this number: the first file goes to the device itself, the
  // second to its receiver (over Bluetooth LE there is none; FwUpdate_Both then sends the first alone). Nothing
  // happens, and nothing is reported, when there is no such device. Returns when the files are read and the first
  // request is sent, or after a second when the device has not taken that by then.
  //
  // Progress comes through VoxMessageSink::OtaProgress, results through FwOtaResult: one or more for each image, with
  // its channel, and FwUpdate_Over with channel 0 once at the end. Both on the device's read thread for answers and on
  // a wait thread of the update for steps that get no answer within 3.1 s of the request's being written (which are
  // also printed to standard output), on the calling thread when there is nothing to send. A file that cannot be read
  // leaves its image empty; what then happens is the device's decision, so check files first. While an update runs, the
  // device takes no other command and gets no heartbeat. When the device goes, the update reports FwUpdate_DeviceGone
  // after the 3.1 s, and its end. Where the system has no thread left to wait on, or no memory for a file, the update
  // is not begun, and FwUpdate_Over is all that it reports.
  //
  // A second call while an update runs, from a result callback too, takes its place: its images, its plan, and from its
  // return on its results only, but for one that another thread is just about to tell. Of several at the same time the
  // last one wins.
  void StartOTA(int device, FwUpdateType type, std::string firstPath, std::string secondPath);

  // ---- Keys: polled by the client; each getter makes the device that last pressed its button the work device ----
  VoxButtonState GetButtonState_Left();
  VoxButtonState GetButtonState_Right();
  VoxButtonState GetButtonState_Key1();
  VoxButtonState GetButtonState_Key2();
  // True once for each completed press of the left key. One polling thread.
  bool LeftKeyDown_Up();
  // True once after a Tern reported a short press of its right key.
  bool Tern_IsShortPress_R();
  VoxClickMode GetClickMode_L() const;

  // ---- Callbacks: a function of the type of that name above, or null, and the context it gets as last argument.
  // At any time, from any thread. ----
  void SetCallback_MouseConnect(void* function, void* context);
  void SetCallback_VoiceOperate(void* function, void* context);
  void SetCallback_DpiSet(void* function, void* context);
  void SetCallback_MouseState(void* function, void* context);
  void SetCallback_DongleState(void* function, void* context);
  void SetCallback_PowerReport(void* function, void* context);
  void SetCallback_DownloadUrl(void* function, void* context);
  void SetCallback_SpeechLost(void* function, void* context);
  // Register it before StartOTA, or the results are lost.
  void SetCallback_FwOtaResult(void* function, void* context);

  // ---- HID interface paths, also used for older devices ----
  // Adds the present HID interfaces, in the system's order; none when there is no memory for them.
  static void EnumerateHidInterfaces(std::vector<std::wstring>& paths);
  // Path of the form ...hid#vid_0d8c&pid_0137...#instance#...; false, with `identity` untouched, for any other.
  static bool ParseUsbHidPath(const std::string& path, HidPathIdentity& identity);
  // Path of the form ...hid#{...}_dev_vid&02248a_pid&8266_...#instance#...
  static bool ParseBluetoothHidPath(const std::string& path, HidPathIdentity& identity);

  // Each does for the hub that is its last argument what a reader of its own does: tells it of a report, of the end of
  // a device, of a result.
  static void HidDeviceReaderCallback(int device, MouseType model, DataChannel link, unsigned char* report,
                                      int reportLength, void* hub);
  static void HidDeviceDisconnect(int device, void* hub);
  static void FwOtaResultCallback(int device, DataChannel link, FwUpdateState state, void* hub);

 private:
  friend struct CHubAccess;  // the flat interface's way to what happens to the buttons
  struct ClassWide;

  const std::shared_ptr<CHub> m_pHub;  // what the hub's threads and operations work on; goes with the last of them
};
