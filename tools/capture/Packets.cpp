#include "tools/capture/Packets.h"

#include <vector>

namespace capture {
namespace {

constexpr std::uint32_t kSection = 0x0A0D0D0A;  // the same in both byte orders
constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint32_t kMicroseconds = 0xA1B2C3D4;
constexpr std::uint32_t kNanoseconds = 0xA1B23C4D;
constexpr std::int64_t kLatest = std::int64_t{1} << 60;

enum Block : std::uint32_t { kInterface = 1, kObsoletePacket = 2, kSimplePacket = 3, kEnhancedPacket = 6 };

std::string problemAt(std::uint64_t offset, const std::string& what) {
  return "at " + std::to_string(offset) + ": " + what;
}

std::string_view textOf(Span bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

std::uint64_t power(std::uint64_t base, unsigned exponent) {
  std::uint64_t value = 1;
  while (exponent-- > 0) value *= base;
  return value;
}

// The resolution of an interface's times: a power of ten, or of two with the highest bit.
std::int64_t microseconds(std::uint64_t units, std::uint8_t resolution, std::uint64_t offsetSeconds) {
  constexpr unsigned kMicro = 6;
  const unsigned exponent = resolution & 0x7FU;
  std::uint64_t time = 0;
  if (resolution & 0x80U) {
    const std::uint64_t seconds = exponent < 64 ? units >> exponent : 0;
    // So many bits of the fraction that its product with a million fits.
    const unsigned dropped = exponent > 40 ? exponent - 40 : 0;
    const std::uint64_t fraction =
        dropped < 64 ? (exponent < 64 ? units - (seconds << exponent) : units) >> dropped : 0;
    time = seconds * 1'000'000 + ((fraction * 1'000'000) >> (exponent - dropped));
  } else if (exponent <= kMicro) {
    time = units * power(10, kMicro - exponent);
  } else {
    time = exponent - kMicro < 20 ? units / power(10, exponent - kMicro) : 0;
  }
  time += offsetSeconds * 1'000'000;
  return static_cast<std::int64_t>(std::min<std::uint64_t>(time, kLatest));
}

// Calls `each` with the number and the value of each option.
template <typename Each>
void forOptions(const Numbers& options, const Each& each) {
  for (std::size_t at = 0; at + 4 <= options.bytes.size();) {
    const std::uint16_t code = options.u16(at);
    const std::size_t length = options.u16(at + 2);
    if (code == 0) return;
    each(code, Numbers(options.part(at + 4, length), options.big));
    at += 4 + (length + 3) / 4 * 4;
  }
}

class Pcapng {
 public:
  Pcapng(Span file, PacketSink& sink) : file_(file), sink_(sink) {}

  std::string read() {
    while (at_ < file_.size()) {
      const Span left = file_.subspan(at_);
      if (left.size() < kFrame)
        return problem("a block of " + std::to_string(left.size()) + " bytes; the file is cut off");
      if (Numbers(left, big_).u32(0) == kSection && !startSection(Numbers(left, false))) {
        return problem("a section without its byte order");
      }
      const Numbers block(left, big_);
      const std::size_t length = block.u32(4);
      if (length < kFrame || length % 4 != 0) return problem("a block of " + std::to_string(length) + " bytes");
      if (length > left.size()) {
        return problem("a block of " + std::to_string(length) + " bytes, of which " + std::to_string(left.size()) +
                       " are there");
      }
      if (block.u32(length - 4) != length) return problem("a block whose two lengths differ");
      const std::string wrong = read(block.u32(0), Numbers(block.part(8, length - kFrame), big_));
      if (!wrong.empty()) return problem(wrong);
      at_ += length;
    }
    return {};
  }

 private:
  static constexpr std::size_t kFrame = 12;  // what is in every block: its type, and its length twice

  struct Source {
    std::size_t number = 0;  // in the file
    std::size_t snapLength = 0;
    std::uint8_t resolution = 6;
    std::uint64_t offsetSeconds = 0;
  };

  std::string problem(const std::string& what) const { return problemAt(at_, what); }

  bool startSection(const Numbers& little) {
    const bool isLittle = little.u32(8) == kByteOrder;
    big_ = Numbers(little.bytes, true).u32(8) == kByteOrder;
    sources_.clear();
    return isLittle || big_;
  }

  std::string read(std::uint32_t type, const Numbers& body) {
    switch (type) {
      case kSection:
        forOptions(Numbers(body.part(16), big_), [this](std::uint16_t code, const Numbers& value) {
          if (code == 1) sink_.sectionComment(textOf(value.bytes));
          if (code == 4) sink_.madeBy(textOf(value.bytes));
        });
        return {};
      case kInterface:
        addInterface(body);
        return {};
      case kEnhancedPacket:
        return packet(body.u32(0), time(body.u32(0), body.u32(4), body.u32(8)), body, 20, body.u32(12));
      case kObsoletePacket:
        return packet(body.u16(0), time(body.u16(0), body.u32(4), body.u32(8)), body, 20, body.u32(12));
      case kSimplePacket: {
        const std::size_t snapLength = sources_.empty() ? 0 : sources_[0].snapLength;
        const std::size_t length = body.u32(0);
        return packet(0, time_, body, 4, snapLength == 0 ? length : std::min(length, snapLength));
      }
      default:
        return {};
    }
  }

  void addInterface(const Numbers& body) {
    Link link{.type = body.u16(0), .name = {}, .description = {}};
    Source source{.number = links_++, .snapLength = body.u32(4)};
    forOptions(Numbers(body.part(8), big_), [&](std::uint16_t code, const Numbers& value) {
      if (code == 2) link.name = textOf(value.bytes);
      if (code == 3) link.description = textOf(value.bytes);
      if (code == 9) source.resolution = value.u8(0);
      if (code == 14) source.offsetSeconds = value.u64(0);
    });
    sources_.push_back(source);
    sink_.link(link);
  }

  std::int64_t time(std::size_t source, std::uint64_t high, std::uint64_t low) const {
    if (source >= sources_.size()) return 0;
    return microseconds(high << 32 | low, sources_[source].resolution, sources_[source].offsetSeconds);
  }

  std::string packet(std::size_t source, std::int64_t when, const Numbers& body, std::size_t from, std::size_t length) {
    if (source >= sources_.size()) return "a packet of interface " + std::to_string(source) + ", which is not there";
    const Span data = body.part(from, length);
    if (data.size() < length) return "a packet that claims " + std::to_string(length) + " bytes";
    time_ = when;
    Packet packet{sources_[source].number, when, big_, data, {}, at_};
    forOptions(Numbers(body.part(from + (length + 3) / 4 * 4), big_), [&](std::uint16_t code, const Numbers& value) {
      if (code == 1) packet.comment = textOf(value.bytes);
    });
    sink_.packet(packet);
    return {};
  }

  const Span file_;
  PacketSink& sink_;
  std::size_t at_ = 0;
  bool big_ = false;
  std::size_t links_ = 0;
  std::vector<Source> sources_;  // of this section
  std::int64_t time_ = 0;        // of the packet before
};

std::string readClassic(const Numbers& file, bool nanoseconds, PacketSink& sink) {
  constexpr std::size_t kHead = 24;
  constexpr std::size_t kPacketHead = 16;
  if (file.bytes.size() < kHead) return problemAt(0, "the file is cut off in its head");
  sink.link({.type = file.u32(20) & 0xFFFF, .name = {}, .description = {}});
  for (std::size_t at = kHead; at < file.bytes.size();) {
    const std::size_t length = file.u32(at + 8);
    const Span data = file.part(at + kPacketHead, length);
    if (at + kPacketHead > file.bytes.size()) return problemAt(at, "the file is cut off in the head of a packet");
    if (data.size() < length) {
      return problemAt(at, "a packet of " + std::to_string(length) + " bytes, of which " + std::to_string(data.size()) +
                               " are there");
    }
    const std::int64_t fraction = nanoseconds ? file.u32(at + 4) / 1000 : file.u32(at + 4);
    sink.packet({0, std::int64_t{file.u32(at)} * 1'000'000 + fraction, file.big, data, {}, at});
    at += kPacketHead + length;
  }
  return {};
}

bool isClassic(std::uint32_t magic) { return magic == kMicroseconds || magic == kNanoseconds; }

}  // namespace

bool isCapture(Span file) {
  const std::uint32_t magic = Numbers(file, false).u32(0);
  return magic == kSection || isClassic(magic) || isClassic(Numbers(file, true).u32(0));
}

std::string readPackets(Span file, PacketSink& sink) {
  for (const bool big : {false, true}) {
    const Numbers numbers(file, big);
    const std::uint32_t magic = numbers.u32(0);
    if (magic == kSection) return Pcapng(file, sink).read();
    if (isClassic(magic)) return readClassic(numbers, magic == kNanoseconds, sink);
  }
  return problemAt(0, "neither pcapng nor pcap");
}

}  // namespace capture
