// What a recording sounds like, gathered as it comes and then drawn: its waveform and its spectrum over time.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

// 16 kHz, mono. Memory is bounded, however long it is: when there are more columns than a picture is wide, neighbours
// become one. (A second pass over the file would need a file, and there is none behind a pipe.)
class SoundPicture {
 public:
  void add(std::span<const std::int16_t> pcm);
  // A PNG file. Throws when it cannot be written. title: shown as far as it is ASCII.
  void write(const std::string& path, const std::string& title);
  // The same in a few lines of so many characters at most.
  std::vector<std::string> lines(std::size_t width, bool unicode);

  static constexpr std::size_t kMostColumns = 1024;
  static constexpr std::size_t kHop = 256;           // samples
  static constexpr std::size_t kWindow = 2 * kHop;   // likewise, of a spectrum
  static constexpr std::size_t kBins = kWindow / 2;  // of a spectrum, up to 8 kHz

 private:
  struct Column {
    int least = 0;
    int most = 0;
    double squares = 0;
    double samples = 0;
    float spectra = 0;  // that are summed up in `power`
    std::array<float, kBins> power{};

    void merge(const Column& other);
    double level() const;                 // dBFS
    double level(std::size_t bin) const;  // likewise; of a full-scale sine of its frequency: 0
  };

  void addHop();
  // What has not filled a hop yet.
  void flush();
  double seconds() const;
  // The one at this part, 0 to 1, of the recording.
  const Column& at(double part) const;

  std::vector<Column> columns_;
  std::size_t hopsOfColumn_ = 1;
  std::size_t hops_ = 0;  // in the last column
  std::uint64_t samples_ = 0;
  std::vector<std::int16_t> before_ = std::vector<std::int16_t>(kHop);  // the hop before
  std::vector<std::int16_t> pending_;
};
