// What a client gets of samples/sentence.wav spoken into a Wren: the same bytes on every system.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "sim/Wav.h"

// So many samples from the first on, and their FNV-1a hash as little-endian bytes.
inline constexpr std::size_t kSentenceSamples = 24'000;
inline constexpr std::uint64_t kSentenceHash = 16367590662949372471U;

inline std::uint64_t hashOf(std::span<const std::int16_t> samples) {
  std::uint64_t hash = 0xCBF29CE484222325U;
  const auto add = [&hash](int value) { hash = (hash ^ static_cast<std::uint8_t>(value)) * 0x100000001B3U; };
  for (const std::int16_t sample : samples) {
    add(sample & 0xFF);
    add(sample >> 8);
  }
  return hash;
}

inline std::vector<std::int16_t> spokenSentence() {
  std::string error;
  auto speech = sim::readSpeech(std::string(VOXDEVICE_SAMPLES) + "/sentence.wav", error);
  EXPECT_EQ(error, "");
  return speech;
}
