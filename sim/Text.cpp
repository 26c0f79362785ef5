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

}  // namespace sim
