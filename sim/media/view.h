// Which part of the scene a picture shows. The scene is a tile that repeats mirrored in both directions
// around the head; pan, tilt and zoom move the picture over it.
#pragma once

#include "sim/media/av.h"
#include "sim/parties/camera_head.h"

namespace sim {

/// Where a picture is on the scene, in one direction. Both are measured in pixels from the edge of picture
/// and tile; the first pixel extends from 0 to 1.
struct ViewLine {
  double origin = 0;     ///< where in the scene the picture begins
  double per_pixel = 1;  ///< scene pixels per picture pixel; negative if mirrored
  double to_scene(double picture) const { return origin + picture * per_pixel; }
  double to_picture(double scene) const { return (scene - origin) / per_pixel; }
  bool operator==(const ViewLine&) const = default;
};

struct ViewMap {
  ViewLine x, y;
  bool operator==(const ViewMap&) const = default;
};

/// Returns the map for a picture of the tile's size. Straight ahead at zoom 1 it is ViewMap{}.
ViewMap map_of(const CameraView& view, int width, int height);

/// Draws what the map shows of the tile, with bilinear interpolation; whole pixels are copied exactly. Tile
/// and picture must be planar 4:2:0 and of the same size.
void draw_view(const AVFrame& tile, const ViewMap& map, AVFrame& picture);

}  // namespace sim
