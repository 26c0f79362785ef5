// Texts as programs print them.
#pragma once

#include <filesystem>

#include "support/Text.h"

namespace sim {

inline std::string utf8(std::wstring_view text) { return Utf8(text); }
inline std::wstring wide(std::string_view text) { return Wide(text); }

// The file of a name in UTF-8.
inline std::filesystem::path pathOf(std::string_view name) {
#ifdef _WIN32
  return Wide(name);
#else
  return name;
#endif
}

// The reverse.
inline std::string nameOf(const std::filesystem::path& file) {
#ifdef _WIN32
  return Utf8(file.wstring());
#else
  return file.string();
#endif
}

// Whether it is no folder, pipe or device, which could be read for ever; what is not there is said by whoever opens it.
inline bool isOfBytes(const std::filesystem::path& file) {
  std::error_code error;
  return !std::filesystem::exists(file, error) || std::filesystem::is_regular_file(file, error);
}

}  // namespace sim
