// JSON as the page and its scripts exchange it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace sim {

using Json = nlohmann::json;

/// Returns a discarded value for a text that is not JSON.
Json json_in(const std::string& text);
/// Returns it in one line; bytes that are not UTF-8 are replaced.
std::string text_of(const Json& json);

}  // namespace sim
