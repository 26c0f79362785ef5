#include "Terminal.h"

#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>

namespace {

volatile std::sig_atomic_t interruptSeen = 0;

std::string stamp(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%8.3f s  ", seconds);
  return text;
}

}  // namespace

Terminal::Terminal(bool json) : json_(json), screen_(isatty(STDOUT_FILENO) != 0) {}

void Terminal::say(const std::string& line) {
  if (!json_) print(line);
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

void Terminal::progress(double seconds, const std::string& line) {
  if (json_) return;
  if (screen_) {
    std::printf("\r\033[K%s%s", stamp(seconds).c_str(), line.c_str());
    std::fflush(stdout);
    progressShown_ = true;
  } else if (seconds - lastProgress_ >= 1) {
    lastProgress_ = seconds;
    print(stamp(seconds) + line);
  }
}

void Terminal::print(const std::string& line) {
  if (progressShown_) std::fputs("\n", stdout);
  progressShown_ = false;
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void catchInterrupts() {
  const auto note = [](int) { interruptSeen = 1; };
  std::signal(SIGINT, note);
  std::signal(SIGTERM, note);
}

bool interrupted() { return interruptSeen != 0; }
