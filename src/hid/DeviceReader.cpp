// The reader's threads: reading, heartbeat, announcement, sleep, removal.
#include "hid/DeviceReader.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "VoxDevice/VoxCommon.h"
#include "models/Models.h"
#include "support/LogLine.h"
#include "support/Memory.h"
#include "support/Probe.h"

namespace {

constexpr DWORD kHeartbeatPeriod = 1000;     // ms
constexpr DWORD kConnectStepPause = 100;     // ms
constexpr int kTernReportTime = 20;          // ms of speech: a packet of 320 samples at 16 kHz
constexpr int kWrenReportTime = 15;          // three frames of 80
constexpr int kHeartbeatsOfDeadHandle = 10;  // not taken in a row
constexpr int kHeartbeatsBeforeSleep = 3;    // unanswered ones; the next attempt declares the device asleep

}  // namespace

struct CDeviceReader::LogEntry {
  std::wstring text;
  LogEntry* next;
};

CDeviceReader::CDeviceReader()
    : otaSentEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      otaAnsweredEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      otaStopEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      stopped_(os::CreateEventW(nullptr, TRUE, FALSE, nullptr)),
      writeToken_(os::CreateEventW(nullptr, FALSE, TRUE, nullptr)),
      writePosted_(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

CDeviceReader::~CDeviceReader() {
  for (LogEntry* entry = logBuffers; entry;) delete std::exchange(entry, entry->next);
  for (HANDLE event : {otaSentEvent, otaAnsweredEvent, otaStopEvent, stopped_, writeToken_, writePosted_}) {
    if (event) os::CloseHandle(event);
  }
}

void CDeviceReader::Attach(const HidConnection& connection, std::shared_ptr<HidFile>& readFile,
                           std::shared_ptr<HidFile>& writeFile) {
  outputReport_.assign(static_cast<std::size_t>(connection.outputReportLength), 0);
  outputReportLength = connection.outputReportLength;
  inputReportLength = connection.inputReportLength;
  readFile_ = std::move(readFile);
  writeFile_ = std::move(writeFile);
  readHandle = readFile_->Handle();
  writeHandle = writeFile_->Handle();
  readFile_->SetDevice(connection.deviceNumber);
  writeFile_->SetDevice(connection.deviceNumber);
  channel = connection.channel;
  deviceNumber = connection.deviceNumber;
}

void CDeviceReader::Recall(const CReaderMemory& memory) noexcept {
  mKeyQuery = memory.mKeyQuery;
  mKeyType = memory.mKeyType;
  std::copy(memory.mKeyTypes.begin(), memory.mKeyTypes.end(), mKeyTypes.begin());
}

CReaderMemory CDeviceReader::Memory() const noexcept {
  CReaderMemory memory{.model = GetMouseType(), .mKeyQuery = mKeyQuery, .mKeyType = mKeyType};
  std::copy(mKeyTypes.begin(), mKeyTypes.end(), memory.mKeyTypes.begin());
  return memory;
}

bool CDeviceReader::Start() noexcept {
  for (HANDLE event : {otaSentEvent, otaAnsweredEvent, otaStopEvent, stopped_, writeToken_, writePosted_}) {
    if (event) continue;
    ShutDown();
    return false;
  }
  const auto run = [self = shared_from_this()](CWorker& thread, auto loop) {
    return thread.Start([self, loop] {
      loop(*self);
      return 0U;
    });
  };
  stopFlag = false;
  bool started = false;
  HadMemory([&] {
    started = run(writeThread, [file = writeFile_](CDeviceReader& self) { self.WriteLoop(file); }) &&
              run(readThread, [file = readFile_](CDeviceReader& self) { self.ReadLoop(*file); }) &&
              run(heartbeatThread, [](CDeviceReader& self) { self.HeartbeatLoop(); });
  });
  if (started) return true;
  End(CDeadline(CWorker::kPatience));
  ShutDown();
  return false;
}

void CDeviceReader::Ask() noexcept {
  stopFlag = true;
  hasStopped_ = true;
  os::SetEvent(stopped_);
  for (CWorker* thread : {&readThread, &heartbeatThread, &writeThread}) thread->Release();
  std::shared_ptr<CWorker> waiter;
  {
    const CAutoLock lock(otaLock_);
    waiter = otaWaiter_;
  }
  if (waiter) waiter->Release();
}

void CDeviceReader::End(CDeadline deadline) noexcept {
  Ask();
  for (CWorker* thread : {&readThread, &heartbeatThread, &writeThread}) thread->End(deadline);
  std::shared_ptr<CWorker> waiter;
  {
    const CAutoLock lock(otaLock_);
    waiter = otaWaiter_;
  }
  if (waiter) waiter->End(deadline);
}

void CDeviceReader::ShutDown() noexcept {
  CloseFiles(nullptr);
  ResetState();
}

// A handle in which a thread is stuck, or the calling thread still is, is closed when that thread lets go of it.
void CDeviceReader::CloseFiles(HANDLE writeHandleThen) noexcept {
  readHandle = nullptr;
  writeHandle = writeHandleThen;
  if (readThread.IsCurrent() || readThread.HasEnded()) readFile_->Close();
  if (writeThread.HasEnded()) writeFile_->Close();
}

void CDeviceReader::ReadLoop(HidFile& file) noexcept {
  const int number = deviceNumber;
  std::array<std::uint8_t, kMaxInputReportLength> buffer{};
  const int length = std::min(static_cast<int>(inputReportLength), kMaxInputReportLength);
  for (;;) {
    const HidFile::Read read = file.ReadReport({buffer.data(), static_cast<std::size_t>(length)});
    if (readThread.IsAsked()) return Probe<"reader: a read is cancelled">();
    if (!read.done) return OnUnplugged(number);
    if (read.count < static_cast<DWORD>(length)) Probe<"reader: a short read">();
    std::fill(buffer.begin() + std::min<DWORD>(read.count, kMaxInputReportLength), buffer.end(), std::uint8_t{0});
    if (CHidData reply; ParseReport({buffer.data(), static_cast<std::size_t>(length)}, channel, reply)) {
      OnReport(reply);
      if (IsWanted(number, reply)) readerCallback(number, GetMouseType(), channel, reply, callbackContext);
    }
    if (readThread.IsAsked()) return;
  }
}

bool CDeviceReader::IsWanted(int number, const CHidData& reply) noexcept {
  switch (reply.code) {
    case VoiceOpenReply:
    case VoiceStopReply:
      OnSpeechMissing(number, pace_.Restart());
      return true;
    case AudioDataTern:
    case AudioDataWren:
      break;
    default:
      return true;
  }
  speechReports_ = speechReports_ + 1;
  if (recordState != 0) {
    const auto found = pace_.Take(os::GetTickCount(), reply.code == AudioDataTern ? kTernReportTime : kWrenReportTime);
    speechLate_ = speechLate_ + static_cast<std::uint32_t>(found.late);
    lateNotTold_ += found.late;
    OnSpeechMissing(number, found.missing);
    return true;
  }
  speechUnasked_ = speechUnasked_ + 1;
  if ((hardening & VoxHardening_StaleSpeech) == 0) return true;
  if (!everOpened_ && !staleSpeechStopped_ && otaStage == OtaStage_Idle) {
    staleSpeechStopped_ = true;
    SendCommand(VoiceStop, channel);
  }
  return false;
}

void CDeviceReader::OnSpeechMissing(int number, int missing) noexcept {
  if (missing == 0) return;
  speechMissing_ = speechMissing_ + static_cast<std::uint32_t>(missing);
  speechLostCallback(number, missing, std::exchange(lateNotTold_, 0), callbackContext);
}

VoxSpeechCounts CDeviceReader::SpeechCounts() const noexcept {
  return {.reports = speechReports_, .late = speechLate_, .missing = speechMissing_, .unasked = speechUnasked_};
}

void CDeviceReader::OnUnplugged(int number) noexcept {
  stopFlag = true;
  readThread.Clear();
  // What the heartbeat thread is just telling the client comes first, and nothing of it comes after the device's end.
  const CDeadline patience(CWorker::kPatience);
  heartbeatThread.Release();
  writeThread.Ask();
  heartbeatThread.EndUnless(readThread, patience);
  writeThread.EndUnless(readThread, patience);
  CloseFiles(INVALID_HANDLE_VALUE);
  if (readThread.IsAsked()) return Probe<"reader: an unplug meets a stop">();
  disconnectCallback(number, callbackContext);
  LogDevice<64>(number, L"）拔出，把该设备从界面上移除", LogType_DeviceRemoved);
  VoxMessage::HidDisconnect(number);
}

void CDeviceReader::HeartbeatLoop() noexcept {
  const int number = deviceNumber;
  connectState = 0;
  missedHeartbeats = 0;
  while (!stopFlag && readThread.IsSet()) {
    if (connectState == 1 && !AnnounceConnection(number)) break;
    if (readThread.IsSet() && otaStage == 0) {
      if (missedHeartbeats >= kHeartbeatsBeforeSleep && connectState != 0) {
        LogDevice<64>(number, L"）休眠，把该设备从界面上移除", LogType_DeviceRemoved);
        connectState = 0;
        VoxMessage::HidDisconnect(number);
      }
      missedHeartbeats = missedHeartbeats + 1;
      OnHeartbeatSent(SendCommand(Heartbeat, channel));
    }
    if (!heartbeatThread.Sleep(kHeartbeatPeriod)) break;
  }
  ResetState();
}

// The failed read that follows is what a device that is pulled out leaves. A read that cannot be cancelled yet is
// cancelled after the next heartbeat.
void CDeviceReader::OnHeartbeatSent(bool taken) noexcept {
  heartbeatsNotTaken_ = taken || connectState != 0 ? 0 : heartbeatsNotTaken_ + 1;
  if (heartbeatsNotTaken_ < kHeartbeatsOfDeadHandle || (hardening & VoxHardening_DeadHandles) == 0) return;
  readThread.CancelCall();
}

bool CDeviceReader::AnnounceConnection(int number) noexcept {
  LogDevice<48>(number, L"）连接成功，发送到设备界面", LogType_DeviceConnected);
  VoxMessage::HidConnect(number);
  const std::pair<HidCommand, DataChannel> sequence[] = {
      {AppOpen, channel},
      {GetMouseState, channel},
      {GetDongleState, DataChannel_Receiver},  // always asked of the receiver, whatever the reader's link
  };
  for (const auto& [command, link] : sequence) {
    if (IsReady()) SendCommand(command, link);
    if (heartbeatThread.Sleep(kConnectStepPause)) continue;
    Probe<"reader: asked to end while it announces">();
    return false;
  }
  if (SheetOf(GetMouseType()).hasMKeys) RequestMKeyTypeList(CDeadline(kWritePatience));
  connectState = 2;
  return true;
}

void CDeviceReader::WriteLoop(const std::shared_ptr<HidFile>& file) noexcept {
  while (writeThread.Wait(writePosted_, INFINITE) == WAIT_OBJECT_0) {
    written_ = file->WriteReport({outputReport_.data(), outputLength_});
    if (outputStep_) OnOtaWritten(*outputStep_);
    os::SetEvent(writeToken_);
  }
  // Whoever has posted a report meanwhile gets the token back. Its step runs into its time-out all the same.
  writeThread.Clear();
  written_ = false;
  if (os::WaitForSingleObject(writePosted_, 0) == WAIT_OBJECT_0 && outputStep_) {
    Probe<"update: a request that is not written any more">();
    OnOtaWritten(*outputStep_);
  }
  os::SetEvent(writeToken_);
}

void CDeviceReader::OnReport(const CHidData& reply) noexcept {
  if (reply.reportId != kCommandReportId) return;
  const std::uint8_t* p = reply.data;
  switch (reply.code) {
    case HeartbeatReply:
      missedHeartbeats = 0;
      if (connectState == 0) {
        connectState = 1;
        StartIdentify();
      }
      break;
    case VoiceOpenReply:
      if (reply.Has(1)) recordState = p[0] == 0 ? 3 : 2;
      everOpened_ = true;
      break;
    case VoiceStopReply:
      recordState = 0;
      break;
    case DevicePowerReply:
      if (reply.Has(1)) powerLevel = p[0];
      break;
    case DpiReply:
      if (reply.Has(3)) dpi = BigEndian16(p);
      break;
    case OtaPrepareReply:
      OnOtaPrepareReply(reply);
      break;
    case OtaOpenReply:
      OnOtaOpenReply(reply);
      break;
    case OtaDataReply:
      OnOtaDataReply(reply);
      break;
    case OtaEndReply:
      OnOtaEndReply(reply);
      break;
    case OtaCompleteReply:
      OnOtaCompleteReply(reply);
      break;
    case MouseStateReply:
      if (reply.Has(11)) {
        stateWord = BigEndian16(p);
        dpi = BigEndian16(p + 2);
        powerLevel = p[4];
        std::copy_n(p + 5, deviceAddress.size(), deviceAddress.begin());
      }
      break;
    case DongleStateReply:
      if (reply.Has(3) || reply.Has(9)) dongleWord = BigEndian16(p);
      break;
    case DownloadUrlReply:
      if (reply.Has(1)) downloadUrlState = p[0] != 0 ? 1 : 2;
      break;
    case MKeyTypeReply:
      OnMKeyTypeReply(reply);
      break;
    default:
      if (const ModelSheet* named = FindByIdentifyReply(reply.code)) OnIdentifyReply(named->number, reply);
      break;
  }
}

void CDeviceReader::OnMKeyTypeReply(const CHidData& reply) noexcept {
  if (reply.length < 2) return;
  mKeyType = reply.data[0];
  if (mKeyQuery != 1) {
    mKeyQuery = 2;  // the answer to SetMKeyTypeKey1
    return;
  }
  // A list was asked for. mKeyQuery stays 1: a later answer that nobody asked for is taken as a list again.
  std::array<std::uint32_t, 8> types{};
  for (int i = 1; i < reply.length; ++i) types[reply.data[i] / 32] |= 1U << (reply.data[i] % 32);
  std::copy(types.begin(), types.end(), mKeyTypes.begin());
  const int kept = std::min(reply.length, static_cast<int>(mKeyList.size()));
  std::copy_n(reply.data, kept, mKeyList.begin());
  VoxMessage::MKeyTypeSet(deviceNumber, 1, mKeyList.data(), kept);
}

void CDeviceReader::ClearDeviceValues() noexcept {
  stateWord = 0;
  dongleWord = 0;
  recordState = 0;
  powerLevel = 0;
  dpi = 0;
  downloadUrlState = 0;
  const CAutoLock lock(otaLock_);
  otaTarget = DataChannel_Unknown;
  otaPlan = 0;
  otaStage = OtaStage_Idle;
  otaActive = false;
  image1Size = 0;
  image2Size = 0;
  image1.reset();
  image2.reset();
}

// The number first: an update either begins before its values are cleared, or not at all.
void CDeviceReader::ResetState() noexcept {
  deviceNumber = -1;
  inputReportLength = 0;
  outputReportLength = 0;
  ClearDeviceValues();
}

// Size: of the buffer that the line must fit, with its terminator.
template <std::size_t Size>
void CDeviceReader::LogDevice(int number, const wchar_t* what, int type) noexcept {
  // A line for which there is no memory is dropped.
  HadMemory([&] {
    std::wstring text = LogLine<Size>(SheetOf(GetMouseType()).name, L"（编号：", number, what).Text();
    Log(std::move(text), type);
  });
}

// Nothing is left on the stack: the receiver may be ended with the thread.
void CDeviceReader::Log(std::wstring text, int type) {
  auto* entry = new LogEntry{std::move(text), logBuffers};
  while (!logBuffers.compare_exchange_weak(entry->next, entry)) {
  }
  VoxMessage::Log(entry->text.c_str(), static_cast<LogType>(type));
}
