#include "Files.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <thread>
#include <utility>

#include "Commands.h"
#include "System.h"
#include "Terminal.h"
#include "sim/Text.h"

namespace fs = std::filesystem;

namespace {

// Devices, as /dev/null, take what several have to say.
bool sameFile(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty() || a == kStandardOutput || b == kStandardOutput) return false;
  std::error_code error;
  const fs::path one = sim::pathOf(a);
  const fs::path other = sim::pathOf(b);
  if (fs::exists(one, error) && !fs::is_regular_file(one, error)) return false;
  if (fs::equivalent(one, other, error)) return true;
  const auto full = [&error](const fs::path& path) { return fs::weakly_canonical(fs::absolute(path, error), error); };
  return full(one) == full(other);
}

}  // namespace

void checkFiles(const Options& options, bool records) {
  const std::pair<const char*, const std::string&> files[] = {
      {"--picture", options.picture},    {"--capture", options.capture},
      {"--junit", options.junit},        {"--out", records ? options.out : options.reportPage},
      {"--speech", options.speech},      {"--desk", options.deskFile},
      {"--first", options.first},        {"--second", options.second},
      {"the report", options.recording},
  };
  constexpr std::size_t kWritten = 4;
  for (std::size_t i = 0; i < kWritten; ++i) {
    const auto& [option, file] = files[i];
    if (file == kStandardOutput && !(records && i == 3)) {
      throw Failure(std::string(option) + ": standard output does not take this; name a file", kWrongUsage);
    }
    for (std::size_t j = i + 1; j < std::size(files); ++j) {
      if (!sameFile(file, files[j].second)) continue;
      throw Failure(std::string(option) + ": " + file + " is the file of " + files[j].first + ", too", kWrongUsage);
    }
  }
}

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
  // A link that led nowhere stays.
  if (!there) fs::remove(fs::canonical(path, error), error);
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
