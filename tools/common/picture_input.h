// From image files to what a network reads.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "common/model_card.h"
#include "common/resize.h"
#include "graph/ravuGraph.h"

namespace ravu::tools {

// How a picture becomes the network's input.
struct PictureInput {
  Framing framing = Framing::kSquash;
  bool framing_given = false;  // by the user, who is obeyed before the model's card
  bool bgr = false;            // blue first
};

// Throws Failure unless the network has an output and reads pictures of one or three channels.
void check_takes_pictures(const Network& network, const std::string& model);

// The same, or the card's way where the user has not said how.
PictureInput obey_card(PictureInput input, const ModelCard& card);

// Reads an image file. None, after a line on standard error, when it cannot be read.
std::optional<Picture> read_or_report(const std::string& path);

// The picture in the size, the channels and the order that the network's input has: rows of pixels,
// 0..255. Letterbox borders are mid-grey.
std::vector<float> to_input(const Picture& picture, const Shape& input, const PictureInput& how);

// Where the image that the network looks at, its own centre crop considered, lies in the picture.
Area seen_area(const Picture& picture, const Network& network, Framing framing);

}  // namespace ravu::tools
