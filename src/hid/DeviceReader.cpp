// The reader's threads: reading, heartbeat, announcement, sleep, removal.
#include "hid/DeviceReader.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "VoxDevice/AudioHidCenter.h"
#include "VoxDevice/VoxCommon.h"
#include "support/LogLine.h"

namespace {

constexpr DWORD kHeartbeatPeriod = 1000;   // ms
constexpr DWORD kConnectStepPause = 100;   // ms
constexpr int kHeartbeatsBeforeSleep = 3;  // unanswered ones; the next attempt declares the device asleep
constexpr DWORD kLastWritePatience = 100;  // ms; a writer that takes longer is stuck in a device that has gone

int BigEndian16(const std::uint8_t* bytes) { return bytes[0] * 256 + bytes[1]; }

}  // namespace

struct CDeviceReader::LogEntry {
  std::wstring text;
  LogEntry* next;
};

CDeviceReader::CDeviceReader()
    : otaSentEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      otaAnsweredEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)),
      otaStopEvent(os::CreateEventW(nullptr, FALSE, FALSE, nullptr)) {}

CDeviceReader::~CDeviceReader() {
  ShutDown();
  for (LogEntry* entry = logBuffers; entry;) delete std::exchange(entry, entry->next);
  for (HANDLE event : {otaSentEvent, otaAnsweredEvent, otaStopEvent}) os::CloseHandle(event);
}

bool CDeviceReader::Attach(const HidConnection& connection) noexcept {
  if (heartbeatThread.IsSet()) Log(L"强制关闭hid设备心跳包线程", LogType_DeviceRemoved);
  heartbeatThread.Terminate();
  if (!CloseHandles(kLastWritePatience)) return false;
  ClearDeviceValues();
  if (!writeLock.Lock(kLastWritePatience)) return false;
  outputReport_.assign(static_cast<std::size_t>(connection.outputReportLength), 0);
  outputReportLength = connection.outputReportLength;
  writeHandle = connection.writeHandle;
  writeLock.Unlock();
  deviceNumber = connection.deviceNumber;
  readHandle = connection.readHandle;
  inputReportLength = connection.inputReportLength;
  channel = connection.channel;
  return true;
}

void CDeviceReader::Start() noexcept {
  readThread.Start(&CDeviceReader::ReadThreadProc, this);
  stopFlag = false;
  heartbeatThread.Start(&CDeviceReader::HeartbeatThreadProc, this);
}

void CDeviceReader::Stop() noexcept {
  readThread.Terminate();
  stopFlag = true;
}

void CDeviceReader::EndThreads() noexcept {
  stopFlag = true;
  heartbeatThread.Terminate();
  readThread.Terminate();
  os::SetEvent(otaStopEvent);
  otaThreads_.EndAll();
}

bool CDeviceReader::IsOwnThread() const noexcept {
  return readThread.IsCurrent() || heartbeatThread.IsCurrent() || otaThreads_.IsCurrent();
}

void CDeviceReader::ShutDown() noexcept {
  EndThreads();
  if (IsOwnThread()) return;  // the owner keeps the reader until this thread is gone
  CloseHandles(INFINITE);
  writeHandle = nullptr;
  ResetState();
}

bool CDeviceReader::CloseHandles(DWORD patience) noexcept {
  if (HANDLE file = readHandle.exchange(nullptr)) os::CloseHandle(file);
  const HANDLE current = writeHandle;
  if (!current || current == INVALID_HANDLE_VALUE) return true;
  if (!writeLock.Lock(patience)) return false;
  const HANDLE file = writeHandle.exchange(INVALID_HANDLE_VALUE);
  if (file && file != INVALID_HANDLE_VALUE) os::CloseHandle(file);
  writeLock.Unlock();
  return true;
}

unsigned CDeviceReader::ReadThreadProc(void* reader) {
  auto* self = static_cast<CDeviceReader*>(reader);
  if (self->readThread.Begin()) self->ReadLoop();
  return 0;
}

