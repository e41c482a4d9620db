#include "sim/web/json.h"

namespace sim {

Json json_in(const std::string& text) { return Json::parse(text, nullptr, false); }

std::string text_of(const Json& json) { return json.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace sim
