// CVoxSpeakerRecord: records what the computer is playing.
#pragma once

#include <memory>

#include "VoxDevice/Api.h"

// Construct, Init, then StartRecord and StopRecord. 16 kHz, mono, signed 16-bit little-endian PCM, in blocks of at
// least 4096 bytes (128 ms). Only one object may record at a time: they share the fill count of their staging buffer.
//
// Threads: one client thread. The callback runs on the object's capture thread, the end mark on the thread that calls
// StopRecord. It must not call StopRecord, which waits for the capture thread.
class VOXDEVICE_API CVoxSpeakerRecord {
 public:
  // data: byteCount bytes of PCM, valid during the call. (null, 0) marks the end of a recording.
  using DataCallback = void (*)(const char* data, int byteCount, void* context);

  CVoxSpeakerRecord();
  // Does not stop a recording: StopRecord does. One that still runs is ended without an end mark.
  ~CVoxSpeakerRecord();
  // An assigned object shares the recording of the other.
  CVoxSpeakerRecord(const CVoxSpeakerRecord& other) = delete;
  CVoxSpeakerRecord& operator=(const CVoxSpeakerRecord& other);

  // dataCallback: a DataCallback. Before StartRecord.
  void Init(void* dataCallback, void* context);
  // Starts to record the default render endpoint: 1. 0 when that fails, or when it records already; the log says what
  // is wrong with a format. Only formats of floating-point samples, one or two channels and 16 kHz or more are
  // accepted.
  int StartRecord();
  // Stops, waits for the last block and marks the end: always 0.
  unsigned int StopRecord();

 private:
  struct Recording;
  std::shared_ptr<Recording> m_pRecording;
};
