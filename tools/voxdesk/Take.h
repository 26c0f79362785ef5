// A recording under way: shows its level, and is written as it comes.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "Picture.h"
#include "Session.h"

// 16 kHz, mono, 16-bit. What has come is in the file at once, and its header knows, so that neither a signal nor a
// crash takes any of it. A file that was there before stays until the first sample comes.
class Take {
 public:
  // Fails now rather than after the recording: where its file, or its picture, cannot be written.
  static void checkWritable(const Options& options);
  // How long to record: until the source ends, or Ctrl-C, when nobody has said.
  static double durationOf(const Options& options, std::optional<double> source);

  Take(Session& session, const Options& options);
  ~Take();
  Take(const Take&) = delete;
  Take& operator=(const Take&) = delete;

  void add(const std::vector<std::int16_t>& more);
  double seconds() const { return secondsOf(samples_); }
  // Nothing more can be written.
  bool over() const { return !problem_.empty(); }
  // Ends it, and says what it has become. why: what has ended it that should not have. Throws then, and when it could
  // not be written, or when there is nothing.
  void finish(const std::string& why = {});

 private:
  void open();
  void write(const std::vector<std::int16_t>& more);
  void writeHeader(std::uint32_t dataSize);
  void failed();
  // Makes the header say what the file holds.
  void patch();
  std::string holds(const std::string& what) const;
  void show(const std::vector<std::int16_t>& more);
  void drawPictures();

  Session& session_;
  const std::string path_;  // or kStandardOutput
  const std::string name_;  // for people
  const bool raw_;
  const std::string picture_;  // where it goes; empty: nowhere
  SoundPicture sound_;
  std::FILE* file_ = nullptr;
  bool patches_ = false;  // its header can be, and has to be
  std::uint64_t samples_ = 0;
  int peak_ = 0;
  std::string problem_;
};
