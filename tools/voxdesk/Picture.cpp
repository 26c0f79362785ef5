#include "Picture.h"

#include <fmt/format.h>
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <numbers>

#include "Desk.h"
#include "Files.h"
#include "tools/capture/Sound.h"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_easy_font.h>
#include <stb/stb_image_write.h>

namespace {

using Complex = std::complex<float>;
constexpr double kFullScale = 32768;
constexpr double kSilence = -120;  // dBFS
constexpr double kTop = 8;         // kHz

double decibels(double power) { return power > 0 ? std::max(10 * std::log10(power), kSilence) : kSilence; }

const auto kHann = [] {
  constexpr double kTurn = 2 * std::numbers::pi / SoundPicture::kWindow;
  std::array<float, SoundPicture::kWindow> weights{};
  for (std::size_t i = 0; i < weights.size(); ++i) {
    weights[i] = static_cast<float>(0.5 - 0.5 * std::cos(kTurn * static_cast<double>(i)));
  }
  return weights;
}();

}  // namespace

void SoundPicture::Column::merge(const Column& other) {
  least = std::min(least, other.least);
  most = std::max(most, other.most);
  squares += other.squares;
  samples += other.samples;
  spectra += other.spectra;
  for (std::size_t i = 0; i < kBins; ++i) power[i] += other.power[i];
}

double SoundPicture::Column::level() const {
  return samples > 0 ? decibels(squares / samples / (kFullScale * kFullScale)) : kSilence;
}

double SoundPicture::Column::level(std::size_t bin) const {
  constexpr double kFullSine = kFullScale * kWindow / 4;  // under this window
  return spectra > 0 ? decibels(static_cast<double>(power[bin] / spectra) / (kFullSine * kFullSine)) : kSilence;
}

void SoundPicture::add(std::span<const std::int16_t> pcm) {
  samples_ += pcm.size();
  while (!pcm.empty()) {
    const std::size_t count = std::min(pcm.size(), kHop - pending_.size());
    pending_.insert(pending_.end(), pcm.begin(), pcm.begin() + static_cast<std::ptrdiff_t>(count));
    pcm = pcm.subspan(count);
    if (pending_.size() == kHop) addHop();
  }
}

void SoundPicture::addHop() {
  Column column;
  for (const int sample : pending_) {
    column.least = std::min(column.least, sample);
    column.most = std::max(column.most, sample);
    column.squares += static_cast<double>(sample) * sample;
  }
  column.samples = static_cast<double>(pending_.size());
  pending_.resize(kHop);
  std::array<Complex, kWindow> window;
  for (std::size_t i = 0; i < kHop; ++i) {
    window[i] = static_cast<float>(before_[i]) * kHann[i];
    window[i + kHop] = static_cast<float>(pending_[i]) * kHann[i + kHop];
  }
  capture::transform(window);
  for (std::size_t i = 0; i < kBins; ++i) column.power[i] = std::norm(window[i]);
  column.spectra = 1;
  before_.swap(pending_);
  pending_.clear();

  if (columns_.empty() || hops_ == hopsOfColumn_) {
    columns_.emplace_back();
    hops_ = 0;
  }
  columns_.back().merge(column);
  ++hops_;
  if (columns_.size() < kMostColumns || hops_ < hopsOfColumn_) return;
  for (std::size_t i = 0; i < kMostColumns / 2; ++i) {
    columns_[i] = columns_[2 * i];
    columns_[i].merge(columns_[2 * i + 1]);
  }
  columns_.resize(kMostColumns / 2);
  hopsOfColumn_ *= 2;
  hops_ = hopsOfColumn_;
}

void SoundPicture::flush() {
  if (!pending_.empty()) addHop();
}

double SoundPicture::seconds() const { return secondsOf(samples_); }

const SoundPicture::Column& SoundPicture::at(double part) const {
  const double hop = part * static_cast<double>(samples_) / static_cast<double>(kHop);
  const auto index = static_cast<std::size_t>(hop / static_cast<double>(hopsOfColumn_));
  return columns_[std::min(index, columns_.size() - 1)];
}

// ---- As a PNG file ----

