// The packets of a capture file, whatever they hold: pcapng and classic pcap.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace capture {

using Span = std::span<const std::uint8_t>;

// Numbers at any place of some bytes, as if zeros followed them for ever.
class Numbers {
 public:
  Numbers(Span all, bool bigEndian) : bytes(all), big(bigEndian) {}
  std::uint8_t u8(std::size_t at) const { return at < bytes.size() ? bytes[at] : std::uint8_t{0}; }
  std::uint16_t u16(std::size_t at) const { return static_cast<std::uint16_t>(number(at, 2)); }
  std::uint32_t u32(std::size_t at) const { return static_cast<std::uint32_t>(number(at, 4)); }
  std::uint64_t u64(std::size_t at) const { return number(at, 8); }
  // As many of `count` bytes as there are.
  Span part(std::size_t at, std::size_t count = SIZE_MAX) const {
    at = std::min(at, bytes.size());
    return bytes.subspan(at, std::min(count, bytes.size() - at));
  }

  const Span bytes;
  const bool big;

 private:
  std::uint64_t number(std::size_t at, std::size_t count) const {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value = value << 8 | u8(at + (big ? i : count - 1 - i));
    return value;
  }
};

// What packets come from: an interface block of pcapng, or the one of a classic pcap.
struct Link {
  std::uint32_t type = 0;
  std::string name;
  std::string description;
};

struct Packet {
  std::size_t link = 0;  // the number of its Link, from 0 in the order of the file
  std::int64_t time = 0;
  bool bigEndian = false;  // how the file's numbers stand
  Span data;
  std::string_view comment;
  std::uint64_t offset = 0;
};

class PacketSink {
 public:
  virtual ~PacketSink() = default;
  virtual void madeBy(std::string_view program) = 0;
  virtual void sectionComment(std::string_view comment) = 0;
  virtual void link(const Link& link) = 0;
  virtual void packet(const Packet& packet) = 0;
};

bool isCapture(Span file);
// Returns why reading has ended before the end of the file; empty: all was read.
std::string readPackets(Span file, PacketSink& sink);

}  // namespace capture
