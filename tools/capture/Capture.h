// What went over the wire at somebody's desk: a recording, and the files that it is kept in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "VoxDevice/types.h"

namespace capture {

// A HID interface.
struct Interface {
  std::string path;          // as Windows spells it, in UTF-8; made up where the file does not tell it
  std::uint16_t vendor = 0;  // 0: the file does not tell
  std::uint16_t product = 0;
  int inputLength = 0;  // bytes, with the report id; of USB captures the longest one seen; 0: unknown
  int outputLength = 0;
  DataChannel link = DataChannel_Unknown;
  bool former = false;  // an older device
};

enum class Kind {
  Sent,      // an output report; our own recorder tells of it before it is written
  Received,  // an input report
  Opened,
  Refused,      // could not be opened, or is unusable
  ReadFailed,   // the device has gone, mostly
  WriteFailed,  // the report that was sent last to this interface has not been taken
  Told,         // a log line, an announcement, a callback: what the client was told
};

struct Event {
  std::int64_t time = 0;  // microseconds since 1970; never negative, and differences never overflow
  Kind kind = Kind::Told;
  int interface = -1;        // its index; -1 of what concerns none
  int device = -1;           // the client's number for it; -1: unknown
  std::uint32_t thread = 0;  // the library's thread; 0: unknown
  std::uint32_t error = 0;   // the system's, of what failed
  std::vector<std::uint8_t> report;
  std::string name;          // of what was told: "log", "connect", "disconnect", "voice" ...
  std::string text;          // its text, as it stands in the file: UTF-8, if the file is right
  std::vector<int> values;   // its numbers, but for the device's, in the order of the call's arguments
  std::uint64_t offset = 0;  // of its block in the file
};

struct Capture {
  std::vector<Interface> interfaces;
  std::vector<Event> events;  // in the order of the file
  std::string source;         // which program made it, as it says itself
  std::string recording;      // of which recording of ours this is a part; empty: of none
  int part = 1;
  // Why reading has ended before the end of the file, with the offset: "at 1234: a block of 3 bytes". What came before
  // it is there. Empty: all was read.
  std::string problem;
  std::size_t leftOut = 0;  // packets that carry none of our reports
};

// Any bytes: pcapng or classic pcap, of link type 252 (our own recorder), 249 (USBPcap), 220 or 189 (usbmon). Of USB
// there are the interfaces over which a frame of ours or speech has gone, and of their reports those with our ids.
Capture read(std::span<const std::uint8_t> bytes);
// Throws std::runtime_error, with a sentence, when the file cannot be read or is no capture at all. A file that was
// continued (NAME.pcapng, NAME-2.pcapng, ...) is read with those that continue it; a problem names the one it is in.
Capture readFile(const std::filesystem::path& path);

}  // namespace capture
