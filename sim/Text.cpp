#include "sim/Text.h"

#include <cstdint>

namespace sim {

std::string utf8(std::wstring_view text) {
  std::string result;
  for (const wchar_t wide : text) {
    const auto c = static_cast<std::uint32_t>(wide);
    const auto tail = [&](int shift) { result += static_cast<char>(0x80 | (c >> shift & 0x3F)); };
    if (c < 0x80) {
      result += static_cast<char>(c);
    } else if (c < 0x800) {
      result += static_cast<char>(0xC0 | c >> 6);
      tail(0);
    } else if (c < 0x10000) {
      result += static_cast<char>(0xE0 | c >> 12);
      tail(6);
      tail(0);
    } else {
      result += static_cast<char>(0xF0 | c >> 18);
      tail(12);
      tail(6);
      tail(0);
    }
  }
  return result;
}

std::wstring wide(std::string_view text) {
  std::wstring result;
  for (std::size_t at = 0; at < text.size();) {
    const auto lead = static_cast<std::uint8_t>(text[at++]);
    const int tails = lead < 0x80 ? 0 : lead < 0xC0 ? -1 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : lead < 0xF8 ? 3 : -1;
    std::uint32_t code = tails <= 0 ? lead : lead & (0x3FU >> tails);
    bool good = tails >= 0;
    for (int i = 0; i < tails && good; ++i) {
      good = at < text.size() && (static_cast<std::uint8_t>(text[at]) & 0xC0) == 0x80;
      if (good) code = code << 6 | (static_cast<std::uint8_t>(text[at++]) & 0x3F);
    }
    result += static_cast<wchar_t>(good ? code : 0xFFFD);
  }
  return result;
}

}  // namespace sim