namespace {

struct Colour {
  std::uint8_t red, green, blue;
};
constexpr Colour kPaper{255, 255, 255};
constexpr Colour kInk{50, 50, 50};
constexpr Colour kGrid{225, 225, 225};
constexpr Colour kWave{120, 160, 215};
constexpr Colour kLoudness{40, 80, 150};

constexpr int kWidth = 1200;
constexpr int kHeight = 590;
constexpr int kLeft = 80;  // of both plots
constexpr int kPlotWidth = SoundPicture::kMostColumns;
constexpr int kWaveTop = 44;
constexpr int kWaveHeight = 200;
constexpr int kSpectrumTop = 272;
constexpr int kSpectrumHeight = SoundPicture::kBins;
constexpr int kScaleLeft = kLeft + kPlotWidth + 16;  // of the colours
constexpr int kScaleWidth = 16;
constexpr int kLetter = 2;  // pixels of each of a letter's
constexpr int kLetterHeight = 7 * kLetter;
constexpr double kFaintest = -100;  // dBFS, in the spectrum

class Canvas {
 public:
  void fill(int left, int top, int width, int height, Colour colour) {
    for (int y = std::max(top, 0); y < std::min(top + height, kHeight); ++y) {
      for (int x = std::max(left, 0); x < std::min(left + width, kWidth); ++x) {
        pixels_[static_cast<std::size_t>(y * kWidth + x)] = colour;
      }
    }
  }
  void frame(int left, int top, int width, int height) {
    fill(left - 1, top - 1, width + 2, 1, kInk);
    fill(left - 1, top + height, width + 2, 1, kInk);
    fill(left - 1, top - 1, 1, height + 2, kInk);
    fill(left + width, top - 1, 1, height + 2, kInk);
  }
  // align: 0 the text begins at x, 0.5 its middle is there, 1 its end.
  void text(int x, int y, std::string text, double align = 0) {
    for (char& c : text) c = c >= ' ' && c <= '~' ? c : '?';
    struct Corner {
      float x, y, z;
      std::uint8_t colour[4];
    };
    std::vector<Corner> corners(4 * (60 * text.size() + 1));
    const int size = static_cast<int>(corners.size() * sizeof(Corner));
    const int quads = stb_easy_font_print(0, 0, text.data(), nullptr, corners.data(), size);
    x -= static_cast<int>(align * kLetter * stb_easy_font_width(text.data()));
    for (std::size_t i = 0; i < 4 * static_cast<std::size_t>(quads); i += 4) {
      const auto whole = [](float value) { return static_cast<int>(std::lround(value * kLetter)); };
      const Corner& from = corners[i];
      const Corner& to = corners[i + 2];
      fill(x + whole(from.x), y + whole(from.y), whole(to.x - from.x), whole(to.y - from.y), kInk);
    }
  }
  void write(const std::string& path) const {
    std::string png;
    const auto append = [](void* to, void* bytes, int count) {
      static_cast<std::string*>(to)->append(static_cast<const char*>(bytes), static_cast<std::size_t>(count));
    };
    stbi_write_png_to_func(append, &png, kWidth, kHeight, 3, pixels_.data(), kWidth * 3);
    writeOutput(path, png);
  }

 private:
  std::vector<Colour> pixels_ = std::vector<Colour>(kWidth * kHeight, kPaper);
};
static_assert(sizeof(Colour) == 3);

// Of a level: from black over violet and orange to white.
Colour colourOf(double dB) {
  static constexpr Colour stops[] = {{0, 0, 8}, {70, 15, 110}, {190, 55, 85}, {250, 150, 40}, {255, 255, 220}};
  const double at = std::clamp((dB - kFaintest) / -kFaintest, 0.0, 1.0) * (std::size(stops) - 1);
  const auto stop = std::min(static_cast<std::size_t>(at), std::size(stops) - 2);
  const double part = at - static_cast<double>(stop);
  const auto mix = [part](std::uint8_t a, std::uint8_t b) {
    return static_cast<std::uint8_t>(std::lround(a + part * (b - a)));
  };
  const Colour& a = stops[stop];
  const Colour& b = stops[stop + 1];
  return {mix(a.red, b.red), mix(a.green, b.green), mix(a.blue, b.blue)};
}

std::string number(double value) { return fmt::format("{:.10g}", value); }

constexpr double kMinute = 60;
constexpr double kHour = 60 * kMinute;

// As 1:05.
std::string clock(double seconds) {
  const auto minutes = std::lround(seconds / kMinute);
  return fmt::format("{}:{:02}", minutes / 60, minutes % 60);
}

// What stands at the end of an axis: hours, or seconds rounded as everywhere else, without zeros at their end.
std::string endOf(double seconds) {
  if (seconds >= kHour) return clock(seconds) + " h";
  return number(std::stod(fmt::format("{:.2f}", seconds))) + " s";
}

// Between two marks of an axis, so that there are ten at most.
double stepOf(double length) {
  if (length >= kHour) {
    for (const double minutes : {10, 15, 30, 60, 120}) {
      if (10 * minutes * kMinute >= length) return minutes * kMinute;
    }
    return 3 * kHour;
  }
  const double rough = length / 10;
  const double power = std::pow(10, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= rough) return factor * power;
  }
  return 10 * power;
}

