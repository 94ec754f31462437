// Channel groups out of pixels and back.
#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

#include "kernels/kernels.h"

namespace ravu::kernels {
namespace {

std::vector<float> counting(std::size_t n) {
  std::vector<float> values(n);
  for (std::size_t i = 0; i < n; ++i) values[i] = static_cast<float>(i);
  return values;
}

TEST(SplitChannels, GivesEachGroupItsChannelsOfEveryPixel) {
  const auto input = counting(2 * 6);
  std::vector<float> slices(12);
  split_channels(input.data(), 2, 6, 3, 2, slices.data());
  EXPECT_EQ(slices, (std::vector<float>{0, 1, 6, 7, 2, 3, 8, 9, 4, 5, 10, 11}));
}

TEST(SplitChannels, ChannelsThatNoGroupHasAreLeftOut) {
  const auto input = counting(2 * 5);
  std::vector<float> slices(8);
  split_channels(input.data(), 2, 5, 2, 2, slices.data());
  EXPECT_EQ(slices, (std::vector<float>{0, 1, 5, 6, 2, 3, 7, 8}));
}

TEST(InterleaveChannels, PutsTheGroupsOfAPixelOneAfterAnother) {
  // Groups lie further apart than they are long.
  const std::vector<float> staging{0, 1, 2, 3, -1, 10, 11, 12, 13, -1};
  std::vector<float> output(8);
  interleave_channels(staging.data(), 5, 2, 2, 2, output.data(), 4);
  EXPECT_EQ(output, (std::vector<float>{0, 1, 10, 11, 2, 3, 12, 13}));
}

TEST(InterleaveChannels, LeavesTheChannelsOfOtherGroupsAlone) {
  for (const std::size_t run : {1U, 2U}) {
    const auto staging = counting(2 * 2 * run);
    std::vector<float> output(2 * 6, -1);
    interleave_channels(staging.data(), 2 * run, 2, 2, run, output.data() + 1, 6);
    const std::vector<float> expected =
        run == 1 ? std::vector<float>{-1, 0, 2, -1, -1, -1, -1, 1, 3, -1, -1, -1}
                 : std::vector<float>{-1, 0, 1, 4, 5, -1, -1, 2, 3, 6, 7, -1};
    EXPECT_EQ(output, expected);
  }
}

TEST(InterleaveChannels, UndoesASplitOfManyPixels) {
  for (const std::size_t pixels : {1U, 63U, 64U, 65U, 200U, 700U}) {
    for (const std::size_t groups : {1U, 2U, 7U}) {
      for (const std::size_t run : {1U, 3U}) {
        const auto input = counting(pixels * groups * run);
        std::vector<float> slices(input.size());
        std::vector<float> output(input.size());
        split_channels(input.data(), pixels, groups * run, groups, run, slices.data());
        interleave_channels(slices.data(), pixels * run, pixels, groups, run, output.data(),
                            groups * run);
        EXPECT_EQ(output, input) << pixels << " pixels, " << groups << " groups of " << run;
      }
    }
  }
}

}  // namespace
}  // namespace ravu::kernels
