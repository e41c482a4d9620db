// The files of the page, as they are in sim/web/page when the program is built.
#pragma once

#include <span>
#include <string_view>

namespace sim {

struct PageFile {
  std::string_view path;  ///< such as "/picture.js"; "/" is the page itself
  const char* type;       ///< for the header Content-Type
  std::span<const unsigned char> content;
};
std::span<const PageFile> page_files();

}  // namespace sim
