// CDeviceReader: the owner of one open HID device of a current model.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VoxDevice/Shared.h"
#include "VoxDevice/types.h"
#include "hid/HidFrame.h"
#include "platform/os.h"
#include "support/CLock.h"
#include "support/WorkerPool.h"
#include "support/WorkerThread.h"

// What the hub hands to a reader: a device it has opened and checked.
struct HidConnection {
  int deviceNumber = -1;
  HANDLE readHandle = nullptr;
  HANDLE writeHandle = nullptr;
  int inputReportLength = 0;   // bytes, with the report id
  int outputReportLength = 0;  // bytes, with the report id
  DataChannel channel = DataChannel_Unknown;
};

// How far the image that is being sent has come. The numbers are also the results of a step without an answer.
enum OtaStage : int {
  OtaStage_Idle = 0,
  OtaStage_Prepare = 1,
  OtaStage_Open = 3,
  OtaStage_Data = 5,
  OtaStage_Complete = 7,
  OtaStage_Abort = 9,
};

// The bytes of one firmware file; null when there is none.
using OtaImage = std::shared_ptr<const std::vector<std::uint8_t>>;

// One reader runs two threads. The read thread waits for input reports, reacts to those that concern the reader's own
// state and hands every report on. The heartbeat thread writes a heartbeat every second, announces the device when it
// answers, and declares it asleep when it stops answering.
//
// The hub reads the fields below from any thread; who writes each is said with it. A reader is used again for a device
// of the same model that is plugged in later: Attach, Start, and the threads end by themselves when the device goes.
class CDeviceReader {
 public:
  using ReaderCallback = void (*)(int device, MouseType model, DataChannel link, unsigned char* report, int length,
                                  void* context);
  using DisconnectCallback = void (*)(int device, void* context);
  using OtaCallback = void (*)(int device, DataChannel link, FwUpdateState state, void* context);

  CDeviceReader();
  // No thread outlives it.
  virtual ~CDeviceReader();
  CDeviceReader(const CDeviceReader&) = delete;
  CDeviceReader& operator=(const CDeviceReader&) = delete;

  virtual MouseType GetMouseType() const = 0;
  // The device has answered its first heartbeat, or the first one after it slept.
  virtual void StartIdentify() = 0;
  // index: the model that the device names, 2 to 8.
  virtual void OnIdentifyReply(int index, const CHidData& reply) = 0;
  virtual void RequestMKeyTypeList();
  virtual void RequestMKeyTypeList2() {}
  virtual void OtaNextImage() = 0;
  virtual void OnOtaPrepareReply(const CHidData& reply) = 0;
  virtual void OnOtaOpenReply(const CHidData& reply) = 0;
  virtual void OnOtaDataReply(const CHidData& reply) = 0;
  virtual void OnOtaEndReply(const CHidData& reply) = 0;
  virtual void OnOtaCompleteReply(const CHidData& reply) = 0;

  // ---- For the hub's discovery thread ----
  // True when no read thread is left, so that the reader can serve another device.
  bool IsIdle() const noexcept { return readThread.IsIdle(); }
  // Takes over an opened device. A heartbeat thread left from the device before is ended first, and only then are the
  // fields set, so that its last act cannot wipe them. False, with nothing taken over, when somebody is still writing
  // to the device before.
  bool Attach(const HidConnection& connection) noexcept;
  // Starts both threads.
  void Start() noexcept;

  // ---- For the hub's owner ----
  // Ends the read thread by force and tells the heartbeat thread to end. The handles stay open.
  void Stop() noexcept;
  // Ends every thread.
  void EndThreads() noexcept;
  // Ends every thread and closes the handles; on one of those threads itself, only lets it end.
  void ShutDown() noexcept;
  // True on one of this reader's own threads (a client callback).
  bool IsOwnThread() const noexcept;

  // ---- Any thread ----
  // The device is connected and its read thread runs.
  bool IsLive() const noexcept { return readThread.IsSet() && connectState != 0; }
  // Ready for a command: live, and no firmware update runs.
  bool IsReady() const noexcept { return IsLive() && otaStage == 0; }

