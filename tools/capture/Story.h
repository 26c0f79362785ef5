// What happened, as a recording tells it: a plain value that the page, the text and the JSON of a report are made of.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/capture/Capture.h"

namespace capture {

// Microseconds since the first event.
using Time = std::int64_t;

struct State {
  Time from = 0;
  Time to = 0;
  std::string name;  // "opened", "awake", "asleep", "gone", "refused"
};

// A HID interface, and who is behind it.
struct Device {
  int number = -1;    // the client's; -1: it has none
  std::string model;  // "Wren"; empty: unknown
  std::string link;
  std::string vendor;  // four digits; empty: unknown
  std::string product;
  std::string path;
  std::string serial;  // empty: it has not told
  std::string address;
  int battery = -1;  // the last that it told; -1: nothing
  int dpi = -1;
  bool receiver = false;  // something has come from a receiver
  std::vector<State> states;

  std::string title() const;  // "#1 Wren"
};

// A report but for those with speech, which are only counted.
struct Frame {
  Time time = 0;
  std::size_t device = 0;
  bool sent = false;
  bool receiver = false;  // to or from it
  bool wrong = false;     // damaged, refusing, unanswered, or not written
  bool routine = false;   // a heartbeat or a part of an update, and its answer
  std::string name;
  std::string words;
  std::string bytes;  // in hexadecimal digits, without the zeros at the end
  std::string note;   // "answered after 12.0 ms"
};

// All requests of one kind.
struct RequestCount {
  std::string name;
  std::size_t sent = 0;
  std::size_t answered = 0;
  std::size_t unanswered = 0;  // the rest were under way at the end, or their device went
  std::vector<Time> delays;    // of those answered, sorted

  Time median() const { return delays.empty() ? 0 : delays[delays.size() / 2]; }
  Time slowest() const { return delays.empty() ? 0 : delays.back(); }
};

struct KeyPress {
  std::size_t device = 0;
  std::string key;  // "voice", "screenshot"
  Time from = 0;
  Time to = 0;        // as `from` of a key that is only reported
  bool down = false;  // still, at the end
};

// A voice channel from its opening to its closing.
struct Speech {
  std::size_t device = 0;
  Time from = 0;
  Time to = 0;
  Time first = 0;  // speech
  Time last = 0;
  std::size_t reports = 0;
  std::size_t missing = 0;  // reports, by the time that they would have taken
  bool closedCodec = false;
  std::vector<std::int16_t> pcm;  // 16 kHz; none of a closed codec

  double seconds() const;  // of sound
  double peak() const;     // dBFS
};

// One image on its way to a device or its receiver.
struct Update {
  struct Point {
    Time time;
    std::uint64_t bytes;
  };
  std::size_t device = 0;
  bool receiver = false;
  bool good = false;
  Time from = 0;
  Time to = 0;
  std::size_t messages = 0;  // with data
  std::uint64_t bytes = 0;
  std::string result;
  std::vector<Point> points;  // how far it was when
};

struct Unusual {
  Time time = 0;
  Time until = 0;  // of the last one, of several that are the same
  std::size_t times = 1;
  int device = -1;   // its index; -1: of none
  std::string kind;  // "silence", "refused", "damaged", "dropped", "slow", "failed", "gone", "update"
  std::string words;
};

// What the client was told, but for sound and the progress of updates.
struct ToldLine {
  Time time = 0;
  int device = -1;  // the client's number
  std::string name;
  std::string text;  // numbers, and a text
};

struct Counts {
  std::size_t sent = 0;      // output reports, with those that could not be written
  std::size_t received = 0;  // input reports
  std::size_t speech = 0;    // of those received
  std::size_t damaged = 0;   // likewise
  std::size_t other = 0;     // likewise: not ours
  std::size_t told = 0;      // what the client was told
  std::size_t lines = 0;     // of those, the ones in `told`
};

struct Story {
  std::string source;
  std::string problem;
  std::size_t leftOut = 0;
  std::int64_t start = 0;  // microseconds since 1970
  Time length = 0;
  Time slow = 0;
  Counts counts;
  std::vector<Device> devices;  // as the interfaces of the capture
  std::vector<Frame> frames;
  std::vector<RequestCount> requests;
  std::vector<KeyPress> keys;
  std::vector<Speech> speech;
  std::vector<Update> updates;
  std::vector<Unusual> unusual;
  std::vector<ToldLine> told;

  // Several of a device in a row that are the same become one. until: -1 is `time`.
  void note(Time time, std::size_t device, const char* kind, const std::string& words, Time until = -1);
};

// slow: an answer that takes longer is unusual.
Story tell(const Capture& capture, Time slow);

std::string milliseconds(Time time);                      // "12.0 ms"
std::string plural(std::size_t count, const char* what);  // "1 frame", "2 frames"

}  // namespace capture
