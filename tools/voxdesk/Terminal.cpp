#include "Terminal.h"

#include <cmath>
#include <csignal>
#include <cstdio>

#include "System.h"

namespace {

volatile std::sig_atomic_t interruptSeen = 0;

std::string stamp(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%8.3f s  ", seconds);
  return text;
}

}  // namespace

// The library prints texts of its own to standard output when a step of a firmware update fails, in an encoding of its
// own and without a line end. They would spoil our lines, which say the same.
Terminal::Terminal(bool json) : json_(json), screen_(outputIsScreen()), out_(takeStandardOutput()) {
  if (!out_) std::perror("voxdesk: standard output");
}

Terminal::~Terminal() {
  if (out_) std::fclose(out_);
}

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
    std::fprintf(out_, "\r\033[K%s%s", stamp(seconds).c_str(), line.c_str());
    std::fflush(out_);
    progressShown_ = true;
  } else if (seconds - lastProgress_ >= 1) {
    lastProgress_ = seconds;
    print(stamp(seconds) + line);
  }
}

void Terminal::print(const std::string& line) {
  if (progressShown_) std::fputs("\n", out_);
  progressShown_ = false;
  std::fprintf(out_, "%s\n", line.c_str());
  std::fflush(out_);
}

void catchInterrupts() {
  const auto note = [](int) { interruptSeen = 1; };
  std::signal(SIGINT, note);
  std::signal(SIGTERM, note);
}

bool interrupted() { return interruptSeen != 0; }
