#include "sim/app/text.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <sstream>

namespace sim {

std::string lower(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(), [](unsigned char c) { return std::tolower(c); });
  return result;
}

std::vector<std::string> words_of(std::string_view text) {
  std::istringstream stream{std::string(text)};
  return {std::istream_iterator<std::string>(stream), {}};
}

}  // namespace sim
