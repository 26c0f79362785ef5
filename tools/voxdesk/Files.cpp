#include "Files.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "Commands.h"
#include "System.h"
#include "Terminal.h"
#include "sim/Text.h"

namespace fs = std::filesystem;

std::FILE* openOutput(const fs::path& path) {
  constexpr std::chrono::milliseconds kLook{20};
  bool told = false;
  std::error_code error;
  for (;;) {
    std::FILE* const file = openForWriting(path, false);
    if (file || errno != ENXIO || !fs::is_fifo(path, error)) return file;
    const std::string name = sim::nameOf(path);
    if (interrupted()) throw Failure(name + ": interrupted before anybody read this pipe", kInterrupted);
    if (!std::exchange(told, true)) {
      std::fprintf(stderr, "voxdesk: %s: waiting until somebody reads this pipe\n", name.c_str());
    }
    std::this_thread::sleep_for(kLook);
  }
}

void checkOutput(const std::string& name) {
  if (name.empty() || name == kStandardOutput) return;
  const fs::path path = sim::pathOf(name);
  std::error_code error;
  const bool there = fs::exists(path, error);
  // Whoever reads a pipe would take this for its end.
  if (there && fs::is_fifo(path, error)) return;
  std::FILE* const file = openForWriting(path, true);
  if (!file) throw Failure(name + ": " + std::strerror(errno));
  std::fclose(file);
  if (!there) fs::remove(path, error);
}

void writeOutput(const std::string& name, const std::string& content) {
  std::FILE* const file = openOutput(sim::pathOf(name));
  if (!file) throw Failure(name + ": " + std::strerror(errno));
  bool whole = std::fwrite(content.data(), 1, content.size(), file) == content.size();
  int why = errno;
  if (std::fclose(file) != 0 && std::exchange(whole, false)) why = errno;
  if (whole) return;
  // Half of it is none.
  std::error_code error;
  if (fs::is_regular_file(sim::pathOf(name), error)) fs::remove(sim::pathOf(name), error);
  throw Failure(name + ": " + std::strerror(why));
}
