// An open HID device.
#pragma once

#include <string>
#include <utility>

#include "platform/os.h"

// Closed unless it is given away.
class HidFile {
 public:
  explicit HidFile(const std::wstring& path) noexcept
      : file_(os::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr)) {}
  ~HidFile() {
    if (file_ != INVALID_HANDLE_VALUE) os::CloseHandle(file_);
  }
  HidFile(const HidFile&) = delete;
  HidFile& operator=(const HidFile&) = delete;

  // Whether this is open, tells its report lengths, and both have so many bytes at least (with the report id).
  bool Check(int least) {
    if (file_ == INVALID_HANDLE_VALUE) return false;
    HIDD_ATTRIBUTES attributes{};
    attributes.Size = sizeof attributes;
    PHIDP_PREPARSED_DATA preparsed = nullptr;
    if (!os::HidD_GetAttributes(file_, &attributes) || !os::HidD_GetPreparsedData(file_, &preparsed)) return false;
    HIDP_CAPS caps{};
    const bool known = os::HidP_GetCaps(preparsed, &caps) == HIDP_STATUS_SUCCESS;
    os::HidD_FreePreparsedData(preparsed);
    inputLength_ = caps.InputReportByteLength;
    outputLength_ = caps.OutputReportByteLength;
    return known && inputLength_ >= least && outputLength_ >= least;
  }
  int InputLength() const { return inputLength_; }
  int OutputLength() const { return outputLength_; }
  HANDLE Give() { return std::exchange(file_, INVALID_HANDLE_VALUE); }

 private:
  HANDLE file_;
  int inputLength_ = 0;
  int outputLength_ = 0;
};
