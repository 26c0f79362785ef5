// WAV files, as far as speech needs them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace sim {

struct Wav {
  int formatTag = 0;  // 1: PCM
  int channels = 0;
  int sampleRate = 0;
  int bitsPerSample = 0;
  std::vector<std::uint8_t> data;  // the samples as they stand in the file
};

// Reads a file; on failure `error` says what is wrong with it and the result is empty (formatTag 0).
Wav readWav(const std::string& path, std::string& error);
// Reads a 16 kHz mono 16-bit file; anything else is an error that names what it found and how to convert it.
std::vector<std::int16_t> readSpeech(const std::string& path, std::string& error);
// What stands before so many bytes of 16-bit PCM, mono.
std::vector<std::uint8_t> wavHeader(std::uint32_t dataSize, int sampleRate);
constexpr std::uint32_t kWavHeaderSize = 44;
constexpr std::uint32_t kUnknownSize = 0xFFFFFFFF;  // of a stream, whose end is the end
// Writes 16-bit PCM, mono. False with a reason in `error` when the file cannot be written.
bool writeWav(const std::string& path, std::span<const std::int16_t> samples, int sampleRate, std::string& error);

}  // namespace sim
