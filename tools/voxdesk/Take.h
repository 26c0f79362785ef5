// A recording under way: shows its level, and becomes a WAV file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Session.h"

// 16 kHz, mono, 16-bit.
class Take {
 public:
  // Fails now rather than after the recording.
  static void checkWritable(const std::string& path);

  explicit Take(Session& session) : session_(session) {}
  void add(const std::vector<std::int16_t>& more);
  double seconds() const { return secondsOf(pcm_.size()); }
  void write(const std::string& path);

 private:
  Session& session_;
  std::vector<std::int16_t> pcm_;
};
