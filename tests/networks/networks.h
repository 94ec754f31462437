// The whole networks of these tests: small, but with the structure of the real ones.
#pragma once

#include <gtest/gtest.h>

#include <iosfwd>
#include <vector>

#include "support/handles.h"
#include "support/naive_network.h"

namespace ravu::test {

// Mean image, convolutions, pooling, a fully connected layer, softmax.
NaiveNetwork classifier(int size);
// The same without its mean, on the centre of 8 x 8 pixels of its input of 12 x 12.
NaiveNetwork cropped_classifier();
// Batch normalisation, scale and the sum of a branch and its input; no layer has a fixed size.
NaiveNetwork residual(int size);
// Grouped convolutions with local response normalisation.
NaiveNetwork grouped(int size);
// One group for each channel, then 1 x 1 convolutions.
NaiveNetwork depthwise(int size);
// Two feature maps with priors; the Blobs "locations", "scores" and "priors" end in "detections".
NaiveNetwork detector();
constexpr int kDetectorSize = 20;
DetectionOptions detector_options();

struct NamedNetwork {
  const char* name;
  NaiveNetwork (*make)(int size);
};
void PrintTo(const NamedNetwork& network, std::ostream* out);

// The networks that follow every batch, and those that follow every image size as well.
std::vector<NamedNetwork> classifying_networks();
std::vector<NamedNetwork> fully_convolutional_networks();

// A network that was created for `batch` images and set up for the processor.
class ReadyNetwork : public Handle {
 public:
  explicit ReadyNetwork(const NaiveNetwork& network, int batch = 1);

  // Hands in the images, whatever their number and size, runs, and gives the first output.
  std::vector<float> run(const Tensor& images) const;
  Tensor blob(const char* name) const;
};

// Whether no value is further away than a thousandth of the greatest expected magnitude.
testing::AssertionResult near(const std::vector<float>& values, const std::vector<float>& expected);

}  // namespace ravu::test
