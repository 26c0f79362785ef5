// The blocks of a pcapng file, little endian, each ready to be written.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace capture {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint16_t kLinkExportedPdu = 252;

// Texts are UTF-8; an empty one is left out.
Bytes sectionHeader(std::string_view application, std::string_view comment);
// Packets with times in microseconds.
Bytes interfaceDescription(std::uint16_t linkType, std::string_view name, std::string_view description);
// time: microseconds since 1970.
Bytes enhancedPacket(std::uint32_t interface, std::int64_t time, std::span<const std::uint8_t> data,
                     std::string_view comment);

enum class PduDirection { none, sent, received };
// A report for the dissector of this protocol, as link type 252 has it.
Bytes exportedPdu(PduDirection direction, std::span<const std::uint8_t> report);

}  // namespace capture
