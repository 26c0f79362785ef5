// One line of the log, in a buffer of fixed size.
#pragma once

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
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
  // Without a word of memory: a line may be all that can still be said.
  void Append(int number) {
    std::array<char, 12> digits;
    std::array<wchar_t, 12> wide;
    const char* const first = digits.data();
    const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    std::copy(first, end, wide.begin());
    Append(std::wstring_view(wide.data(), static_cast<std::size_t>(end - first)));
  }
  void Append(std::wstring_view piece) {
    const std::size_t count = std::min(piece.size(), Size - 1 - length_);
    std::copy_n(piece.data(), count, text_.data() + length_);
    length_ += count;
  }

  std::array<wchar_t, Size> text_{};
  std::size_t length_ = 0;
};
