// CDeviceReader: the owner of one open HID device of a current model.
#pragma once

#include <array>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "VoxDevice/Hardening.h"
#include "VoxDevice/Shared.h"
#include "VoxDevice/types.h"
#include "audio/SpeechPace.h"
#include "hid/HidFrame.h"
#include "platform/os.h"
#include "support/CLock.h"
#include "support/Deadline.h"
#include "support/HidFile.h"
#include "support/Worker.h"

// What the hub hands to a reader: a device it has opened and checked.
struct HidConnection {
  int deviceNumber = -1;
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

// What is kept of a device that has gone, for the next one of its model that takes its row.
struct CReaderMemory {
  MouseType model = MouseType_Unknown;
  int mKeyQuery = 0;
  int mKeyType = 0;
  std::array<std::uint32_t, 8> mKeyTypes{};
};

// One reader serves one device, from its opening until it goes or the hub is released, and runs three threads. The read
// thread waits for input reports, reacts to those that concern the reader's own state and hands every report on. The
// heartbeat thread writes a heartbeat every second, announces the device when it answers, and declares it asleep when
// it stops answering. The write thread alone is ever inside the driver with a report: whoever sends one hands it over
// and waits for it a bounded time, so that a driver that does not come back keeps nobody else.
//
// Whoever is inside a reader (a thread of its own, an operation of the client's) holds a reference to it, and the last
// one out frees it and what it has open.
//
// The hub reads the fields below from any thread; who writes each is said with it.
class CDeviceReader : public std::enable_shared_from_this<CDeviceReader> {
 public:
  using ReaderCallback = void (*)(int device, MouseType model, DataChannel link, CHidData& reply, void* context);
  using DisconnectCallback = void (*)(int device, void* context);
  using SpeechLostCallback = void (*)(int device, int missing, int late, void* context);
  using OtaCallback = void (*)(int device, DataChannel link, FwUpdateState state, void* context);

  CDeviceReader();
  virtual ~CDeviceReader();
  CDeviceReader(const CDeviceReader&) = delete;
  CDeviceReader& operator=(const CDeviceReader&) = delete;

  virtual MouseType GetMouseType() const = 0;
  // The device has answered its first heartbeat, or the first one after it slept.
  virtual void StartIdentify() = 0;
  // index: the model that the device names.
  virtual void OnIdentifyReply(int index, const CHidData& reply) = 0;
  virtual void RequestMKeyTypeList(CDeadline deadline);
  virtual void RequestMKeyTypeList2() {}
  // Turns from this step of an update to the first message of its next image.
  virtual void OtaNextImage(unsigned step) = 0;
  virtual void OnOtaPrepareReply(const CHidData& reply) = 0;
  virtual void OnOtaOpenReply(const CHidData& reply) = 0;
  virtual void OnOtaDataReply(const CHidData& reply) = 0;
  virtual void OnOtaEndReply(const CHidData& reply) = 0;
  virtual void OnOtaCompleteReply(const CHidData& reply) = 0;

  // ---- For the hub ----
  // Takes over an opened device: as its last step, its files. Once, before Start.
  void Attach(const HidConnection& connection, std::shared_ptr<HidFile>& readFile, std::shared_ptr<HidFile>& writeFile);
  // What an earlier reader of the row has left.
  void Recall(const CReaderMemory& memory) noexcept;
  CReaderMemory Memory() const noexcept;
  // Starts the threads. False, with none left, when one cannot be started. The reader must be owned by a shared_ptr.
  bool Start() noexcept;
  // Asks every thread to end, and every operation to return; does not wait. The client is told nothing more.
  void Ask() noexcept;
  // Asks, and waits until every thread is gone, but for the calling one. The handles stay open.
  void End(CDeadline deadline) noexcept;
  // After End: closes the handles, but for those in which a thread is stuck, and forgets the device.
  void ShutDown() noexcept;

  // ---- Any thread ----
  // The device is connected and its read thread runs.
  bool IsLive() const noexcept { return readThread.IsSet() && connectState != 0; }
  // Ready for a command: live, and no firmware update runs.
  bool IsReady() const noexcept { return IsLive() && otaStage == 0; }

  // How long an operation waits for the device to take what it sends, other reports before it included.
  static constexpr DWORD kWritePatience = 1000;  // ms
  // Writes min(length, outputReportLength) bytes. The result tells whether the device has taken them; no sender looks
  // at it. At the deadline it returns in any case: a report that is being written goes on its way, one that still waits
  // for another is dropped.
  bool WriteReport(const unsigned char* report, int length, CDeadline deadline) noexcept;
  bool WriteReport(const unsigned char* report, int length) noexcept {
    return WriteReport(report, length, CDeadline(kWritePatience));
  }
  // Writes a command without payload, whatever the reader's readiness. False when the device has not taken it.
  bool SendCommand(std::uint8_t command, DataChannel link, CDeadline deadline) noexcept;
  bool SendCommand(std::uint8_t command, DataChannel link) noexcept {
    return SendCommand(command, link, CDeadline(kWritePatience));
  }
  // Writes one frame, padded with zeros to the output report length; one that does not fit is not sent.
  bool SendFrame(std::uint8_t command, const std::uint8_t* payload, int length, DataChannel link,
                 CDeadline deadline) noexcept;
  // Handles what concerns the reader itself.
  void OnReport(const CHidData& reply) noexcept;

