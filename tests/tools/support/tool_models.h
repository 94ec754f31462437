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

}  // namespace ravu::test