void CDeviceReader::ReadLoop() noexcept {
  // Its own copy: the number in the field may be that of the next device before this thread is through.
  const int number = deviceNumber;
  std::array<std::uint8_t, kMaxInputReportLength> buffer{};
  while (const HANDLE file = readHandle) {
    const int length = std::min(static_cast<int>(inputReportLength), kMaxInputReportLength);
    DWORD count = 0;
    BOOL read = FALSE;
    const bool mine =
        readThread.Park([&] { read = os::ReadFile(file, buffer.data(), static_cast<DWORD>(length), &count, nullptr); });
    if (!mine) return;
    if (!read) break;
    std::fill(buffer.begin() + std::min<DWORD>(count, kMaxInputReportLength), buffer.end(), std::uint8_t{0});
    OnReport({buffer.data(), static_cast<std::size_t>(length)});
    readerCallback(number, GetMouseType(), channel, buffer.data(), length, callbackContext);
  }

  CloseHandles(kLastWritePatience);
  stopFlag = true;
  readThread.Clear();
  disconnectCallback(number, callbackContext);
  LogDevice<64>(number, L"）拔出，把该设备从界面上移除", LogType_DeviceRemoved);
  VoxMessage::HidDisconnect(number);
}

unsigned CDeviceReader::HeartbeatThreadProc(void* reader) {
  auto* self = static_cast<CDeviceReader*>(reader);
  if (self->heartbeatThread.Begin()) self->HeartbeatLoop();
  return 0;
}

void CDeviceReader::HeartbeatLoop() noexcept {
  const int number = deviceNumber;
  connectState = 0;
  missedHeartbeats = 0;
  while (!stopFlag && readThread.IsSet()) {
    if (connectState == 1 && !AnnounceConnection(number)) return;
    if (readThread.IsSet() && otaStage == 0) {
      if (missedHeartbeats >= kHeartbeatsBeforeSleep && connectState != 0) {
        LogDevice<64>(number, L"）休眠，把该设备从界面上移除", LogType_DeviceRemoved);
        connectState = 0;
        VoxMessage::HidDisconnect(number);
      }
      missedHeartbeats = missedHeartbeats + 1;
      SendCommand(Heartbeat, channel);
    }
    if (!SleepParked(kHeartbeatPeriod)) return;
  }
  ResetState();
  heartbeatThread.Clear();
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
    if (!SleepParked(kConnectStepPause)) return false;
  }
  if (GetMouseType() == MouseType_Swift) RequestMKeyTypeList();
  connectState = 2;
  return true;
}

bool CDeviceReader::SleepParked(DWORD milliseconds) noexcept {
  return heartbeatThread.Park([=] { os::Sleep(milliseconds); });
}

void CDeviceReader::OnReport(std::span<const std::uint8_t> report) noexcept {
  CHidData reply;
  if (!ParseReport(report, channel, reply) || reply.reportId != kCommandReportId) return;
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
      if (reply.code >= IdentifyReplyFirst && reply.code <= IdentifyReplyLast) {
        OnIdentifyReply(reply.code - kIdentifyReplyBase, reply);
      }
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
  otaTarget = DataChannel_Unknown;
  otaPlan = 0;
  otaStage = 0;
  otaActive = false;
  image1Size = 0;
  image2Size = 0;
  const CAutoLock lock(otaLock_);
  image1.reset();
  image2.reset();
}

void CDeviceReader::ResetState() noexcept {
  ClearDeviceValues();
  deviceNumber = -1;
  inputReportLength = 0;
  outputReportLength = 0;
}

// Size: of the buffer that the line must fit, with its terminator.
template <std::size_t Size>
void CDeviceReader::LogDevice(int number, const wchar_t* what, int type) noexcept {
  const std::wstring name = CAudioHidCenter::GetHidName(GetMouseType());
  Log(LogLine<Size>(name, L"（编号：", number, what).Text(), type);
}

void CDeviceReader::Log(std::wstring text, int type) noexcept {
  auto* entry = new LogEntry{std::move(text), logBuffers};
  while (!logBuffers.compare_exchange_weak(entry->next, entry)) {
  }
  VoxMessage::Log(entry->text.c_str(), static_cast<LogType>(type));
}
