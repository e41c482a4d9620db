// Pictures as PNG files.
#pragma once

#include <string>

#include "sim/media/av.h"

namespace sim {

/// Returns false if the picture cannot be encoded or the file cannot be written.
bool write_png(const AVFrame& picture, const std::string& path);

}  // namespace sim
