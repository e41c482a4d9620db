// The handling of words that the command line, the faults and the prompt share.
#pragma once

#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace sim {

/// What is wrong with what was written; empty: nothing.
using Complaint = std::string;

std::string lower(std::string_view text);
/// Returns the words that spaces separate.
std::vector<std::string> words_of(std::string_view text);
/// Joins words with spaces.
template <class Words>
std::string joined(const Words& words) {
  std::string text;
  for (const auto& word : words) text.append(text.empty() ? "" : " ").append(word);
  return text;
}

/// Returns nothing unless all of the text is a number within these limits. The base applies to whole numbers.
template <class Number>
std::optional<Number> parse_number(std::string_view text, Number least, Number most, int base = 10) {
  Number value{};
  const char* const end = text.data() + text.size();
  std::from_chars_result result{};
  if constexpr (std::is_floating_point_v<Number>) {
    result = std::from_chars(text.data(), end, value);
  } else {
    result = std::from_chars(text.data(), end, value, base);
  }
  if (result.ec != std::errc() || result.ptr != end || !(value >= least && value <= most))
    return std::nullopt;
  return value;
}

}  // namespace sim
