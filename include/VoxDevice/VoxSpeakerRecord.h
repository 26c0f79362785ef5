// CVoxSpeakerRecord: records what the computer is playing.
#pragma once

#include <memory>

#include "VoxDevice/Api.h"

// Construct, Init, then StartRecord and StopRecord. 16 kHz, mono, signed 16-bit little-endian PCM, in blocks of at
// least 4096 bytes (128 ms). Only one object should record at a time: they share the fill count of their staging
// buffers, so two that do spoil each other's blocks.
//
// Threads: any thread may call anything at any time, also in a callback, and assign or destroy the object while others
// are inside. The callback runs on the capture thread, the end mark on the thread that calls StopRecord; the library
// holds no lock meanwhile.
class VOXDEVICE_API CVoxSpeakerRecord {
 public:
  // data: byteCount bytes of PCM, valid during the call. (null, 0) marks the end of a recording.
  using DataCallback = void (*)(const char* data, int byteCount, void* context);

  CVoxSpeakerRecord();
  // Ends a recording that was started on this object, without its last block and an end mark. Returns within two
  // seconds: an engine that takes longer is left alone; a callback that takes longer is ended with its thread. In a
  // callback of the recording it returns at once, and nothing is called after that; in any other callback or message of
  // the library's within 0.1 s, and a callback that takes longer is left to come back.
  ~CVoxSpeakerRecord();
  // An assigned object shares the recording of the other: either may stop it. It ends with the object that started it.
  // A recording of the object that is assigned to ends as with the destructor, but that its callback is not ended by
  // force.
  CVoxSpeakerRecord(const CVoxSpeakerRecord& other) = delete;
  CVoxSpeakerRecord& operator=(const CVoxSpeakerRecord& other);

  // dataCallback: a DataCallback, or null.
  void Init(void* dataCallback, void* context);
  // Starts to record the default render endpoint: 1. 0 when that fails (for want of memory, too), when it records
  // already, and when another thread is just starting or stopping it; the log says what is wrong with a format. Only
  // formats of floating-point samples, one or two channels and 16 kHz or more are accepted. After the engine has failed
  // in mid-recording it starts anew, without an end mark for what has failed. When the speaker is pulled out, nothing
  // more is delivered; stop, and start again for the one that has taken its place. The calling thread gets the system's
  // precedence for capturing: until the recording is over and it calls something of the object again, or ends itself.
  int StartRecord();
  // Stops, waits for the last block and marks the end: always 0. Waits as long as the callbacks take, but three seconds
  // at most for the engine. When this has returned, no callback runs for the recording, except where it has not waited
  // for it:
  // - In a callback of the recording it waits for nothing, and nothing more is delivered.
  // - In a callback of another recording it waits three seconds at most, also for callbacks.
  // - When another thread is just stopping it, this waits for that, three seconds at most, and marks no end.
  unsigned int StopRecord();

 private:
  class Recording;
  struct Recorder;
  const std::shared_ptr<Recorder> m_pRecorder;
};
