// Capture files come from anywhere.
#include <array>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "tools/capture/Capture.h"
#include "tools/capture/Packets.h"

extern "C" std::size_t LLVMFuzzerMutate(unsigned char* data, std::size_t size, std::size_t most);

namespace {

// A file: its first byte chooses the form, the rest are packets, each after a byte with its length.
using Bytes = std::vector<std::uint8_t>;

void put(Bytes& bytes, std::uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<std::uint8_t>(value >> shift));
}

Bytes framed(std::span<const unsigned char> data) {
  constexpr std::array<std::uint32_t, 4> kLinks{252, 249, 220, 189};
  Bytes file;
  for (const std::uint32_t word : {0xA1B2C3D4U, 0x00040002U, 0U, 0U, 0xFFFFU, kLinks[data[0] % kLinks.size()]}) {
    put(file, word);
  }
  for (std::size_t at = 1; at < data.size();) {
    const std::size_t length = std::min<std::size_t>(data[at], data.size() - at - 1);
    put(file, static_cast<std::uint32_t>(at));
    put(file, 0);
    put(file, static_cast<std::uint32_t>(length));
    put(file, static_cast<std::uint32_t>(length));
    const auto packet = data.subspan(at + 1, length);
    file.insert(file.end(), packet.begin(), packet.end());
    at += 1 + length;
  }
  return file;
}

void check(std::span<const std::uint8_t> file) {
  const capture::Capture capture = capture::read(file);
  std::uint64_t before = 0;
  for (const capture::Event& event : capture.events) {
    // In the order of the file, in which each one is; and no event of an interface that is not there.
    if (event.offset < before || event.offset >= file.size() || event.time < 0) std::abort();
    if (event.hid < -1 || event.hid >= static_cast<int>(capture.interfaces.size())) std::abort();
    if (event.report.size() > file.size()) std::abort();
    before = event.offset;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::span<const unsigned char> bytes(data, size);
  check(bytes);
  if (size > 0) check(framed(bytes));
  return 0;
}

// Half of the inputs begin as a pcapng file with an interface of each kind, so that packets are reached.
extern "C" std::size_t LLVMFuzzerCustomMutator(unsigned char* data, std::size_t size, std::size_t most, unsigned seed) {
  static const Bytes start = [] {
    Bytes file;
    for (const std::uint32_t word : {0x0A0D0D0AU, 28U, 0x1A2B3C4DU, 1U, ~0U, ~0U, 28U}) put(file, word);
    for (const std::uint32_t link : {252U, 249U, 220U, 189U}) {
      for (const std::uint32_t word : {1U, 20U, link, 0U, 20U}) put(file, word);
    }
    // An enhanced packet of the first: our own, sent, with a heartbeat.
    for (const std::uint32_t word : {6U, 68U, 0U, 0U, 1U, 36U, 36U, 0x08000C00U, 0x6D786F76U, 0x6573756FU, 0x04002400U,
                                     0x01000000U, 0U, 0xFEF1FF05U, 0xEF0005C0U, 0U, 68U}) {
      put(file, word);
    }
    return file;
  }();
  if (seed % 2 == 0 && most > start.size() && (size < start.size() || std::memcmp(data, start.data(), 28) != 0)) {
    std::memcpy(data, start.data(), start.size());
    size = start.size();
  }
  return LLVMFuzzerMutate(data, size, most);
}
