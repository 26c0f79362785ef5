// Texts as programs print them.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// UTF-8 of a wide text, whose characters are code points (16-bit wchar_t: those below U+D800 and above U+DFFF).
std::string utf8(std::wstring_view text);

// The other way; bytes that are no UTF-8 become U+FFFD.
std::wstring wide(std::string_view text);

}  // namespace sim
