// Tables as wide as the terminal: cells that do not fit are wrapped, none is cut.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

enum class CellKind {
  kText,    ///< wrapped at blanks
  kList,    ///< wrapped at ", " first, which is left out there
  kNumber,  ///< at the right of its column
};

/// Columns have their least width on 80 columns, where the last one takes what is left. On more, those at the
/// left grow to their `most` first.
struct Column {
  const char* title;
  unsigned least, most;
  CellKind kind = CellKind::kText;
};

/// Returns the width of the terminal that standard output is; without one $COLUMNS, or else 80.
unsigned line_width();

/// Returns the row's lines, each with its end, for lines of `width`. There is a cell for each column.
std::string table_row(std::span<const Column> columns, std::span<const std::string> cells, unsigned width);
/// Prints the row on standard output at once, as wide as that is.
void print_table_row(std::span<const Column> columns, const std::vector<std::string>& cells);
void print_table_titles(std::span<const Column> columns);

}  // namespace sim
