#include "sim/devices/Legacy.h"

#include <algorithm>

#include "sim/Machine.h"

namespace sim {
namespace {

struct LegacySheet {
  const char* product;  // as paths spell it
  const char* serial;
  const char* hardwareId;  // of the sound function; null: none
  bool usb;
  std::size_t hidKeyByte;  // 0: no HID function
};

LegacySheet sheetOf(LegacyKind kind) {
  switch (kind) {
    case LegacyKind::usbMouse:
      return {"0132", "mouse01", "USB\\VID_0D8C&PID_0132&REV_0100&MI_00", true, 0};
    case LegacyKind::usbMouseRev2:
      return {"0132", "mouse02", "USB\\Vid_0d8c&Pid_0132&Rev_0200&MI_00", true, 0};
    case LegacyKind::usbMouseQl:
      return {"0134", "vx9ql01", "USB\\VID_0D8C&PID_0134&REV_0100&MI_00", true, 0};
    case LegacyKind::laserPen:
      return {"0132", "vx0pipit7", nullptr, true, 0};
    case LegacyKind::hidMouse:
      return {"0132", "hidmouse", "USB\\VID_0D8C&PID_0132&REV_0200&MI_00", true, 3};
    case LegacyKind::voiceKeyboard:
      return {"0135", "lark", "USB\\VID_0D8C&PID_0135&REV_0200&MI_00", false, 2};
  }
  return {};
}

}  // namespace

LegacyHid::LegacyHid(const std::string& productId, const std::string& instance, std::size_t keyByte,
                     std::uint16_t reportLength)
    : HidDevice(usbHidPath("0d8c", productId, instance, 3), 0x0D8C, productId == "0132" ? 0x0132 : 0x0135, reportLength,
                reportLength),
      keyByte_(keyByte) {}

void LegacyHid::key(std::uint8_t code) {
  Machine::current().locked([&]() REQUIRES(gate) {
    Bytes report(inputLength);
    report.at(keyByte_) = code;
    sendInput(report);
  });
}

LegacyDevice::LegacyDevice(Machine& machine, LegacyKind kind, std::string serial) : machine_(machine) {
  const LegacySheet sheet = sheetOf(kind);
  if (serial.empty()) serial = sheet.serial;
  if (sheet.usb) {
    const std::string path = "\\\\?\\usb#vid_0d8c&pid_" + std::string(sheet.product) + "#" + serial +
                             "#{a5dcbf10-6530-11d2-901f-00c04fb951ed}";
    usbPath_.assign(path.begin(), path.end());
  }
  if (sheet.hardwareId) hardwareIds_ = {sheet.hardwareId, "USB\\VID_0D8C"};
  if (sheet.hidKeyByte != 0) {
    hid_ = std::make_shared<LegacyHid>(sheet.product, "7&" + serial + "&0&0000", sheet.hidKeyByte);
  }
}

void LegacyDevice::plug() {
  if (std::exchange(plugged_, true)) return;
  machine_.locked([this]() REQUIRES(gate) {
    Peripherals& peripherals = machine_.peripherals();
    if (!usbPath_.empty()) peripherals.usb.push_back({.path = usbPath_});
    if (!hardwareIds_.empty()) peripherals.media.push_back({.hardwareIds = hardwareIds_});
  });
  if (hid_) machine_.plug(hid_);
}

void LegacyDevice::unplug() {
  if (!std::exchange(plugged_, false)) return;
  machine_.locked([this]() REQUIRES(gate) {
    Peripherals& peripherals = machine_.peripherals();
    std::erase_if(peripherals.usb, [this](const UsbDevice& device) { return device.path == usbPath_; });
    const auto media = std::find_if(peripherals.media.begin(), peripherals.media.end(),
                                    [this](const MediaDevice& device) { return device.hardwareIds == hardwareIds_; });
    if (media != peripherals.media.end()) peripherals.media.erase(media);
  });
  if (hid_) machine_.unplug(hid_);
}

void LegacyDevice::press(int virtualKey, bool down) {
  machine_.locked([&]() REQUIRES(gate) {
    Keyboard& keyboard = machine_.peripherals().keyboard;
    if (down) {
      keyboard.press(virtualKey);
    } else {
      keyboard.release(virtualKey);
    }
  });
}

}  // namespace sim
