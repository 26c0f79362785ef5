#include "Take.h"

#include <fmt/format.h>
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <utility>

#include "Files.h"
#include "System.h"
#include "sim/Text.h"
#include "sim/Wav.h"

namespace {

constexpr int kRate = 16'000;
constexpr std::uint64_t kMostSamples = (0xFFFFFFFF - sim::kWavHeaderSize) / 2;  // by the sizes in a WAV file
static_assert(std::endian::native == std::endian::little, "samples are written as they stand in memory");

double dbfs(double amplitude) { return amplitude > 0 ? 20 * std::log10(amplitude / 32768) : -99; }

double level(const std::vector<std::int16_t>& pcm) {
  double sum = 0;
  for (const double sample : pcm) sum += sample * sample;
  return pcm.empty() ? -99 : dbfs(std::sqrt(sum / static_cast<double>(pcm.size())));
}

double rounded(double dB) { return std::round(dB * 10) / 10; }

}  // namespace

void Take::checkWritable(const Options& options) {
  checkOutput(options.out);
  checkOutput(options.picture);
}

double Take::durationOf(const Options& options, std::optional<double> source) {
  if (options.seconds > 0) return options.seconds;
  if (!source && options.virtualTime) {
    throw Failure("--virtual-time: this needs --seconds with it, or it would never end", kWrongUsage);
  }
  return source.value_or(HUGE_VAL);
}

Take::Take(Session& session, const Options& options)
    : session_(session),
      path_(options.out),
      name_(path_ == kStandardOutput ? "standard output" : path_),
      raw_(options.rawSound),
      picture_(options.picture) {}

Take::~Take() {
  if (file_ && path_ != kStandardOutput) std::fclose(file_);
}

void Take::open() {
  try {
    file_ = path_ == kStandardOutput ? session_.terminal.output() : openOutput(sim::pathOf(path_));
  } catch (const Failure& failure) {
    problem_ = failure.what();
    return;
  }
  if (!file_) return failed();
  // What is written is written, and how much of it is known.
  std::setvbuf(file_, nullptr, _IONBF, 0);
  if (raw_) return;
  patches_ = path_ != kStandardOutput && std::fseek(file_, 0, SEEK_SET) == 0;
  writeHeader(patches_ ? 0 : sim::kUnknownSize);
}

void Take::write(const std::vector<std::int16_t>& more) {
  if (!file_) open();
  if (over()) return;
  const std::uint64_t room = patches_ ? kMostSamples - samples_ : more.size();
  const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(room, more.size()));
  const std::size_t written = std::fwrite(more.data(), sizeof more[0], count, file_);
  samples_ += written;
  if (written < count) return failed();
  if (count < more.size()) problem_ = holds("a WAV file cannot be larger");
}

void Take::writeHeader(std::uint32_t dataSize) {
  const auto header = sim::wavHeader(dataSize, kRate);
  if (std::fwrite(header.data(), 1, header.size(), file_) != header.size()) failed();
}

void Take::failed() {
  const int error = errno;
  if (over()) return;
  if (path_ == kStandardOutput && error == EPIPE) outputFailed(error);
  problem_ = holds(std::strerror(error));
}

void Take::add(const std::vector<std::int16_t>& more) {
  if (!more.empty() && !over()) {
    write(more);
    patch();
    for (const int sample : more) peak_ = std::max(peak_, std::abs(sample));
    if (!picture_.empty() || session_.terminal.columns() > 0) sound_.add(more);
    show(more);
  }
}

void Take::patch() {
  if (!patches_) return;
  std::fpos_t end{};
  std::fgetpos(file_, &end);
  std::rewind(file_);
  writeHeader(static_cast<std::uint32_t>(samples_ * 2));
  std::fsetpos(file_, &end);
}

void Take::show(const std::vector<std::int16_t>& more) {
  const double dB = level(more);
  Terminal& terminal = session_.terminal;
  const double now = session_.desk->seconds();
  if (terminal.json()) {
    terminal.event(now, "level", {{"seconds", seconds()}, {"dbfs", rounded(dB)}}, "");
  } else {
    terminal.progress(now, fmt::format("recording {:5.1f} s  ", seconds()), (dB + 60) / 60, '#',
                      fmt::format(" {:6.1f} dBFS", dB));
  }
}

std::string Take::holds(const std::string& what) const {
  if (samples_ == 0) return name_ + ": " + what + "; nothing has been recorded";
  return fmt::format("{}: {}; it holds the first {:.2f} s", name_, what, seconds());
}

void Take::drawPictures() {
  if (!picture_.empty()) {
    const std::string title = path_ == kStandardOutput ? "recording" : sim::nameOf(sim::pathOf(path_).filename());
    sound_.write(picture_, fmt::format("{}: {:.2f} s, peak {:.1f} dBFS", title, seconds(), dbfs(peak_)));
    session_.terminal.event(session_.desk->seconds(), "picture", {{"file", picture_}}, "wrote " + picture_);
  }
  // The last column stays free, as that of a level does.
  constexpr std::size_t kWidest = 120;
  if (const std::size_t columns = session_.terminal.columns(); columns > 0) {
    for (const std::string& line : sound_.lines(std::min(columns - 1, kWidest), screenShowsUnicode())) {
      session_.terminal.say(line);
    }
  }
}

void Take::finish(const std::string& why) {
  if (samples_ > 0) {
    session_.terminal.event(
        session_.desk->seconds(), "recorded",
        {{"file", path_}, {"seconds", seconds()}, {"peak_dbfs", rounded(dbfs(peak_))}},
        fmt::format("wrote {}: {:.2f} s, 16 kHz mono, peak {:.1f} dBFS", name_, seconds(), dbfs(peak_)));
    try {
      drawPictures();
    } catch (const Failure&) {
      if (!over()) throw;  // that the recording was cut off matters more
    }
  }
  const bool ended = outputProblem() == EPIPE || (samples_ == 0 && interrupted());
  if (over()) throw Failure(problem_, ended ? kInterrupted : kFailed);
  if (samples_ == 0) {
    const std::string reason = why.empty() && interrupted() ? "interrupted" : why;
    throw Failure((reason.empty() ? "" : reason + "; ") + "nothing has been recorded, and " + name_ + " is not written",
                  why.empty() && interrupted() ? kInterrupted : kFailed);
  }
  if (!why.empty()) throw Failure(why + "; " + name_ + " holds what it had sent");
}
