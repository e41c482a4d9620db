// Times of the steady clock as numbers, for what is reported.
#pragma once

#include <chrono>

namespace sim {

inline double in_milliseconds(std::chrono::steady_clock::duration time) {
  return std::chrono::duration<double, std::milli>(time).count();
}

inline double milliseconds_since(std::chrono::steady_clock::time_point begin) {
  return in_milliseconds(std::chrono::steady_clock::now() - begin);
}

}  // namespace sim
