// What stands behind CAudioHidCenter: the device table, discovery, dispatch, keys, speech.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/KzCheckDoubleClick.h"
#include "VoxDevice/Shared.h"
#include "hid/DeviceReader.h"
#include "support/CLock.h"
#include "support/CallbackSlot.h"
#include "support/Operation.h"
#include "support/Worker.h"

enum class KeyAction;

// One accepted vendor/product pair, spelled as in a HID interface path.
struct LegalHidId {
  std::string vid;
  std::string pid;
  MouseType type;
};

// One row of the device table. A row stays until the hub is released; when its device goes, it keeps what the next
// device of the same model takes over.
struct HidDeviceEntry {
  int deviceNumber = -1;
  std::string path;
  std::shared_ptr<CDeviceReader> reader;  // null when the device has gone, and for a path that must not be opened
  CReaderMemory memory;                   // of the device that has gone
};

// What happens to a button, in the numbers of the flat interface.
enum class ButtonEvent : int { up, down, shortPress, doubleClick, doubleClickNoNet };
enum class Button : int { left, right, key1, key2 };

// What the client has registered.
struct CHubCallbacks {
  // device: that has pressed the button. On its read thread, like most.
  using ButtonCallback = void (*)(int device, Button button, ButtonEvent what, void* context);
  CallbackSlot<CAudioHidCenter::AudioCallback, "audio"> audioCallback;
  CallbackSlot<CAudioHidCenter::MouseConnectCallback, "mouseconnect"> mouseConnectCallback;
  CallbackSlot<CAudioHidCenter::VoiceOperateCallback, "voice"> voiceOperateCallback;
  CallbackSlot<CAudioHidCenter::DpiSetCallback, "dpi"> dpiSetCallback;
  CallbackSlot<CAudioHidCenter::MouseStateCallback, "mousestate"> mouseStateCallback;
  CallbackSlot<CAudioHidCenter::DongleStateCallback, "donglestate"> dongleStateCallback;
  CallbackSlot<CAudioHidCenter::PowerReportCallback, "power"> powerReportCallback;
  CallbackSlot<CAudioHidCenter::DownloadUrlCallback, "url"> downloadUrlCallback;
  CallbackSlot<CAudioHidCenter::FwOtaResultCallbackFn, "update"> fwOtaResultCallback;
  CallbackSlot<CAudioHidCenter::SpeechLostCallback, "speechlost"> speechLostCallback;
  CallbackSlot<ButtonCallback, "button"> buttonCallback;
};

// The hub's threads, its readers and every operation that runs hold a reference, so that nothing they use can go before
// they do. CAudioHidCenter holds one, too, and stops everything when it goes.
//
// tableLock guards the table, the list of discovery threads, and with them the question whether a device may still
// come in. It is never held while the client is called or anything is waited for.
class CHub : public CHubCallbacks, public std::enable_shared_from_this<CHub> {
 public:
  CHub();
  ~CHub();
  CHub(const CHub&) = delete;
  CHub& operator=(const CHub&) = delete;
  void CopyFrom(CHub& other);

  // Ends everything, for good, and waits for who is inside.
  void Close();
  CInside inside{tableLock};

  // The operations of CAudioHidCenter.
  void OpenDevice(void* callback, void* context);
  void CloseDevice();
  void Release();
  bool ThreadIsClosed();
  int GetEffectiveDevice() { return GetEffectiveDevice(MouseType_Unknown); }
  MouseType GetHidMouseType(int device);
  DataChannel GetDeviceConnectMode(int device);
  MouseMKeyType GetMKeyType_Key1(int device, int which);
  void GetValidHidList(std::vector<int>& numbers, std::vector<std::wstring>& names);
  bool GetSpeechCounts(int device, VoxSpeechCounts& counts);
  bool RecordDeviceIsHidDevice(const std::wstring& name);
  bool WorkHidIsWren();
  void GetMouseState(int device) { SendToReady(device, HidCommand::GetMouseState); }
  void GetDongleState(int device);
  void SetDpi(int device, short dpi);
  void SetDownloadURL(int device, unsigned char* url, int length);
  void getMKeyTypeList_Key1(int device);
  void getMKeyTypeList_Key2(int device);
  SetMKeyTypeStatus setMKeyType_Key1(int device, MouseMKeyType type);
  SetMKeyTypeStatus setMKeyType_Key2(int device, MouseMKeyType type);
  bool OpenHidRecord();
  bool CloseHidRecord();
  void StartOTA(int device, FwUpdateType type, const std::string& firstPath, const std::string& secondPath);
  VoxButtonState GetButtonState_Left();
  VoxButtonState GetButtonState_Right();
  VoxButtonState GetButtonState_Key1();
  VoxButtonState GetButtonState_Key2();
  bool LeftKeyDown_Up();
  bool Tern_IsShortPress_R();

  // Null when no live device has this number.
  std::shared_ptr<CDeviceReader> FindLive(int device);

