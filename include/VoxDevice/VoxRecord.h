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
// Threads: any thread may call anything at any time, also in a callback, and copy, assign or destroy the object while
// others are inside. The callback runs on the record thread, the last end mark of a recording on the thread that calls
// StopRecord; the library holds no lock meanwhile.
// The destructor is not virtual: delete an object as what it is.
class VOXDEVICE_API CVoxRecord : public CThread {
 public:
  // data: byteCount bytes of PCM, valid during the call. (null, 0) is an end mark; it may come up to three times for a
  // recording (when the last buffer is back, when the device has closed, from StopRecord), and also for a buffer that
  // the driver returned empty.
  using DataCallback = void (*)(const char* data, int byteCount, void* context);

  CVoxRecord();
  // Ends a recording that was started on this object, without an end mark. Returns within two seconds: a driver that
  // takes longer is left alone; a callback that takes longer is ended with its thread. In a callback of the recording
  // it returns at once, and nothing is called after that; in any other callback or message of the library's within a
  // tenth of a second, and a callback that takes longer is left to come back.
  ~CVoxRecord();
  // A copy shares the recording that runs: either may stop it. It ends with the object that started it. A recording of
  // the object that is assigned to ends as with the destructor, but that its callback is not ended by force.
  CVoxRecord(const CVoxRecord& other);
  CVoxRecord& operator=(const CVoxRecord& other);

  // dataCallback: a DataCallback, or null.
  void Init(void* dataCallback, void* context);
  // Chooses a device, sets its input volume and starts recording: 1. A recording that runs ends, without an end mark,
  // once a device is chosen. 0 when that fails (for want of memory, too), and log and tray say why; and when another
  // thread is just starting one on this object.
  int StartRecord();
  // Stops: 0, or 7 (stopping or closing failed), 11 (resetting failed); 0 when nothing records. Waits until every
  // buffer that the driver has is back and delivered: as long as the callbacks take, but three seconds at most for the
  // driver to give them back, or else 7. (A driver that does not return from the call that stops it keeps this as
  // long.) What could not be closed is closed, if possible, at the next start or with the object. When
  // this has returned, no callback runs for the recording, except where it has not waited for it:
  // - In a callback of the recording it waits for nothing; what the driver still has is not delivered.
  // - In a callback of another recording it waits three seconds at most, also for callbacks (7).
  // - When another thread is just stopping it, this waits for that, three seconds at most (7), and marks no end.
  // When the microphone is pulled out, nothing more is delivered, and stopping gives 7. After 7 or 11 the device may be
  // open still; it is closed by the next call, or with the object.
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
  struct Buffers;
  class Recording;
  struct Recorder;

  explicit CVoxRecord(std::shared_ptr<Recorder> original);  // a copy

  const std::shared_ptr<Recorder> m_pRecorder;
};
