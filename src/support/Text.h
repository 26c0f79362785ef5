// Texts between the system's form and that of files and other languages.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

inline bool Contains(std::wstring_view text, std::wstring_view part) { return text.find(part) != text.npos; }

// UTF-8 of a wide text: of code points where wchar_t has 32 bits, of UTF-16 where it has 16. Half a surrogate pair
// becomes U+FFFD.
inline std::string Utf8(std::wstring_view text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    auto c = static_cast<std::uint32_t>(text[at]);
    if (c >= 0xD800 && c < 0xE000) {
      const std::uint32_t low = at + 1 < text.size() ? static_cast<std::uint32_t>(text[at + 1]) : 0;
      const bool pair = c < 0xDC00 && low >= 0xDC00 && low < 0xE000;
      if (pair) ++at;
      c = pair ? 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00) : 0xFFFD;
    }
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

// The other way; bytes that are no UTF-8 become U+FFFD.
inline std::wstring Wide(std::string_view text) {
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
    if (!good || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) code = 0xFFFD;
    if (sizeof(wchar_t) == 2 && code >= 0x10000) {
      result += static_cast<wchar_t>(0xD7C0 + (code >> 10));
      code = 0xDC00 | (code & 0x3FF);
    }
    result += static_cast<wchar_t>(code);
  }
  return result;
}
