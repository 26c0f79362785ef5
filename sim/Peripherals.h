// The machine's other device lists, and its keyboard.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "sim/Kernel.h"

namespace sim {

// An entry of the list of USB devices.
struct UsbDevice {
  std::wstring path;
  bool answers = true;  // can be opened
  Time openTime{0};     // that this takes
};

// An entry of the media device class.
struct MediaDevice {
  std::vector<std::string> hardwareIds;
};

// What the system sees of the keys, whoever presses them.
class Keyboard {
 public:
  void press(int key) { keys_.at(static_cast<std::size_t>(key)) = {true, true}; }
  void release(int key) { keys_.at(static_cast<std::size_t>(key)).down = false; }
  // As GetAsyncKeyState; forgets that the key has been pressed.
  std::int16_t state(int key) {
    Key& k = keys_.at(static_cast<std::size_t>(key));
    const int value = (k.down ? 0x8000 : 0) | (k.pressed ? 1 : 0);
    k.pressed = false;
    return static_cast<std::int16_t>(value);
  }

  // Key releases that programs have sent, as virtual keys.
  std::deque<int> sentReleases;

 private:
  struct Key {
    bool down = false;
    bool pressed = false;  // since the last look
  };
  std::array<Key, 256> keys_{};
};

struct Peripherals {
  std::vector<UsbDevice> usb;
  std::vector<MediaDevice> media;
  Keyboard keyboard;
};

}  // namespace sim
