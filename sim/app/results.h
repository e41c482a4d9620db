// What a run found, for programs that read it: as JSON or, for a CI, as JUnit XML.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sim {

struct Finding {
  std::string group;  ///< such as "streams"
  std::string name;   ///< such as "MJPEG 1280x720"
  bool good;
  std::string verdict;  ///< what was found, in words
  double seconds = 0;   ///< how long it took
  std::vector<std::pair<std::string, double>> figures{};
};

/// Writes JUnit XML if the file's name ends in ".xml", and JSON otherwise. Prints an error and returns false
/// if the file cannot be written. `run` names what was run, such as "camera_sim".
bool write_results(const std::string& path, const std::string& run, const std::vector<Finding>& findings);

}  // namespace sim
