// A table for people: titles, and rows under them, as wide as their content.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

class Table {
 public:
  enum class Side { left, right };
  struct Column {
    std::string title;
    Side side = Side::left;
  };
  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  // A cell for each column.
  void add(std::vector<std::string> cells) {
    for (std::string& cell : cells) std::replace(cell.begin(), cell.end(), '\n', '?');
    rows_.push_back(std::move(cells));
  }
  // The titles first.
  std::vector<std::string> lines() const;

 private:
  const std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};
