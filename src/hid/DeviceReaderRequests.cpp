// What a reader writes: reports, commands, and the requests that wait for an answer.
#include <algorithm>

#include "hid/DeviceReader.h"

namespace {

constexpr DWORD kVoicePollPeriod = 10;  // ms
constexpr int kVoicePolls = 100;
constexpr DWORD kMKeyPollPeriod = 50;  // ms
constexpr int kMKeyPolls = 50;
constexpr DWORD kWritePatience = 1000;  // ms

}  // namespace

bool CDeviceReader::LockForWriting() noexcept {
  // A writer that holds the lock for longer is stuck in its device; this report is dropped rather than wait for ever.
  if (!writeLock.Lock(kWritePatience)) return false;
  // Deliberate: without a write handle the lock stays with this thread. Only ShutDown clears the handle, and a reader
  // that has been shut down must not be written to again; the thread gives the lock up when it ends.
  return writeHandle != nullptr;
}

bool CDeviceReader::WriteReport(const unsigned char* report, int length) noexcept {
  if (!report || length <= 0 || !LockForWriting()) return false;
  const HANDLE file = writeHandle;
  BOOL written = FALSE;
  if (file != INVALID_HANDLE_VALUE) {
    DWORD count = 0;
    written =
        os::WriteFile(file, report, static_cast<DWORD>(std::min<int>(length, outputReportLength)), &count, nullptr);
  }
  writeLock.Unlock();
  return written != FALSE;
}

void CDeviceReader::SendFrame(std::uint8_t command, const std::uint8_t* payload, int length,
                              DataChannel link) noexcept {
  std::array<std::uint8_t, kMaxFrame> frame;
  const std::size_t size = BuildFrame(command, payload, length, link, frame);
  if (size == 0 || !LockForWriting()) return;
  // The report belongs to the reader, not to this thread, which may be ended by force while it writes.
  if (size <= outputReport_.size()) {
    std::fill(std::copy_n(frame.begin(), size, outputReport_.begin()), outputReport_.end(), std::uint8_t{0});
    WriteReport(outputReport_.data(), static_cast<int>(outputReport_.size()));
  }
  writeLock.Unlock();
}

void CDeviceReader::SendCommand(std::uint8_t command, DataChannel link) noexcept {
  SendFrame(command, nullptr, 0, link);
}

bool CDeviceReader::OpenRecord() noexcept {
  if (!IsReady()) return false;
  recordState = 1;
  SendCommand(VoiceOpen, channel);
  for (int i = 0; i < kVoicePolls && recordState == 1; ++i) os::Sleep(kVoicePollPeriod);
  return recordState == 3;
}

bool CDeviceReader::CloseRecord() noexcept {
  if (!IsReady() || recordState == 0) return true;
  SendCommand(VoiceStop, channel);
  for (int i = 0; i < kVoicePolls && recordState != 0; ++i) os::Sleep(kVoicePollPeriod);
  return recordState == 0;
}

void CDeviceReader::SetDpi(short value) noexcept {
  if (!IsReady()) return;
  const std::uint8_t payload[] = {static_cast<std::uint8_t>(value / 256), static_cast<std::uint8_t>(value % 256)};
  SendFrame(HidCommand::SetDpi, payload, 2, channel);
}

void CDeviceReader::SetDownloadUrl(unsigned char* url, int length) noexcept {
  if (!IsReady()) return;
  for (int i = 0; url && i < length; ++i) {
    const auto usage = HidUsageOf(url[i]);
    if (!usage) return;
    url[i] = *usage;
  }
  downloadUrlState = 0;
  SendFrame(HidCommand::SetDownloadUrl, url, length, channel);
}

void CDeviceReader::RequestMKeyTypeList() {
  if (!IsReady()) return;
  mKeyQuery = 1;
  SendCommand(GetMKeyTypeList, channel);
}

SetMKeyTypeStatus CDeviceReader::SetMKeyTypeKey1(MouseMKeyType type) noexcept {
  if (!IsReady()) return SetMKeyType_NotReady;
  const auto value = static_cast<std::uint8_t>(type);
  if (value != type || !(mKeyTypes[value / 32] >> (value % 32) & 1U)) return SetMKeyType_NotSupported;
  mKeyQuery = 0;
  SendFrame(SetMKeyType, &value, 1, channel);
  for (int i = 0; i < kMKeyPolls && mKeyQuery == 0; ++i) os::Sleep(kMKeyPollPeriod);
  if (mKeyQuery == 0) return SetMKeyType_NoAnswer;
  return mKeyType == type ? SetMKeyType_Confirmed : SetMKeyType_OtherType;
}
