// What a capture tells, without a desk and without the library.
#include <fmt/format.h>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "Commands.h"
#include "Files.h"
#include "Terminal.h"
#include "sim/Text.h"
#include "sim/Wav.h"
#include "tools/capture/Report.h"

namespace {

// Returns what was written, a line each.
std::string writeSpeech(const capture::Story& story, const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(sim::pathOf(folder), error);
  if (error) throw Failure(folder + ": " + error.message());
  std::string lines;
  for (std::size_t i = 0; i < story.speech.size(); ++i) {
    const auto& speech = story.speech[i];
    if (speech.pcm.empty()) continue;
    const std::string name = folder + "/" + capture::wavName(story, i);
    std::string why;
    if (!sim::writeWav(name, speech.pcm, 16'000, why)) throw Failure(why);
    lines += fmt::format("wrote {}: {:.2f} s of speech\n", name, speech.seconds());
  }
  return lines.empty() ? "There is no speech that could be written.\n" : lines;
}

}  // namespace

void report(const Options& options) {
  constexpr double kMicroseconds = 1000;  // of a millisecond
  const capture::Capture recording = capture::readFile(sim::pathOf(options.recording));
  const capture::Story story = capture::tell(recording, static_cast<capture::Time>(options.slow * kMicroseconds));
  if (interrupted()) throw Failure("interrupted before anything was written", kInterrupted);
  if (!story.problem.empty()) std::fprintf(stderr, "voxdesk: not all could be read: %s\n", story.problem.c_str());
  const std::string file = sim::utf8(sim::pathOf(options.recording).filename().wstring());
  std::string told;
  if (!options.reportPage.empty()) {
    writeOutput(options.reportPage, capture::htmlOf(story, file));
    told += "wrote " + options.reportPage + "\n";
  }
  if (!options.speechFolder.empty()) told += writeSpeech(story, options.speechFolder);
  if (options.json) {
    told = capture::jsonOf(story, file).dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  } else if (options.text || told.empty()) {
    told += capture::textOf(story, file);
  }
  if (std::fwrite(told.data(), 1, told.size(), stdout) != told.size() || std::fflush(stdout) != 0) {
    outputFailed(errno);
  }
}
