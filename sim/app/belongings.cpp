#include "sim/app/belongings.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace sim {

std::string Belongings::text() const {
  return std::to_string(files) + " descriptors, " + std::to_string(threads) + " threads, " +
         std::to_string(mappings) + " mappings, " + std::to_string(own_kilobytes) + " kB";
}

Belongings belongings_of(pid_t process) {
  const auto folder = std::filesystem::path("/proc") / std::to_string(process);
  const auto entries = [&](const char* what) {
    std::error_code none;
    return std::distance(std::filesystem::directory_iterator(folder / what, none), {});
  };
  Belongings found{.files = entries("fd"), .threads = entries("task")};
  std::string line;
  for (std::ifstream maps(folder / "maps"); std::getline(maps, line);)
    found.mappings += line.find('/') != line.npos;
  constexpr std::string_view kOwn = "RssAnon:";
  for (std::ifstream status(folder / "status"); std::getline(status, line);)
    if (line.starts_with(kOwn)) found.own_kilobytes = std::atol(line.c_str() + kOwn.size());
  return found;
}

}  // namespace sim