  // Writes min(length, outputReportLength) bytes. The result tells whether the device took them; no sender looks at it.
  // Waits for the device as long as its driver does, and for another writer a second at most.
  bool WriteReport(const unsigned char* report, int length) noexcept;
  // Writes a command without payload, whatever the reader's readiness.
  void SendCommand(std::uint8_t command, DataChannel link) noexcept;
  // Writes one frame, padded with zeros to the output report length; one that does not fit is not sent.
  void SendFrame(std::uint8_t command, const std::uint8_t* payload, int length, DataChannel link) noexcept;
  // Handles what concerns the reader itself.
  void OnReport(std::span<const std::uint8_t> report) noexcept;

  // Opens the voice channel: true when the device confirms it within a second. Blocks meanwhile.
  bool OpenRecord() noexcept;
  // Closes the voice channel: true when it is closed, or is confirmed closed within a second. Blocks meanwhile.
  bool CloseRecord() noexcept;
  // dpi: dots per inch.
  void SetDpi(short dpi) noexcept;
  // Replaces the characters in the caller's buffer by usage codes and sends them. A character without a code, or a
  // URL that does not fit the device's output report, ends the operation with nothing sent.
  void SetDownloadUrl(unsigned char* url, int length) noexcept;
  // Blocks until the device confirms, 2.5 s at most.
  SetMKeyTypeStatus SetMKeyTypeKey1(MouseMKeyType type) noexcept;
  // Clears what is known of the device, its number and the report lengths.
  void ResetState() noexcept;

  // ---- Firmware update ----
  // Loads the files, starts a wait thread and the first image. Results go to `callback`: on the read thread for
  // answers, on the wait thread for time-outs, on this thread when there is nothing to send.
  void StartOta(int type, const std::string& firstPath, const std::string& secondPath, OtaCallback callback,
                void* context) noexcept;
  // type: an FwUpdateType; any other loads nothing. A file that cannot be read leaves its image empty.
  void LoadOtaImages(int type, const std::string& firstPath, const std::string& secondPath) noexcept;
  // False, with nothing changed, when there is no such file, or it is empty or longer than an int can say. Otherwise
  // `image` gets what could be read of it, `size` its length in bytes.
  static bool LoadImageFile(const std::string& path, OtaImage& image, int& size) noexcept;

  // What the flows of the variants are made of. A step of an update is taken by one answer or by one time-out,
  // whichever comes first; what the other still wants to do then is dropped.
  using OtaStep = unsigned;
  // Turns to the next image of the plan. Nothing when there is none.
  std::optional<OtaStep> SelectOtaImage() noexcept;
  // Takes the step that waits for an answer, for an answer of `length` bytes. Nothing when this is none.
  std::optional<OtaStep> TakeOtaAnswer(const CHidData& reply, int length) noexcept;
  // Goes on to the next image, unless another update has begun.
  void LeaveOtaImage(OtaStep step) noexcept;
  // Ends the update: stops the wait thread, releases the images, reports the end.
  void EndOta() noexcept;
  void ReportOta(int state, DataChannel target) noexcept;
  void ReportOta(int state) noexcept { ReportOta(state, otaTarget); }
  // Enters `stage`, sends the frame for the current target, and lets its time-out run.
  void SendOta(OtaStep step, OtaStage stage, std::uint8_t command, std::span<const std::uint8_t> payload = {}) noexcept;
  // Enters `stage` and lets its time-out run, with nothing sent.
  void AwaitOtaAnswer(OtaStep step, OtaStage stage) noexcept;
  // The device has refused: reports `state` and sends OtaAbort.
  void AbortOta(OtaStep step, FwUpdateState state) noexcept;
  void SignalOtaAnswered() noexcept { os::SetEvent(otaAnsweredEvent); }
  // The image for the current target, and its size as the client knows it, which that of an earlier file may be.
  struct OtaSource {
    OtaImage image;
    int size = 0;
    // The bytes from `offset` on, at most `count` of them, as far as they are there.
    std::span<const std::uint8_t> Bytes(std::int64_t offset, std::int64_t count) const noexcept;
  };
  OtaSource CurrentOtaImage() noexcept;

