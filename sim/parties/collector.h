// The log collector of the simulated camera: reads the logger's queue, prints, filters and counts.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "common/bytes.h"

namespace sim {

struct CollectorOptions {
  std::FILE* output = nullptr;  ///< where lines are written; may be null
  u8 level = 5;                 ///< lines above it are not printed
  std::string contains;         ///< lines without this text are not printed
};

class Collector {
 public:
  explicit Collector(const CollectorOptions& options);
  ~Collector();

  void pause(bool paused);  ///< a paused collector lets the queue fill
  /// Ends the collector and removes its queue, or starts it again with another one.
  void set_gone(bool gone);
  /// Fills the rest of the queue with lines of its own.
  void fill_queue();
  struct Counts {
    unsigned long lines, printed;
    unsigned long malformed;  ///< records whose length differs from the bytes received
  };
  Counts counts() const;
  /// Returns the last lines (at most 4096) as received, oldest first.
  std::string text() const;
  struct Line {
    unsigned long number;  ///< the first is 0
    char level;            ///< of "AEWIDV"
    std::string text;
  };
  /// Returns those of these lines that have this number or a higher one.
  std::vector<Line> lines(unsigned long from) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace sim
