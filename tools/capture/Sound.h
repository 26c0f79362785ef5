// Pictures of sound, as numbers.
#pragma once

#include <complex>
#include <cstdint>
#include <span>
#include <vector>

namespace capture {

// The discrete Fourier transform, in place, of a power of two values.
void transform(std::span<std::complex<float>> values);

// The lowest and the highest sample of each of so many equal parts, in 256ths of full scale: -128 to 127.
std::vector<int> waveform(std::span<const std::int16_t> pcm, std::size_t parts);

constexpr std::size_t kSpectrumRows = 64;  // from 0 to 8 kHz
// Levels of so many moments, each from low to high frequencies: 0 (-90 dB of full scale or less) to 255 (0 dB).
std::vector<std::uint8_t> spectrogram(std::span<const std::int16_t> pcm, std::size_t moments);

}  // namespace capture