  // What the readers hold.
  static void HidDeviceReaderCallback(int device, MouseType model, DataChannel link, CHidData& reply, void* hub);
  static void HidDeviceDisconnect(int device, void* hub);
  static void SpeechIsLost(int device, int missing, int late, void* hub);
  static void FwOtaResultCallback(int device, DataChannel link, FwUpdateState state, void* hub);
  void OnHidDeviceReaderCallback(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnHidDeviceDisconnect(int device);
  void OnFwOtaResultCallback(int device, DataChannel link, FwUpdateState state);

  Shared<bool> anyDeviceConnected{false};
  KzCheckDoubleClick DoubleClick;
  Shared<int> workDevice{-1};
  Shared<unsigned> hardening{VoxHardening_None};

 private:
  struct Detection;
  struct Decoders;
  static std::shared_ptr<Decoders> SharedDecoders();

  // Lifecycle.
  void OnThreadDeviceDetectionProc(Detection& detection);
  // Asks discovery and every reader to end, and waits until they have.
  void Stop(CDeadline deadline);
  template <class Call>
  void ForEachToEnd(Call call);
  template <class Call>
  void ForEachLeaving(Call call);
  bool Ends(const HidDeviceEntry& row) const;
  std::shared_ptr<Detection> AskDetections();
  void EndDetections(CDeadline deadline);
  void ForgetEndedDetections() REQUIRES(tableLock);
  void ReleaseBy(CDeadline deadline);
  void SendAppExit(CDeadline deadline);

  // The table.
  template <class Visit>
  void ForEachLive(int device, Visit visit) REQUIRES(tableLock);
  void LoseDevice(HidDeviceEntry& row) REQUIRES(tableLock);
  void Leave(const std::shared_ptr<CDeviceReader>& reader) REQUIRES(tableLock);
  template <class Call>
  void ForEachAddressed(int device, Call call);
  int GetEffectiveDevice(MouseType model);
  bool CheckDeviceConnect();

  // Commands.
  void SendToReady(int device, std::uint8_t command);
  void AppOpen(int device) { SendToReady(device, HidCommand::AppOpen); }

  // Models and discovery.
  void InitLegalPid_Vid();
  MouseType FindLegalId(const HidPathIdentity& identity) const;
  void OpenHidDevice(Detection& detection);
  bool OpenHidInterface(Detection& detection, const std::wstring& path);
  void ConnectReader(Detection& detection, MouseType model, HidConnection& connection);
  bool PathIsKnown(const std::string& path);
  void UpdateConnected();
  void ForgetDevices();
  void AddBadDevice(std::string path);

  // Replies.
  void OnProcDeviceConnectReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcVoiceOpenReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcVoiceStopReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcDpiReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcMouseStateReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcDongleStateReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcMouseSNReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcDevicePowerReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcDownloadUrlReply(int device, MouseType model, DataChannel link, CHidData& reply);
  void OnProcMouseKeyReply(int device, MouseType model, CHidData& reply);

  // Keys, by the sheet of the model. A device's come through the first; a Swift's are deliberately never decoded.
  void OnKeyReply(int device, const CHidData& reply, MouseType model);
  void OnKeyReply_Tern(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Tern); }
  void OnKeyReply_Wren(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Wren); }
  void OnKeyReply_Finch(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Finch); }
  void OnKeyReply_Robin(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Robin); }
  void OnKeyReply_Heron(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Heron); }
  void OnKeyReply_Egret(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Egret); }
  void OnKeyReply_Heron_Plus(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_HeronPlus); }
  void OnKeyReply_Swift(int device, CHidData& reply) { OnKeyReply(device, reply, MouseType_Swift); }
  void Act(KeyAction action, int device);
  bool AllKeyUp() const;
  void InitButtonState();
  // Tells of it when it changes.
  void SetButton(Button button, VoxButtonState state);
  void TellDoubleClick(int device);
  void LeftPress(int device);
  void LeftRelease(int device);
  void RightPress(int device);
  void RightRelease(int device);
  void Key1Release(int device);
  void SwiftKey1Press(int device);
  void TernDoubleClick(int device);
  void TernShortPressRight(int device);
  void TernI(int device);
  void TernZ(int device);
  void TernReleaseAll(int device);

  // Audio.
  struct AudioChunk;
  void OnProcAudioData_Tern(int device, CHidData& reply);
  void OnProcAudioData_Wren(int device, CHidData& reply);
  void ResetHidAudio();
  void AppendAudio(const unsigned char* data, int byteCount, AudioChunk& full);
  void TakeAudio(AudioChunk& chunk);
  void FlushHidAudio();
  void CopyAudioFrom(CHub& other);
  void UnloadAscDecoder();

  Atomic<bool> closed_{false};
  CLock tableLock;
  std::vector<HidDeviceEntry> devices GUARDED_BY(tableLock);
  // Of devices that are not in the table any more, as long as a thread of theirs runs.
  // Has room for those in the table, too: a device goes also without memory.
  std::vector<std::weak_ptr<CDeviceReader>> leaving_ GUARDED_BY(tableLock);
  std::shared_ptr<Detection> detections GUARDED_BY(tableLock);       // each holds the one before it
  std::shared_ptr<Detection> detectionThread GUARDED_BY(tableLock);  // the one started last
  Atomic<Detection*> passRunning{nullptr};                           // two take turns
  Shared<bool> stopDetection{false};
  Atomic<int> lastDeviceNumber{0};
  std::vector<LegalHidId> legalIds;
  // The process's decoders. Their lock also guards the staging buffer; it is never held while a callback runs.
  const std::shared_ptr<Decoders> decoders_;
  bool usesAsc_ = false;
  int audioBytes = 0;
  std::array<unsigned char, 5096> audioBuffer{};
  Shared<VoxButtonState> ButtonState_Left{ButtonUp};
  Shared<VoxButtonState> LastState_Left{ButtonUp};
  Shared<VoxButtonState> ButtonState_Right{ButtonUp};
  Shared<bool> ShortPress_R{false};
  Shared<VoxButtonState> ButtonState_Key1{ButtonUp};
  Shared<VoxButtonState> ButtonState_Key2{ButtonUp};
  // The device that last pressed the button; kept when it is released.
  Shared<int> ButtonHid_Left{-1};
  Shared<int> ButtonHid_Right{-1};
  Shared<int> ButtonHid_Key1{-1};
  Shared<int> ButtonHid_Key2{-1};
};