void drawTimeAxis(Canvas& canvas, double seconds) {
  const int bottom = kSpectrumTop + kSpectrumHeight;
  const auto mark = [&](double at, const std::string& text) {
    const int x = kLeft + static_cast<int>(std::lround(at / seconds * kPlotWidth));
    canvas.fill(std::min(x, kLeft + kPlotWidth), bottom + 1, 1, 6, kInk);
    canvas.text(x, bottom + 10, text, 0.5);
  };
  const double step = stepOf(seconds);
  // The end is named, and so it has its room.
  const bool hours = seconds >= kHour;
  for (int i = 0; i * step < seconds - 0.6 * step; ++i) mark(i * step, hours ? clock(i * step) : number(i * step));
  mark(seconds, endOf(seconds));
  canvas.text(kLeft + kPlotWidth / 2, bottom + 12 + kLetterHeight, hours ? "hours:minutes" : "seconds", 0.5);
}

void drawWaveAxis(Canvas& canvas) {
  const auto height = [](double amplitude) {
    return kWaveTop + static_cast<int>(std::lround((1 - amplitude) * (kWaveHeight - 1) / 2));
  };
  for (const auto& [amplitude, name] :
       {std::pair(1.0, "0"), {0.5, "-6"}, {0.25, "-12"}, {-0.25, "-12"}, {-0.5, "-6"}, {-1.0, "0"}}) {
    canvas.fill(kLeft, height(amplitude), kPlotWidth, 1, kGrid);
    canvas.fill(kLeft - 7, height(amplitude), 6, 1, kInk);
    canvas.text(kLeft - 11, height(amplitude) - kLetterHeight / 2, name, 1);
  }
  canvas.text(4, height(0) - kLetterHeight / 2, "dBFS");
}

void drawSpectrumAxes(Canvas& canvas) {
  const auto height = [](double part) {
    return kSpectrumTop + static_cast<int>(std::lround((1 - part) * kSpectrumHeight));
  };
  for (int kHz = 0; kHz <= static_cast<int>(kTop); ++kHz) {
    canvas.fill(kLeft - 7, height(kHz / kTop), 6, 1, kInk);
    if (kHz % 2 == 0) canvas.text(kLeft - 11, height(kHz / kTop) - kLetterHeight / 2, std::to_string(kHz), 1);
  }
  canvas.text(4, height(0.5) - kLetterHeight / 2 + 2 * kLetterHeight, "kHz");
  for (int y = 0; y < kSpectrumHeight; ++y) {
    canvas.fill(kScaleLeft, kSpectrumTop + y, kScaleWidth, 1,
                colourOf(kFaintest * static_cast<double>(y) / (kSpectrumHeight - 1)));
  }
  canvas.frame(kScaleLeft, kSpectrumTop, kScaleWidth, kSpectrumHeight);
  for (int dB = 0; dB >= static_cast<int>(kFaintest); dB -= 25) {
    canvas.text(kScaleLeft + kScaleWidth + 6, height(1 - dB / kFaintest) - kLetterHeight / 2, std::to_string(dB));
  }
  canvas.text(kScaleLeft, kSpectrumTop - kLetterHeight - 8, "dBFS");
}

}  // namespace

