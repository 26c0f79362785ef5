#include "Table.h"

#include <algorithm>

namespace {

// Characters of UTF-8.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

}  // namespace

std::vector<std::string> Table::lines() const {
  std::vector<std::vector<std::string>> all(1);
  for (const Column& column : columns_) all.front().push_back(column.title);
  all.insert(all.end(), rows_.begin(), rows_.end());
  std::vector<std::string> lines(all.size());
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    std::size_t width = 0;
    for (const auto& row : all) width = std::max(width, widthOf(row[i]));
    for (std::size_t j = 0; j < all.size(); ++j) {
      const std::string space(width - widthOf(all[j][i]), ' ');
      lines[j] += "  " + (columns_[i].side == Side::right ? space + all[j][i] : all[j][i] + space);
    }
  }
  for (std::string& line : lines) line.erase(line.find_last_not_of(' ') + 1);
  return lines;
}