  // deadline: of what is sent. Each of these that waits for an answer returns its not-ready result when the reader is
  // stopped meanwhile.
  // Opens the voice channel: true when the device confirms it within a second. Blocks meanwhile.
  bool OpenRecord(CDeadline deadline) noexcept;
  // Closes the voice channel: true when it is closed, or is confirmed closed within a second. Blocks meanwhile.
  bool CloseRecord(CDeadline deadline) noexcept;
  // dpi: dots per inch.
  void SetDpi(short dpi, CDeadline deadline) noexcept;
  // Replaces the characters in the caller's buffer by usage codes and sends them. A character without a code, or a
  // URL that does not fit the device's output report, ends the operation with nothing sent.
  void SetDownloadUrl(unsigned char* url, int length, CDeadline deadline) noexcept;
  // Blocks until the device confirms, 2.5 s at most.
  SetMKeyTypeStatus SetMKeyTypeKey1(MouseMKeyType type, CDeadline deadline) noexcept;
  VoxSpeechCounts SpeechCounts() const noexcept;
  // Clears what is known of the device, its number and the report lengths.
  void ResetState() noexcept;

  // ---- Firmware update ----
  // Loads the files, and starts the first image. Results go to `callback`: on the read thread for answers, on the wait
  // thread for time-outs, on this thread when there is nothing to send. While another update runs, this one takes its
  // place: its images, its plan and its results from then on. Nothing happens when the device has gone. device: the
  // number that results name, even when it goes meanwhile. context: kept until the reader goes.
  void StartOta(int device, int type, const std::string& firstPath, const std::string& secondPath, OtaCallback callback,
                const std::shared_ptr<void>& context) noexcept;
  // False, with nothing changed, when there is no such file, or it is empty or longer than an int can say. Otherwise
  // `image` gets what could be read of it, `size` its length in bytes.
  static bool LoadImageFile(const std::string& path, OtaImage& image, int& size);

  // What the flows of the variants are made of. Whoever acts for an update holds the number of its present step, and
  // the number is taken on by one only: by one answer or one time-out, whichever comes first, or by the start of
  // another update. What any other still wants to do then is dropped.
  using OtaStep = unsigned;
  // Turns from `step` to the next image of the plan. When there is none, ends the update. Nothing in either case but
  // the first, and when the step is over.
  std::optional<OtaStep> SelectOtaImage(OtaStep step) noexcept;
  // Takes the step that waits for an answer, for an answer of `length` bytes. Nothing when this is none.
  std::optional<OtaStep> TakeOtaAnswer(const CHidData& reply, int length) noexcept;
  // Whether this is still the present step.
  bool IsOtaStep(OtaStep step) noexcept;
  // Results of the update to which `step` belongs; nothing when that is no longer the present one.
  void ReportOta(OtaStep step, int state) noexcept;
  void ReportOtaProgress(OtaStep step, int done, int total) noexcept;
  // Enters `stage`, sends the frame for the current target, and lets its time-out run from then on.
  void SendOta(OtaStep step, OtaStage stage, std::uint8_t command, std::span<const std::uint8_t> payload = {}) noexcept;
  // Sends a command over the reader's own channel after which nothing is awaited; nothing when the step is over.
  void SendOtaLast(OtaStep step, std::uint8_t command) noexcept;
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

  CWorker readThread;
  Shared<bool> stopFlag{false};
  CWorker heartbeatThread;
  CWorker writeThread;
  Shared<int> deviceNumber{-1};
  Shared<int> inputReportLength{0};
  Shared<int> outputReportLength{0};
  Shared<DataChannel> channel{DataChannel_Unknown};
  Shared<HANDLE> readHandle{nullptr};
  Shared<HANDLE> writeHandle{nullptr};  // INVALID_HANDLE_VALUE once the device has gone; null once the reader has
  CLock writeLock;                      // held while one report is handed over and awaited
  Shared<int> missedHeartbeats{0};      // heartbeats sent since the last answer
  Shared<int> connectState{0};          // 0 not connected, 1 has answered a heartbeat, 2 announced
  // Set by the hub before Start.
  std::shared_ptr<void> owner;  // keeps the context alive
  void* callbackContext = nullptr;
  ReaderCallback readerCallback = nullptr;
  DisconnectCallback disconnectCallback = nullptr;
  SpeechLostCallback speechLostCallback = nullptr;
  unsigned hardening = VoxHardening_None;
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
  Shared<bool> otaActive{false};  // an image is being sent
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

