// One line of the log, in a buffer of fixed size.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <string_view>

// Made of texts and decimal numbers, at most Size - 1 characters; what does not fit is cut off.
template <std::size_t Size>
class LogLine {
 public:
  template <class... Pieces>
  explicit LogLine(const Pieces&... pieces) {
    (Append(pieces), ...);
  }
  const wchar_t* Text() const { return text_.data(); }

 private:
  void Append(int number) { Append(std::to_wstring(number)); }
  void Append(std::wstring_view piece) {
    const std::size_t count = std::min(piece.size(), Size - 1 - length_);
    std::copy_n(piece.data(), count, text_.data() + length_);
    length_ += count;
  }

  std::array<wchar_t, Size> text_{};
  std::size_t length_ = 0;
};