  CWorkerThread readThread;
  Shared<bool> stopFlag{false};
  CWorkerThread heartbeatThread;
  Shared<int> deviceNumber{-1};
  Shared<int> inputReportLength{0};
  Shared<int> outputReportLength{0};
  Shared<DataChannel> channel{DataChannel_Unknown};
  Shared<HANDLE> readHandle{nullptr};
  Shared<HANDLE> writeHandle{nullptr};  // INVALID_HANDLE_VALUE once the device has gone; null once the reader has
  CLock writeLock;                      // held for one report write at a time
  Shared<int> missedHeartbeats{0};      // heartbeats sent since the last answer
  Shared<int> connectState{0};          // 0 not connected, 1 has answered a heartbeat, 2 announced
  // Set by the hub before Start.
  void* callbackContext = nullptr;
  ReaderCallback readerCallback = nullptr;
  DisconnectCallback disconnectCallback = nullptr;
  // What the device has told; written by the read thread.
  Shared<int> stateWord{0};
  Shared<int> powerLevel{0};
  Shared<int> dpi{0};
  std::array<std::uint8_t, 6> deviceAddress{};
  Shared<int> dongleWord{0};
  Shared<int> recordState{0};       // voice: 0 closed, 1 open requested, 2 refused, 3 open
  Shared<int> downloadUrlState{0};  // 0 sent, 1 refused, 2 accepted
  Shared<int> mKeyQuery{0};         // 0 a set awaits its answer, 1 a list is outstanding, 2 a set has been answered
  Shared<int> mKeyType{0};
  std::array<Shared<std::uint32_t>, 8> mKeyTypes{};  // a set of bytes: bit n of word n / 32
  std::array<std::uint8_t, 100> mKeyList{};          // the last list answer, as far as it fits
  // ---- Firmware update (FirmwareUpdate.cpp) ----
  const HANDLE otaSentEvent;      // auto-reset, as the two below: a request went out, its time-out runs
  const HANDLE otaAnsweredEvent;  // an answer came
  const HANDLE otaStopEvent;      // the update is over
  // The wait thread started last. A second update that is started while one runs has a second one.
  std::atomic<CWorkerThread*> otaThread{nullptr};
  Shared<bool> otaActive{false};                       // an image is being sent
  Shared<DataChannel> otaTarget{DataChannel_Unknown};  // the channel it is framed for
  Shared<int> otaPlan{0};                              // images still to send: none, or an FwUpdateType
  Shared<int> otaStage{OtaStage_Idle};                 // an OtaStage
  // The files, under otaLock; taken by value, because another update may replace them while a step reads.
  OtaImage image1;
  OtaImage image2;
  Shared<int> image1Size{0};  // bytes; kept when an update ends
  Shared<int> image2Size{0};
  // The device that the update is for. Results name it even when it has gone and the reader has no number any more.
  Shared<int> otaDevice{-1};
  Shared<OtaCallback> otaCallback{nullptr};
  Shared<void*> otaContext{nullptr};

 private:
  struct LogEntry;

  static unsigned ReadThreadProc(void* reader);
  static unsigned HeartbeatThreadProc(void* reader);
  void ReadLoop() noexcept;
  void HeartbeatLoop() noexcept;
  // False when the thread is being ended.
  bool AnnounceConnection(int number) noexcept;
  bool SleepParked(DWORD milliseconds) noexcept;
  void OnMKeyTypeReply(const CHidData& reply) noexcept;
  void ClearDeviceValues() noexcept;
  // Takes writeLock for one write. False when the report cannot be written.
  bool LockForWriting() noexcept;
  // Closes both handles, the write handle under its lock. False when the lock could not be had in time.
  bool CloseHandles(DWORD patience) noexcept;
  template <std::size_t Size>
  void LogDevice(int number, const wchar_t* what, int type) noexcept;
  void Log(std::wstring text, int type) noexcept;
  void OtaWaitLoop(CWorkerThread& thread) noexcept;
  void OnOtaTimeOut(OtaStep step) noexcept;
  void NextOtaStep() noexcept;
  bool EnterOtaStage(OtaStep step, OtaStage stage) noexcept;
  void StartOtaWaiter() noexcept;

  CLock otaLock_;
  // Written under otaLock_.
  Shared<OtaStep> otaStep_{0};
  bool otaAwaits_ = false;  // a request of this step is out
  CWorkerPool otaThreads_;
  std::vector<std::uint8_t> outputReport_;  // under writeLock; as long as the device's output report
  // Every line this reader has logged: receivers may keep the text until the reader goes. Pushed from several threads.
  std::atomic<LogEntry*> logBuffers{nullptr};
};
