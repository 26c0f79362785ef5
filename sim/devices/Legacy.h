// Older hardware. Plugging one in changes every list of the machine that the real device would change.
#pragma once

#include <memory>
#include <string>

#include "sim/Device.h"

namespace sim {

class Machine;

enum class LegacyKind {
  usbMouse,       // 0D8C:0132, first revision
  usbMouseRev2,   // 0D8C:0132, second revision
  usbMouseQl,     // 0D8C:0134, the variant that does not count
  laserPen,       // 0D8C:0132, told by its serial text
  hidMouse,       // 0D8C:0132 as a HID device
  voiceKeyboard,  // 0D8C:0135 as a HID device, and a sound function
};

// A HID device that sends a key byte in plain reports.
class LegacyHid final : public HidDevice {
 public:
  LegacyHid(const std::string& productId, const std::string& instance, std::size_t keyByte,
            std::uint16_t reportLength = 8);
  // Sends a report with this key byte. From above the seam.
  void key(std::uint8_t code);

 protected:
  void onOutput(std::span<const std::uint8_t>) override {}

 private:
  const std::size_t keyByte_;
};

class LegacyDevice {
 public:
  // serial: the text in the USB path; a default for each kind when empty.
  LegacyDevice(Machine& machine, LegacyKind kind, std::string serial = {});

  void plug();
  void unplug();
  bool plugged() const { return plugged_; }
  // Presses or releases a key that arrives as a key of the keyboard.
  void press(int virtualKey, bool down = true);
  // The HID function; null where there is none.
  const std::shared_ptr<LegacyHid>& hid() const { return hid_; }

 private:
  Machine& machine_;
  bool plugged_ = false;
  std::wstring usbPath_;
  std::vector<std::string> hardwareIds_;
  std::shared_ptr<LegacyHid> hid_;
};

}  // namespace sim
