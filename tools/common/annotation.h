// Boxes with a line of text each, drawn onto a picture.
#pragma once

#include <string>
#include <vector>

#include "common/drawing.h"

namespace ravu::tools {

// Corners in pixels of the picture, inside it.
struct Mark {
  double left, top, right, bottom;
  std::string text;
  Colour colour;
};

// A colour that is easily told from those of the next indices; they repeat in the end.
Colour class_colour(std::uint32_t index);

// Draws the border of every mark, the first ones on top, and its text on a patch of its colour:
// above the box, or where else there is room at the box that no other text has taken. Lines and
// letters grow with the picture.
void draw_marks(Picture& picture, const std::vector<Mark>& marks);

}  // namespace ravu::tools
