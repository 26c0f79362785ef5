// CVoxRecord: records speech from the microphone of an older device, a USB audio device found by its name.
#pragma once

#include <memory>
#include <string>

#include "VoxDevice/Api.h"
#include "VoxDevice/Shared.h"
#include "VoxDevice/VoxCommon.h"

// Construct, Init, then StartRecord and StopRecord around each utterance. 16 kHz, mono, signed 16-bit little-endian
// PCM, in buffers of up to 4096 bytes (128 ms).
//
// Threads: Init, StartRecord, StopRecord, SetPen_MeetMode and the destructor belong to one client thread. The callback
// runs on the object's record thread, the last end mark of a recording on the thread that calls StopRecord. It must not
// call StopRecord, which waits for the record thread.
// The destructor is not virtual: delete an object as what it is.
class VOXDEVICE_API CVoxRecord : public CThread {
 public:
  // data: byteCount bytes of PCM, valid during the call. (null, 0) is an end mark; it may come up to three times for a
  // recording (when the last buffer is back, when the device has closed, from StopRecord), and also for a buffer that
  // the driver returned empty.
  using DataCallback = void (*)(const char* data, int byteCount, void* context);

  CVoxRecord();
  // Ends a recording that still runs, without an end mark.
  ~CVoxRecord();
  // Copies share the buffers and the device.
  CVoxRecord(const CVoxRecord& other);
  CVoxRecord& operator=(const CVoxRecord& other);

  // dataCallback: a DataCallback, or null.
  void Init(void* dataCallback, void* context);
  // Chooses a device, sets its input volume and starts recording: 1. 0 when that fails; log and tray say why.
  int StartRecord();
  // Stops: 0, or 7 (stopping or closing failed), 11 (resetting failed). Waits, without a limit, until the driver has
  // returned every buffer: with a driver that keeps one, or after the device refused a buffer in mid-recording, it does
  // not come back.
  unsigned int StopRecord();
  // Records, in laser-pen mode, the device with exactly this name. Forgotten when there is none.
  void SetPen_MeetMode(std::wstring deviceName);
  // The capture device that StartRecord would record now.
  struct Choice {
    int index = -1;           // wave-in index; -1: none
    std::wstring name;        // its product name
    std::wstring volumeName;  // the name by which its volume is set
    const char* rule = "no capture device is one of ours";
  };
  Choice ChooseDevice() const;
  // The index of the first capture device that belongs to an older device, -1 when there is none. Its name, or what is
  // missing, goes to CVoxDeviceInfo.
  static int VoxCheckSoundCard();

 protected:
  unsigned long ThreadProc() override;

 private:
  struct Capture;

  unsigned int FindDevice();
  unsigned int OpenDevice();
  unsigned int StartGetRecordData();
  unsigned int StopGetRecordData();
  void Uninitialize();
  void Deliver(const char* data, int byteCount);
  bool OnBuffer(std::intptr_t header);

  Shared<DataCallback> m_pfnData{nullptr};
  // The device, the buffers and their headers. The driver writes to them while the device is open, so they go with the
  // last copy of this object, after the device.
  std::shared_ptr<Capture> m_pCapture;
  Shared<int> m_nReturned{0};        // buffers that are back since recording stopped
  void* m_hAllReturned = nullptr;    // auto-reset event: all of them are
  Shared<bool> m_bRecording{false};  // whether a buffer that comes back is queued again
  int m_nDeviceId = -1;              // wave-in index
  Shared<void*> m_pContext{nullptr};
  bool m_bPenMeetMode = false;
  std::wstring m_strPenMeetDevice;
};
