// A table in Markdown with aligned columns, so that a change of one cell is a change of one line.
#pragma once

#include <string>
#include <vector>

class MarkdownTable {
 public:
  explicit MarkdownTable(std::vector<std::string> header) : rows_{std::move(header)} {}

  /// Adds a row, which must have as many cells as the header.
  void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  /// The same, but a row that differs from the last one only in its first cell is merged into it.
  void add_or_join(std::vector<std::string> row);

  std::string text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};
