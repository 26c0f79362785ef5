// Texts as programs print them.
#pragma once

#include "support/Text.h"

namespace sim {

inline std::string utf8(std::wstring_view text) { return Utf8(text); }
inline std::wstring wide(std::string_view text) { return Wide(text); }

}  // namespace sim
