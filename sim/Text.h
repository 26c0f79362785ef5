// Texts as programs print them.
#pragma once

#include <string>
#include <string_view>

namespace sim {

// UTF-8 of a wide text: of code points where wchar_t has 32 bits, of UTF-16 where it has 16. Half a surrogate pair
// becomes U+FFFD.
std::string utf8(std::wstring_view text);

// The other way; bytes that are no UTF-8 become U+FFFD.
std::wstring wide(std::string_view text);

}  // namespace sim
