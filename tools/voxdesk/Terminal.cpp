#include "Terminal.h"

#include <fmt/format.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Commands.h"
#include "System.h"
#include "Table.h"

namespace {

// Whoever closes a terminal or shuts down may ask in two ways at a time.
constexpr std::chrono::milliseconds kOneRequest{500};

using SteadyClock = std::chrono::steady_clock;

const SteadyClock::time_point begin = SteadyClock::now();
std::atomic<int> requestedAt{-1};  // milliseconds since the beginning
std::atomic<int> outputError{0};
std::atomic<bool> declined{false};

void noteRequest() {
  const auto now =
      static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(SteadyClock::now() - begin).count());
  int before = -1;
  if (!requestedAt.compare_exchange_strong(before, now) && now - before >= kOneRequest.count()) {
    endAtOnce(kInterrupted);
  }
}

std::string stamp(double seconds) { return fmt::format("{:8.3f} s  ", seconds); }

bool saysDumb(const char* terminal) { return terminal && std::string_view(terminal) == "dumb"; }

std::FILE* taken(bool streaming) {
  std::FILE* const output = takeStandardOutput(streaming);
  if (!output) throw Failure("standard output is closed");
  return output;
}

}  // namespace

// The library prints texts of its own to standard output when a step of a firmware update fails, in an encoding of its
// own and without a line end. They would spoil our lines, which say the same.
Terminal::Terminal(bool json, bool streaming, bool quiet)
    : json_(json),
      quiet_(quiet),
      output_(taken(streaming)),
      out_(streaming ? stderr : output_),
      screen_(isScreen(out_)),
      dumb_(saysDumb(std::getenv("TERM"))) {}

Terminal::~Terminal() { std::fclose(output_); }

void Terminal::say(const std::string& line) {
  if (!quiet_) tell(line);
}

void Terminal::tell(const std::string& line) {
  if (!json_) print(line);
}

void Terminal::table(const Table& table) {
  for (const std::string& line : table.lines()) tell(line);
}

void Terminal::event(double seconds, const std::string& name, const Json& fields, const std::string& text) {
  if (!json_) {
    if (!text.empty()) print(stamp(seconds) + text);
    return;
  }
  Json object{{"time", std::round(seconds * 1000) / 1000}, {"event", name}};
  object.update(fields);
  print(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void Terminal::progress(double seconds, const std::string& before, double fraction, char mark,
                        const std::string& after) {
  if (json_ || quiet_) return;
  const std::string head = stamp(seconds) + before + "[";
  const std::string tail = "]" + after;
  constexpr std::size_t kMost = 30;
  const std::size_t others = head.size() + tail.size();
  const std::size_t room = roomForLine();
  const std::size_t columns = room > others ? std::min(kMost, room - others) : 0;
  const auto marks = static_cast<std::size_t>(std::clamp(fraction, 0.0, 1.0) * static_cast<double>(columns));
  std::string line = head + std::string(marks, mark) + std::string(columns - marks, ' ') + tail;
  if (columns == 0) line = (before + after).substr(0, room);
  if (screen_ && !dumb_) {
    std::fprintf(out_, "\r\033[K%s", line.c_str());
    progressShown_ = true;
    flush();
  } else if (seconds - lastProgress_ >= 1) {
    lastProgress_ = seconds;
    print(line);
  }
}

std::size_t Terminal::columns() const {
  constexpr int kUsual = 80;
  if (!screen_ || json_ || quiet_ || out_ != output_) return 0;
  const int columns = columnsOf(out_);
  return static_cast<std::size_t>(columns > 0 ? columns : kUsual);
}

std::size_t Terminal::roomForLine() const {
  const int columns = screen_ ? columnsOf(out_) : 0;
  // The last column stays free: some screens go on to the next line there.
  return columns > 0 ? static_cast<std::size_t>(columns - 1) : SIZE_MAX;
}

void Terminal::print(const std::string& line) {
  if (progressShown_) std::fputs("\n", out_);
  progressShown_ = false;
  std::fprintf(out_, "%s\n", printable(line).c_str());
  flush();
}

void Terminal::flush() {
  const bool whole = std::fflush(out_) == 0 && std::ferror(out_) == 0;
  if (!whole && out_ == output_) outputFailed(errno);
}

std::string printable(std::string text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    const bool second = c == 0xC2 && next >= 0x80 && next < 0xA0;  // U+0080 to U+009F
    if ((c < ' ' && c != '\n') || c == 0x7F || second) text.replace(i, second ? 2 : 1, "?");
  }
  return text;
}

void catchInterrupts() { onRequestToEnd(&noteRequest); }

bool endRequested() { return requestedAt >= 0; }

bool interrupted() { return !declined && (endRequested() || outputError != 0); }

void declineInterrupts() { declined = true; }

void outputFailed(int error) {
  int none = 0;
  outputError.compare_exchange_strong(none, error);
}

int outputProblem() { return outputError; }
