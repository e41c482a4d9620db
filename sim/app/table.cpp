#include "sim/app/table.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "sim/app/text.h"

namespace sim {

namespace {

constexpr unsigned kUsualWidth = 80, kLeastWidth = 40, kMostWidth = 1000;
constexpr unsigned kGap = 1;
constexpr std::string_view kListGap = ", ";

std::vector<unsigned> widths_of(std::span<const Column> columns, unsigned width) {
  unsigned taken = 0;
  for (const Column& column : columns) taken += column.least + kGap;
  unsigned spare = std::max(width + kGap, taken) - taken;
  std::vector<unsigned> widths;
  for (const Column& column : columns) {
    const unsigned more = &column == &columns.back() ? spare : std::min(spare, column.most - column.least);
    widths.push_back(column.least + more);
    spare -= more;
  }
  return widths;
}

// Takes from the text what fits on a line.
std::string take_line(std::string_view& text, unsigned width, CellKind kind) {
  const std::string_view whole = text;
  std::size_t end = whole.size(), next = whole.size();
  if (whole.size() > width) {
    const auto comma = kind == CellKind::kList ? whole.rfind(kListGap, width) : std::string_view::npos;
    const auto blank = whole.rfind(' ', width);
    end = next = width;
    if (comma != std::string_view::npos) {
      end = comma, next = comma + kListGap.size();
    } else if (blank != std::string_view::npos && whole.find_first_not_of(' ') < blank) {
      end = blank, next = blank + 1;
    }
  }
  text = whole.substr(next);
  return std::string(whole.substr(0, end));
}

std::string in_column(std::string line, unsigned width, CellKind kind) {
  const std::string blanks(width - std::min<std::size_t>(width, line.size()), ' ');
  return kind == CellKind::kNumber ? blanks + line : line + blanks;
}

}  // namespace

unsigned line_width() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
    return std::clamp<unsigned>(size.ws_col, kLeastWidth, kMostWidth);
  const char* const columns = std::getenv("COLUMNS");
  return parse_number<unsigned>(columns ? columns : "", kLeastWidth, kMostWidth).value_or(kUsualWidth);
}

std::string table_row(std::span<const Column> columns, std::span<const std::string> cells, unsigned width) {
  const std::vector<unsigned> widths = widths_of(columns, width);
  std::vector<std::string_view> rest(cells.begin(), cells.end());
  std::string text;
  do {
    std::string line;
    for (std::size_t i = 0; i < columns.size(); ++i) {
      if (i) line.append(kGap, ' ');
      line += in_column(take_line(rest[i], widths[i], columns[i].kind), widths[i], columns[i].kind);
    }
    text += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
  } while (!std::ranges::all_of(rest, &std::string_view::empty));
  return text;
}

void print_table_row(std::span<const Column> columns, const std::vector<std::string>& cells) {
  std::fputs(table_row(columns, cells, line_width()).c_str(), stdout);
  std::fflush(stdout);
}

void print_table_titles(std::span<const Column> columns) {
  std::vector<std::string> titles;
  std::ranges::transform(columns, std::back_inserter(titles), &Column::title);
  print_table_row(columns, titles);
}

}  // namespace sim
