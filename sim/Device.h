// Virtual hardware: one HID interface as the operating system sees it. Its firmware is a derived class.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "sim/Kernel.h"

namespace sim {

class HidBus;
class HidOpen;
class Machine;

using Bytes = std::vector<std::uint8_t>;

// What can go wrong with an interface below its firmware.
struct HidFaults {
  // Asked at every CreateFileW with the number of opens so far (from 0); true refuses it.
  std::function<bool(int)> refuseOpen;
  Time openTime{0};              // how long a CreateFileW takes
  bool noAttributes = false;     // HidD_GetAttributes fails
  bool noPreparsedData = false;  // HidD_GetPreparsedData fails
  bool noCaps = false;           // HidP_GetCaps fails
  bool failReads = false;        // a read fails at once, as if the device were just being pulled out
  Time readEntry{0};             // how long a read takes until it waits, and can be cancelled
  bool failWrites = false;
  bool hangWrites = false;    // a write never comes back
  Time writeTime{0};          // how long a write takes
  bool ignoreCancel = false;  // the driver does not let go of a read or write that is cancelled
  std::size_t shortRead = 0;  // a read brings at most so many bytes (0: whole reports)
};

// What a device outside the machine does in its own time, for a call that waits for it: it is opened, or takes a
// report.
class HidTransfer final : public Object {
 public:
  bool signalled(const Thread&) const override { return done_; }
  const char* kind() const override { return "HID transfer"; }
  // With the machine's lock held. error: 0, or why it has failed.
  void finish(Kernel& kernel, DWORD error) REQUIRES(gate);
  DWORD error() const { return error_; }

 private:
  bool done_ = false;
  DWORD error_ = 0;
};

class HidDevice : public std::enable_shared_from_this<HidDevice> {
 public:
  // path: the interface path as Windows spells it. Report lengths in bytes, with the report id.
  HidDevice(std::wstring path, std::uint16_t vendor, std::uint16_t product, std::uint16_t inputLength = 64,
            std::uint16_t outputLength = 64);
  virtual ~HidDevice() = default;
  HidDevice(const HidDevice&) = delete;
  HidDevice& operator=(const HidDevice&) = delete;

  const std::wstring& path() const { return path_; }
  bool plugged() const { return machine_ != nullptr; }
  // With the machine's lock held. As after a resume: the handles that are open are dead (ERROR_DEVICE_NOT_CONNECTED),
  // while the interface is still there and can be opened anew.
  void loseHandles() REQUIRES(gate);
  // The same, but a read of theirs waits for ever: only writes tell.
  void loseWrites();

  HidFaults faults;
  std::uint16_t inputLength;
  std::uint16_t outputLength;
  const std::uint16_t vendor;
  const std::uint16_t product;

 protected:
  // With the machine's lock held. The host has written an output report.
  virtual void onOutput(std::span<const std::uint8_t> report) REQUIRES(gate) = 0;
  virtual void onPlugged() REQUIRES(gate) {}
  virtual void onUnplugged() REQUIRES(gate) {}
  // The same; what the caller waits for, or null when it is done at once.
  virtual std::shared_ptr<HidTransfer> take(std::span<const std::uint8_t> report) REQUIRES(gate) {
    onOutput(report);
    return nullptr;
  }
  virtual std::shared_ptr<HidTransfer> onOpened() REQUIRES(gate) { return nullptr; }
  virtual void onLastClosed() REQUIRES(gate) {}

  // With the machine's lock held. Sends one input report to every open handle, padded with zeros.
  void sendInput(std::span<const std::uint8_t> report) REQUIRES(gate);
  // Runs `action` when `delay` has passed, unless the device has been pulled out by then.
  void after(Time delay, std::function<void()> action) REQUIRES(gate);
  Machine& machine() { return *machine_; }

 private:
  friend class HidBus;
  friend class HidOpen;
  const std::wstring path_;
  Machine* machine_ = nullptr;  // while plugged in
  unsigned plugCount_ = 0;
  int opens_ = 0;
  std::vector<HidOpen*> handles_;  // live ones
};

// An open handle to a HID interface, for which the class driver keeps the last input reports.
class HidOpen final : public Object {
 public:
  HidOpen(std::shared_ptr<HidDevice> device, DWORD access, DWORD shareMode);
  ~HidOpen() override;
  bool signalled(const Thread&) const override { return gone || !reports.empty(); }
  void handleClosed(Kernel& kernel) REQUIRES(gate) override;
  const char* kind() const override { return "HID report"; }

  const std::shared_ptr<HidDevice> device;
  const DWORD access;
  const DWORD shareMode;
  std::shared_ptr<HidTransfer> opening;  // null: it was open at once
  std::deque<Bytes> reports;
  std::size_t reportsKept = 32;  // the driver's default
  bool writesFail = false;       // and nothing comes
  bool gone = false;             // pulled out, dead, or closed while somebody reads
  int calls = 0;                 // in progress: the real system would keep whoever closes the handle waiting for them

 private:
  void leave() NO_THREAD_SAFETY_ANALYSIS;  // also as the machine goes, when nobody else is left
};

// An interface that is on the bus and does nothing: somebody else's keyboard, or a collection without our protocol.
class SilentHidDevice : public HidDevice {
 public:
  using HidDevice::HidDevice;

 protected:
  void onOutput(std::span<const std::uint8_t>) override {}
};

// Interface paths as Windows spells them (the last segment is the HID interface class).
// vendor and product in lower-case hexadecimal digits; instance must be unique on the machine; collection: from 1, of
// an interface that has several, 0 of one that has not.
std::wstring usbHidPath(const std::string& vendor, const std::string& product, const std::string& instance,
                        int interfaceNumber = -1, int collection = 0);
// vendor with its two-digit source in front, as "02248a"; address: twelve digits.
std::wstring bleHidPath(const std::string& vendor, const std::string& product, const std::string& instance,
                        const std::string& address = "aabbccddeeff", int collection = 0);

}  // namespace sim