void SoundPicture::write(const std::string& path, const std::string& title) {
  flush();
  if (columns_.empty()) return;
  Canvas canvas;
  canvas.text(kLeft, 12, title);
  drawWaveAxis(canvas);
  drawSpectrumAxes(canvas);
  drawTimeAxis(canvas, seconds());
  const auto wave = [](double sample) {
    return kWaveTop + static_cast<int>(std::lround((1 - sample / kFullScale) * (kWaveHeight - 1) / 2));
  };
  for (int x = 0; x < kPlotWidth; ++x) {
    const Column& column = at((x + 0.5) / kPlotWidth);
    const auto bar = [&](double from, double to, Colour colour) {
      canvas.fill(kLeft + x, wave(to), 1, wave(from) - wave(to) + 1, colour);
    };
    bar(column.least, column.most, kWave);
    const double rms = column.samples > 0 ? std::sqrt(column.squares / column.samples) : 0;
    bar(std::max<double>(-rms, column.least), std::min<double>(rms, column.most), kLoudness);
    for (std::size_t bin = 0; bin < kBins; ++bin) {
      const int y = kSpectrumTop + kSpectrumHeight - 1 - static_cast<int>(bin);
      canvas.fill(kLeft + x, y, 1, 1, colourOf(column.level(bin)));
    }
  }
  canvas.frame(kLeft, kWaveTop, kPlotWidth, kWaveHeight);
  canvas.frame(kLeft, kSpectrumTop, kPlotWidth, kSpectrumHeight);
  canvas.write(path);
}

// ---- In lines of characters ----

namespace {

constexpr std::size_t kRows = 4;   // of each of the two plots
constexpr double kQuietest = -60;  // dBFS, in the plot of the level
constexpr double kDarkest = -90;   // dBFS, in the spectrum
constexpr double kBrightest = -20;

// As full as this, or as bright: 0 to 1.
std::string cellOf(std::span<const char* const> cells, double part) {
  const auto last = static_cast<double>(cells.size() - 1);
  return cells[static_cast<std::size_t>(std::lround(std::clamp(part, 0.0, 1.0) * last))];
}

}  // namespace

std::vector<std::string> SoundPicture::lines(std::size_t width, bool unicode) {
  static const char* const blocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static const char* const shades[] = {" ", "░", "▒", "▓", "█"};
  static const char* const asciiBlocks[] = {" ", ".", ":", "#"};
  static const char* const asciiShades[] = {" ", ".", ":", "*", "#"};
  static const char* const labels[] = {"  0 dBFS ", "-15      ", "-30      ", "-45      ",
                                       "  8 kHz  ", "  6      ", "  4      ", "  2      "};
  const std::span<const char* const> fill = unicode ? std::span<const char* const>(blocks) : asciiBlocks;
  const std::span<const char* const> shade = unicode ? std::span<const char* const>(shades) : asciiShades;
  const std::size_t labelled = std::strlen(labels[0]);
  flush();
  if (columns_.empty() || width < labelled + 10) return {};
  const std::size_t plot = width - labelled;
  std::vector<std::string> lines(std::begin(labels), std::end(labels));
  for (std::size_t x = 0; x < plot; ++x) {
    // The loudest of what is there.
    double level = kSilence;
    std::array<double, kRows> bands;
    bands.fill(kSilence);
    const auto steps = std::max<std::size_t>(1, columns_.size() / plot);
    for (std::size_t i = 0; i < steps; ++i) {
      const Column& column = at((static_cast<double>(x) + (static_cast<double>(i) + 0.5) / static_cast<double>(steps)) /
                                static_cast<double>(plot));
      level = std::max(level, column.level());
      for (std::size_t bin = 0; bin < kBins; ++bin) {
        double& band = bands[bin * kRows / kBins];
        band = std::max(band, column.level(bin));
      }
    }
    for (std::size_t row = 0; row < kRows; ++row) {
      const auto fromBelow = static_cast<double>(kRows - 1 - row);
      lines[row] += cellOf(fill, (level - kQuietest) / -kQuietest * kRows - fromBelow);
      lines[kRows + row] += cellOf(shade, (bands[kRows - 1 - row] - kDarkest) / (kBrightest - kDarkest));
    }
  }
  const std::string end = endOf(seconds());
  lines.push_back(std::string(labelled, ' ') + "0" + std::string(plot - 1 - end.size(), ' ') + end);
  return lines;
}