  void ReadLoop(HidFile& file) noexcept;
  void HeartbeatLoop() noexcept;
  void WriteLoop(const std::shared_ptr<HidFile>& file) noexcept;
  // False when the thread is asked to end.
  bool AnnounceConnection(int number) noexcept;
  void OnUnplugged(int number) noexcept;
  // Counts, and leaves out what nobody wants. False then.
  bool IsWanted(int number, const CHidData& reply) noexcept;
  void OnSpeechMissing(int number, int missing) noexcept;
  // A heartbeat of a device that is not connected has been taken, or not.
  void OnHeartbeatSent(bool taken) noexcept;
  void OnMKeyTypeReply(const CHidData& reply) noexcept;
  void ClearDeviceValues() noexcept;
  // Takes writeLock. False when the report cannot be written.
  bool LockForWriting(CDeadline deadline) noexcept TRY_ACQUIRE(true, writeLock);
  // Hands a report over, `length` bytes long and filled up with zeros, and waits for it. step: of the update that
  // awaits an answer to it. False when it could not be handed over.
  bool HandOver(std::span<const std::uint8_t> bytes, std::size_t length, std::optional<OtaStep> step,
                CDeadline deadline) noexcept REQUIRES(writeLock);
  // True when `event` has come; false at once when the reader is stopped, or the calling thread is asked to end.
  bool AwaitUnlessStopped(HANDLE event, DWORD milliseconds) const noexcept;
  // step: of the update that it belongs to. awaited: whether its time-out runs from then on.
  bool Send(std::uint8_t command, const std::uint8_t* payload, int length, DataChannel link,
            std::optional<OtaStep> step, bool awaited, CDeadline deadline) noexcept;  // false: not taken
  // Polls `condition` every `period` ms. False when the reader is stopped meanwhile.
  template <class Condition>
  bool PollWhile(Condition condition, DWORD period, CDeadline deadline) const noexcept;
  void CloseFiles(HANDLE writeHandleThen) noexcept;
  template <std::size_t Size>
  void LogDevice(int number, const wchar_t* what, int type) noexcept;
  void Log(std::wstring text, int type);
  void StartOtaWaiter() noexcept REQUIRES(otaLock_);
  void OtaWaitLoop(const CWorker& thread) noexcept;
  void OnOtaTimeOut(OtaStep step) noexcept;
  void OnOtaWritten(OtaStep step) noexcept;
  bool EnterOtaStage(OtaStep step, OtaStage stage) noexcept;
  // Steps are counted on, across the wrap.
  void NextOtaStep() noexcept REQUIRES(otaLock_);
  // An update that is stopped is dropped without a result.
  bool IsOfThisUpdate(OtaStep step) const noexcept REQUIRES(otaLock_) {
    return !hasStopped_ && static_cast<int>(step - otaFirstStep_) >= 0;
  }

  // Speech, on the read thread.
  CSpeechPace pace_;
  Shared<std::uint32_t> speechReports_{0};
  Shared<std::uint32_t> speechLate_{0};
  Shared<std::uint32_t> speechMissing_{0};
  Shared<std::uint32_t> speechUnasked_{0};
  int lateNotTold_ = 0;
  bool staleSpeechStopped_ = false;  // VoiceStop has been sent
  Shared<bool> everOpened_{false};   // somebody has opened the voice channel since this reader began
  int heartbeatsNotTaken_ = 0;       // in a row, while not connected; on the heartbeat thread

  const HANDLE stopped_;  // manual-reset event: the hub has stopped the reader
  Atomic<bool> hasStopped_{false};
  std::shared_ptr<HidFile> readFile_;
  std::shared_ptr<HidFile> writeFile_;
  // The report on its way. The token is an auto-reset event: whoever has taken it may fill the slot below and post it,
  // and the write thread sets it again when the report is written.
  const HANDLE writeToken_;
  const HANDLE writePosted_;
  std::vector<std::uint8_t> outputReport_;  // as long as the device's output report
  std::size_t outputLength_ = 0;
  std::optional<OtaStep> outputStep_;
  Shared<bool> written_{false};  // whether the device took the last one
  // Under otaLock_: the step, and all that the flows decide by it.
  CLock otaLock_;
  Shared<OtaStep> otaStep_{0};
  OtaStep otaFirstStep_ GUARDED_BY(otaLock_) = 0;  // of the present update
  bool otaRuns_ GUARDED_BY(otaLock_) = false;
  bool otaWaits_ GUARDED_BY(otaLock_) = false;     // the wait thread is there and will look at the fields again
  bool otaAwaits_ GUARDED_BY(otaLock_) = false;    // a request of this step is out
  CDeadline otaAnswerBy_ GUARDED_BY(otaLock_){0};  // when its time-out comes
  std::list<std::shared_ptr<void>> otaContexts_ GUARDED_BY(otaLock_);  // of all updates so far
  // The wait thread; ends by itself when no update runs any more.
  std::shared_ptr<CWorker> otaWaiter_ GUARDED_BY(otaLock_);
  // Every line this reader has logged: receivers may keep the text until the reader goes. Pushed from several threads.
  Atomic<LogEntry*> logBuffers{nullptr};
};
