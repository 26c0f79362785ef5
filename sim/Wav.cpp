#include "sim/Wav.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

#include "sim/Text.h"

namespace sim {
namespace {

constexpr int kPcm = 1;
constexpr int kExtensible = 0xFFFE;
constexpr int kSpeechRate = 16000;

std::uint32_t little(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t count) {
  std::uint32_t value = 0;
  for (std::size_t i = count; i-- > 0;) value = value << 8 | bytes[at + i];
  return value;
}

void put(std::vector<std::uint8_t>& bytes, std::uint32_t value, int count) {
  for (int i = 0; i < count; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void put(std::vector<std::uint8_t>& bytes, const char* tag) {
  for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(tag[i]));
}

bool is(std::span<const std::uint8_t> bytes, std::size_t at, const char* tag) {
  return std::memcmp(bytes.data() + at, tag, 4) == 0;
}

}  // namespace

Wav readWav(const std::string& path, std::string& error) {
  if (!isOfBytes(pathOf(path))) {
    error = path + ": not a file of bytes; expected a WAV file";
    return {};
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = path + ": " + std::strerror(errno);
    return {};
  }
  const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
  if (bytes.size() < 12 || !is(bytes, 0, "RIFF") || !is(bytes, 8, "WAVE")) {
    error = path + ": not a WAV file";
    return {};
  }
  Wav wav;
  for (std::size_t at = 12; bytes.size() - at >= 8;) {
    const std::size_t size = std::min<std::size_t>(little(bytes, at + 4, 4), bytes.size() - at - 8);
    const std::size_t content = at + 8;
    if (is(bytes, at, "fmt ") && size >= 16) {
      wav.formatTag = static_cast<int>(little(bytes, content, 2));
      if (wav.formatTag == kExtensible && size >= 26) wav.formatTag = static_cast<int>(little(bytes, content + 24, 2));
      wav.channels = static_cast<int>(little(bytes, content + 2, 2));
      wav.sampleRate = static_cast<int>(little(bytes, content + 4, 4));
      wav.bitsPerSample = static_cast<int>(little(bytes, content + 14, 2));
    } else if (is(bytes, at, "data") && wav.formatTag != 0) {
      wav.data.assign(bytes.begin() + static_cast<std::ptrdiff_t>(content),
                      bytes.begin() + static_cast<std::ptrdiff_t>(content + size));
      return wav;
    }
    at = std::min(bytes.size(), content + size + (size & 1));
  }
  error = path + ": a WAV file without " + (wav.formatTag == 0 ? "a format" : "samples");
  return {};
}

std::vector<std::int16_t> readSpeech(const std::string& path, std::string& error) {
  const Wav wav = readWav(path, error);
  if (wav.formatTag == 0) return {};
  if (wav.formatTag != kPcm || wav.channels != 1 || wav.sampleRate != kSpeechRate || wav.bitsPerSample != 16) {
    const std::string format = wav.formatTag == kPcm ? "PCM" : "format " + std::to_string(wav.formatTag);
    error = path + ": expected 16000 Hz, 1 channel, 16-bit PCM; found " + std::to_string(wav.sampleRate) + " Hz, " +
            std::to_string(wav.channels) + (wav.channels == 1 ? " channel, " : " channels, ") +
            std::to_string(wav.bitsPerSample) + "-bit " + format + ". Convert it with: sox " + path +
            " -r 16000 -c 1 -b 16 -e signed-integer speech16k.wav";
    return {};
  }
  std::vector<std::int16_t> samples(wav.data.size() / 2);
  for (std::size_t i = 0; i < samples.size(); ++i) samples[i] = static_cast<std::int16_t>(little(wav.data, 2 * i, 2));
  if (samples.empty()) error = path + ": no samples";
  return samples;
}

std::vector<std::uint8_t> wavHeader(std::uint32_t dataSize, int sampleRate) {
  std::vector<std::uint8_t> bytes;
  put(bytes, "RIFF");
  // Of a stream nobody knows either.
  put(bytes, dataSize == kUnknownSize ? kUnknownSize : kWavHeaderSize - 8 + dataSize, 4);
  put(bytes, "WAVE");
  put(bytes, "fmt ");
  put(bytes, 16, 4);
  put(bytes, kPcm, 2);
  put(bytes, 1, 2);
  put(bytes, static_cast<std::uint32_t>(sampleRate), 4);
  put(bytes, static_cast<std::uint32_t>(sampleRate) * 2, 4);
  put(bytes, 2, 2);
  put(bytes, 16, 2);
  put(bytes, "data");
  put(bytes, dataSize, 4);
  return bytes;
}

bool writeWav(const std::string& path, std::span<const std::int16_t> samples, int sampleRate, std::string& error) {
  std::vector<std::uint8_t> bytes = wavHeader(static_cast<std::uint32_t>(samples.size() * 2), sampleRate);
  for (const std::int16_t sample : samples) put(bytes, static_cast<std::uint16_t>(sample), 2);
  std::ofstream file(path, std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  file.close();
  if (file) return true;
  error = path + ": " + std::strerror(errno);
  return false;
}

}  // namespace sim
