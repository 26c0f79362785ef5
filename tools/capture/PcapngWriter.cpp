#include "tools/capture/PcapngWriter.h"

#include <algorithm>

namespace capture {

namespace {

constexpr std::uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr std::uint32_t kByteOrder = 0x1A2B3C4D;
constexpr std::uint32_t kInterfaceDescription = 1;
constexpr std::uint32_t kEnhancedPacket = 6;
constexpr std::uint16_t kComment = 1;
constexpr std::uint16_t kApplication = 4;
constexpr std::uint16_t kInterfaceName = 2;
constexpr std::uint16_t kInterfaceDescriptionText = 3;
constexpr std::uint16_t kResolution = 9;
constexpr std::uint16_t kDissectorName = 12;
constexpr std::uint16_t kDirection = 35;
constexpr std::string_view kDissector = "voxmouse";
constexpr std::size_t kLongestText = 0xFFFF;  // of an option

// A block that grows; its length stands before and behind its body.
class Block {
 public:
  explicit Block(std::uint32_t type) {
    add32(type);
    add32(0);
  }
  void add16(std::uint32_t value) { addNumber(value, 2); }
  void add32(std::uint64_t value) { addNumber(value, 4); }
  void add64(std::uint64_t value) { addNumber(value, 8); }
  void addPadded(std::span<const std::uint8_t> data) {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
    bytes_.resize((bytes_.size() + 3) / 4 * 4);
  }
  void addOption(std::uint16_t code, std::string_view text) {
    if (text.empty()) return;
    text = text.substr(0, kLongestText);
    add16(code);
    add16(static_cast<std::uint32_t>(text.size()));
    addPadded({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    hasOptions_ = true;
  }
  Bytes finish() {
    if (hasOptions_) add32(0);
    const std::size_t length = bytes_.size() + 4;
    add32(length);
    for (std::size_t i = 0; i < 4; ++i) bytes_[4 + i] = static_cast<std::uint8_t>(length >> (8 * i));
    return std::move(bytes_);
  }

 private:
  void addNumber(std::uint64_t value, int count) {
    for (int i = 0; i < count; ++i) bytes_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }

  Bytes bytes_;
  bool hasOptions_ = false;
};

void addTag(Bytes& bytes, std::uint16_t tag, std::span<const std::uint8_t> value) {
  for (const std::size_t number : {std::size_t{tag}, value.size()}) {
    bytes.push_back(static_cast<std::uint8_t>(number >> 8));
    bytes.push_back(static_cast<std::uint8_t>(number));
  }
  bytes.insert(bytes.end(), value.begin(), value.end());
  bytes.resize((bytes.size() + 3) / 4 * 4);
}

}  // namespace

Bytes sectionHeader(std::string_view application, std::string_view comment) {
  Block block(kSectionHeader);
  block.add32(kByteOrder);
  block.add16(1);
  block.add16(0);
  block.add64(~std::uint64_t{0});  // how long the section is, is not known
  block.addOption(kComment, comment);
  block.addOption(kApplication, application);
  return block.finish();
}

Bytes interfaceDescription(std::uint16_t linkType, std::string_view name, std::string_view description) {
  Block block(kInterfaceDescription);
  block.add16(linkType);
  block.add16(0);
  block.add32(0);  // packets are kept whole
  block.addOption(kInterfaceName, name);
  block.addOption(kInterfaceDescriptionText, description);
  block.addOption(kResolution, "\x06");
  return block.finish();
}

Bytes enhancedPacket(std::uint32_t interface, std::int64_t time, std::span<const std::uint8_t> data,
                     std::string_view comment) {
  Block block(kEnhancedPacket);
  block.add32(interface);
  block.add32(static_cast<std::uint64_t>(time) >> 32);
  block.add32(static_cast<std::uint64_t>(time) & 0xFFFFFFFF);
  block.add32(data.size());
  block.add32(data.size());
  block.addPadded(data);
  block.addOption(kComment, comment);
  return block.finish();
}

Bytes exportedPdu(PduDirection direction, std::span<const std::uint8_t> report) {
  Bytes bytes;
  addTag(bytes, kDissectorName, {reinterpret_cast<const std::uint8_t*>(kDissector.data()), kDissector.size()});
  if (direction != PduDirection::none) {
    addTag(bytes, kDirection, std::initializer_list<std::uint8_t>{0, 0, 0, static_cast<std::uint8_t>(direction == PduDirection::received)});
  }
  addTag(bytes, 0, {});
  bytes.insert(bytes.end(), report.begin(), report.end());
  return bytes;
}

}  // namespace capture
