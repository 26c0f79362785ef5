// An open HID device, and the only way in which the library opens, reads and writes one.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <utility>

#include "VoxDevice/Observation.h"
#include "VoxDevice/Shared.h"
#include "platform/os.h"

// Closed with the last reference, or before. One thread is ever inside the system with it, and keeps it open for as
// long: closing a handle in which a synchronous call is blocked would keep whoever closes it waiting.
class HidFile {
 public:
  // link: by the path. Nothing is opened yet.
  HidFile(std::wstring path, DataChannel link) : path_(std::move(path)), link_(link) {}
  ~HidFile() {
    if (!leftOpen_) Close();
  }
  HidFile(const HidFile&) = delete;
  HidFile& operator=(const HidFile&) = delete;

  // Opens it. Whether that is done, it tells its report lengths, and both are of use: `least` bytes at least and input
  // reports `most` at most, with the report id.
  bool Open(int least, int most) noexcept;
  // Asks the class driver to keep so many input reports for this handle, 2 to 512. It may refuse.
  void KeepReports(ULONG count) const noexcept { os::HidD_SetNumInputBuffers(handle_, count); }
  int InputLength() const noexcept { return inputLength_; }
  int OutputLength() const noexcept { return outputLength_; }
  HANDLE Handle() const noexcept { return handle_; }
  void Close() noexcept;
  // It stays open for ever, unless it is closed with Close.
  void LeaveOpen() noexcept { leftOpen_ = true; }

  // The hub's number for the device, for an observer.
  void SetDevice(int number) noexcept { device_ = number; }
  struct Read {
    bool done = false;
    DWORD count = 0;                        // bytes
    DWORD error = ERROR_OPERATION_ABORTED;  // also when it was not begun any more
  };
  // Waits for an input report, until the calling worker is asked to end.
  Read ReadReport(std::span<std::uint8_t> buffer) noexcept;
  // Writes an output report. False when it has not been taken.
  bool WriteReport(std::span<const std::uint8_t> report) noexcept;

 private:
  bool Describe() noexcept;
  void Observe(VoxObservationKind kind, DWORD error, std::span<const std::uint8_t> report = {}) const noexcept;

  const std::wstring path_;
  const DataChannel link_;
  Atomic<HANDLE> handle_{nullptr};
  HIDD_ATTRIBUTES attributes_{};
  int inputLength_ = 0;
  int outputLength_ = 0;
  Shared<int> device_{-1};
  Shared<bool> leftOpen_{false};
};
