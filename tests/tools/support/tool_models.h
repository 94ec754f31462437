// Models whose answers can be computed by hand.
#pragma once

#include "support/ModelBuilder.h"

namespace ravu::test {

// Input 2 x 2 x 3. Three outputs, "red", "green" and "blue": the average of each channel, 1 for
// 255.
ModelBuilder colour_model();

// Input 2 x 2 x 1. Two outputs without labels: the average brightness, and 1 minus that.
ModelBuilder brightness_model();

// Input 8 x 8 x 3. A convolution to 4 channels with ReLU in place, a pooling, a grouped
// convolution, a fully connected layer with 5 outputs, softmax.
ModelBuilder small_network();

// A detector whose prior boxes are the four quarters of its image, row by row, and never move. Each
// quarter is "red", "green" and "blue" (labels 1 to 3) with a score that is the channel's value at
// that pixel, 1 for 255; scores of 0.01 and less do not count. The image is 2 x 2 x 3; a larger
// input is cropped to it.
ModelBuilder quarter_detector(int input_size = 2);

// The same with other values for "keep_top_k".
ModelBuilder quarter_detector_of_rows(int keep_top_k);

}  // namespace ravu::test
