#include "tools/markdown_table.h"

#include <algorithm>

void MarkdownTable::add_or_join(std::vector<std::string> row) {
  const bool same = std::equal(row.begin() + 1, row.end(), rows_.back().begin() + 1);
  if (!same) return add(std::move(row));
  rows_.back().front() += ", " + row.front();
}

std::string MarkdownTable::text() const {
  std::vector<std::size_t> widths(rows_.front().size(), 3);
  for (const auto& row : rows_)
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());

  const auto line = [&](const std::vector<std::string>& row) {
    std::string text = "|";
    for (std::size_t i = 0; i < row.size(); ++i)
      text += ' ' + row[i] + std::string(widths[i] - row[i].size(), ' ') + " |";
    return text + '\n';
  };
  std::string rule = "|";
  for (const std::size_t width : widths) rule += std::string(width + 2, '-') + '|';

  std::string text = line(rows_.front()) + rule + '\n';
  for (std::size_t i = 1; i < rows_.size(); ++i) text += line(rows_[i]);
  return text;
}
