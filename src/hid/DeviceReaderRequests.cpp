// What a reader writes: reports, commands, and the requests that wait for an answer.
#include <algorithm>

#include "hid/DeviceReader.h"
#include "support/Probe.h"

namespace {

constexpr DWORD kVoicePollPeriod = 10;  // ms
constexpr DWORD kVoicePatience = 1000;  // ms
constexpr DWORD kMKeyPollPeriod = 50;   // ms
constexpr DWORD kMKeyPatience = 2500;   // ms

}  // namespace

bool CDeviceReader::LockForWriting(CDeadline deadline) noexcept NO_THREAD_SAFETY_ANALYSIS {
  if (!writeLock.Lock(deadline.Left())) return false;
  if (writeHandle) return true;
  // Deliberate: without a write handle the lock stays with this thread. Only ShutDown clears the handle, and a reader
  // that has been shut down must not be written to again; the thread gives the lock up when it ends, by force, too.
  CHeldLock::End();
  return false;
}

bool CDeviceReader::AwaitUnlessStopped(HANDLE event, DWORD milliseconds) const noexcept {
  std::array<HANDLE, 3> handles{};
  DWORD count = 0;
  for (HANDLE handle : {event, stopped_, CWorker::CurrentStopEvent()}) {
    if (handle) handles[count++] = handle;
  }
  return os::WaitForMultipleObjects(count, handles.data(), FALSE, milliseconds) == WAIT_OBJECT_0;
}

bool CDeviceReader::HandOver(std::span<const std::uint8_t> bytes, std::size_t length, std::optional<OtaStep> step,
                             CDeadline deadline) noexcept {
  // Not had in time: the report before it is stuck in the driver. Not running: nobody writes any more.
  if (!writeThread.IsSet() || !AwaitUnlessStopped(writeToken_, deadline.Left())) {
    Probe<"reader: a report cannot be handed over">();
    return false;
  }
  std::fill(std::copy(bytes.begin(), bytes.end(), outputReport_.begin()), outputReport_.end(), std::uint8_t{0});
  outputLength_ = length;
  outputStep_ = step;
  os::SetEvent(writePosted_);
  if (AwaitUnlessStopped(writeToken_, deadline.Left())) os::SetEvent(writeToken_);
  return writeThread.IsSet();  // otherwise it may not have seen the report any more
}

bool CDeviceReader::WriteReport(const unsigned char* report, int length, CDeadline deadline) noexcept {
  if (!report || length <= 0 || !LockForWriting(deadline)) return false;
  written_ = false;
  const std::size_t most = std::min(outputReport_.size(), static_cast<std::size_t>(outputReportLength));
  const std::size_t count = std::min(static_cast<std::size_t>(length), most);
  HandOver({report, count}, count, std::nullopt, deadline);
  const bool written = written_;
  writeLock.Unlock();
  return written;
}

bool CDeviceReader::Send(std::uint8_t command, const std::uint8_t* payload, int length, DataChannel link,
                         std::optional<OtaStep> step, bool awaited, CDeadline deadline) noexcept {
  std::array<std::uint8_t, kMaxFrame> frame;
  const std::size_t size = BuildFrame(command, payload, length, link, frame);
  bool sent = false;
  bool taken = false;
  if (size > 0 && LockForWriting(deadline)) {
    // An update that another one has replaced meanwhile sends nothing after it.
    if (size <= outputReport_.size() && (!step || IsOtaStep(*step))) {
      written_ = false;
      sent = HandOver(std::span(frame).first(size), outputReport_.size(), awaited ? step : std::nullopt, deadline);
      taken = written_;
    }
    writeLock.Unlock();
  }
  // A step whose request could not be sent runs into its time-out all the same.
  if (awaited && !sent) OnOtaWritten(*step);
  return taken;
}

bool CDeviceReader::SendFrame(std::uint8_t command, const std::uint8_t* payload, int length, DataChannel link,
                              CDeadline deadline) noexcept {
  return Send(command, payload, length, link, std::nullopt, false, deadline);
}

bool CDeviceReader::SendCommand(std::uint8_t command, DataChannel link, CDeadline deadline) noexcept {
  return SendFrame(command, nullptr, 0, link, deadline);
}

template <class Condition>
bool CDeviceReader::PollWhile(Condition condition, DWORD period, CDeadline deadline) const noexcept {
  while (condition() && !deadline.HasPassed()) {
    AwaitUnlessStopped(nullptr, deadline.Left(period));
    if (hasStopped_ || CWorker::CurrentIsAsked()) return false;
  }
  return true;
}

bool CDeviceReader::OpenRecord(CDeadline deadline) noexcept {
  if (!IsReady()) return false;
  recordState = 1;
  everOpened_ = true;
  SendCommand(VoiceOpen, channel, deadline);
  return PollWhile([this] { return recordState == 1; }, kVoicePollPeriod, CDeadline(kVoicePatience)) &&
         recordState == 3;
}

bool CDeviceReader::CloseRecord(CDeadline deadline) noexcept {
  if (!IsReady() || recordState == 0) return true;
  SendCommand(VoiceStop, channel, deadline);
  return !PollWhile([this] { return recordState != 0; }, kVoicePollPeriod, CDeadline(kVoicePatience)) ||
         recordState == 0;
}

void CDeviceReader::SetDpi(short value, CDeadline deadline) noexcept {
  if (!IsReady()) return;
  const std::uint8_t payload[] = {static_cast<std::uint8_t>(value / 256), static_cast<std::uint8_t>(value % 256)};
  SendFrame(HidCommand::SetDpi, payload, 2, channel, deadline);
}

void CDeviceReader::SetDownloadUrl(unsigned char* url, int length, CDeadline deadline) noexcept {
  if (!IsReady()) return;
  for (int i = 0; url && i < length; ++i) {
    const auto usage = HidUsageOf(url[i]);
    if (!usage) return;
    url[i] = *usage;
  }
  downloadUrlState = 0;
  SendFrame(HidCommand::SetDownloadUrl, url, length, channel, deadline);
}

void CDeviceReader::RequestMKeyTypeList(CDeadline deadline) {
  if (!IsReady()) return;
  mKeyQuery = 1;
  SendCommand(GetMKeyTypeList, channel, deadline);
}

SetMKeyTypeStatus CDeviceReader::SetMKeyTypeKey1(MouseMKeyType type, CDeadline deadline) noexcept {
  if (!IsReady()) return SetMKeyType_NotReady;
  const auto value = static_cast<std::uint8_t>(type);
  if (value != type || !(mKeyTypes[value / 32] >> (value % 32) & 1U)) return SetMKeyType_NotSupported;
  const CDeadline answerBy(kMKeyPatience);
  mKeyQuery = 0;
  SendFrame(SetMKeyType, &value, 1, channel, deadline);
  if (!PollWhile([this] { return mKeyQuery == 0; }, kMKeyPollPeriod, answerBy)) return SetMKeyType_NotReady;
  if (mKeyQuery == 0) return SetMKeyType_NoAnswer;
  return mKeyType == type ? SetMKeyType_Confirmed : SetMKeyType_OtherType;
}
