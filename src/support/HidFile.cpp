#include "support/HidFile.h"

#include <algorithm>

#include "support/Observer.h"
#include "support/Worker.h"

bool HidFile::Open(int least, int most) noexcept {
  bool tried = false;
  bool open = false;
  DWORD error = 0;
  CWorker::Blocking([&] {
    tried = true;
    const HANDLE file = os::CreateFileW(path_.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
    if (file != INVALID_HANDLE_VALUE) handle_ = file;
    open = file != INVALID_HANDLE_VALUE && Describe();
    if (!open) error = os::GetLastError();
  });
  const bool usable = open && inputLength_ >= least && outputLength_ >= least && inputLength_ <= most;
  if (tried) Observe(usable ? VoxObservation_Opened : VoxObservation_Refused, error);
  return usable;
}

bool HidFile::Describe() noexcept {
  attributes_.Size = sizeof attributes_;
  PHIDP_PREPARSED_DATA preparsed = nullptr;
  if (!os::HidD_GetAttributes(handle_, &attributes_) || !os::HidD_GetPreparsedData(handle_, &preparsed)) return false;
  HIDP_CAPS caps{};
  const bool known = os::HidP_GetCaps(preparsed, &caps) == HIDP_STATUS_SUCCESS;
  os::HidD_FreePreparsedData(preparsed);
  inputLength_ = caps.InputReportByteLength;
  outputLength_ = caps.OutputReportByteLength;
  return known;
}

void HidFile::Close() noexcept {
  if (HANDLE open = handle_.exchange(nullptr)) os::CloseHandle(open);
}

HidFile::Read HidFile::ReadReport(std::span<std::uint8_t> buffer) noexcept {
  bool tried = false;
  Read read;
  CWorker::Blocking([&] {
    tried = true;
    read.done = os::ReadFile(handle_, buffer.data(), static_cast<DWORD>(buffer.size()), &read.count, nullptr) != FALSE;
    if (!read.done) read.error = os::GetLastError();
  });
  if (read.done) {
    Observe(VoxObservation_Received, 0, buffer.first(std::min<std::size_t>(read.count, buffer.size())));
  } else if (tried && !CWorker::CurrentIsAsked()) {
    Observe(VoxObservation_ReadFailed, read.error);
  }
  return read;
}

// Observed before it is written, so that no answer comes first, and a driver that never comes back is seen.
bool HidFile::WriteReport(std::span<const std::uint8_t> report) noexcept {
  Observe(VoxObservation_Sent, 0, report);
  bool written = false;
  DWORD error = 0;
  CWorker::Blocking([&] {
    DWORD count = 0;
    written = os::WriteFile(handle_, report.data(), static_cast<DWORD>(report.size()), &count, nullptr) != FALSE;
    if (!written) error = os::GetLastError();
  });
  if (!written) Observe(VoxObservation_WriteFailed, error);
  return written;
}

void HidFile::Observe(VoxObservationKind kind, DWORD error, std::span<const std::uint8_t> report) const noexcept {
  if (!CObserver::IsListening()) return;
  VoxObservation observation{};
  observation.kind = kind;
  observation.device = device_;
  observation.error = error;
  observation.path = path_.c_str();
  observation.link = link_;
  observation.vendor = attributes_.VendorID;
  observation.product = attributes_.ProductID;
  observation.inputLength = inputLength_;
  observation.outputLength = outputLength_;
  observation.report = report.data();
  observation.reportLength = static_cast<int>(report.size());
  CObserver::Observe(observation);
}
