#include "Take.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "sim/Text.h"
#include "sim/Wav.h"

namespace {

double decibels(double amplitude) { return amplitude > 0 ? 20 * std::log10(amplitude / 32768) : -99; }

double level(const std::vector<std::int16_t>& pcm) {
  double sum = 0;
  for (const double sample : pcm) sum += sample * sample;
  return pcm.empty() ? -99 : decibels(std::sqrt(sum / static_cast<double>(pcm.size())));
}

std::string meter(double dB) {
  constexpr int kColumns = 30;
  const int lit = std::clamp(static_cast<int>((dB + 60) / 60 * kColumns), 0, kColumns);
  return "[" + std::string(static_cast<std::size_t>(lit), '#') +
         std::string(static_cast<std::size_t>(kColumns - lit), ' ') + "]";
}

double rounded(double dB) { return std::round(dB * 10) / 10; }

}  // namespace

void Take::checkWritable(const std::string& path) {
  const bool there = std::filesystem::exists(sim::pathOf(path));
  std::FILE* file = std::fopen(path.c_str(), "ab");
  if (!file) throw Failure(path + ": " + std::strerror(errno));
  std::fclose(file);
  if (!there) std::remove(path.c_str());
}

void Take::add(const std::vector<std::int16_t>& more) {
  if (more.empty()) return;
  pcm_.insert(pcm_.end(), more.begin(), more.end());
  const double dB = level(more);
  Terminal& terminal = session_.terminal;
  if (terminal.json()) {
    terminal.event(session_.desk->seconds(), "level", {{"seconds", seconds()}, {"dbfs", rounded(dB)}}, "");
  } else {
    terminal.progress(session_.desk->seconds(),
                      "recording " + fixed("%5.1f s  ", seconds()) + meter(dB) + fixed(" %6.1f dBFS", dB));
  }
}

void Take::write(const std::string& path) {
  std::string error;
  if (!sim::writeWav(path, pcm_, 16000, error)) throw Failure(error);
  int peak = 0;
  for (const int sample : pcm_) peak = std::max(peak, std::abs(sample));
  session_.terminal.event(session_.desk->seconds(), "recorded",
                          {{"file", path}, {"seconds", seconds()}, {"peak_dbfs", rounded(decibels(peak))}},
                          "wrote " + path + fixed(": %.2f s of speech, 16 kHz mono", seconds()) +
                              fixed(", peak %.1f dBFS", decibels(peak)));
}
