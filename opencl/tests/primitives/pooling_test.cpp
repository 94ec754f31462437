// Pooling: both modes, padding, windows at and over the border.
#include <gtest/gtest.h>

#include <random>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

cldnn_pooling_desc pool(Graph& graph, int mode, const PoolingCase& s) {
  auto desc = graph.describe<cldnn_pooling_desc>(cldnn_pooling_type_id, "out", {"in"});
  desc.mode = mode;
  desc.input_offset = tensor(0, 0, -s.pad_x, -s.pad_y);
  desc.stride = tensor(1, 1, s.stride_x, s.stride_y);
  desc.size = tensor(1, 1, s.window_x, s.window_y);
  return desc;
}

TEST(Pooling, AgreesWithTheNaiveOneOnRandomShapes) {
  std::mt19937 generator(1);
  const auto pick = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(generator);
  };
  for (unsigned i = 0; i < 80; ++i) {
    PoolingCase s;
    s.in = {pick(1, 3), pick(1, 40), pick(1, 12), pick(1, 12)};
    s.window_x = pick(1, 4);
    s.window_y = pick(1, 4);
    s.stride_x = pick(1, 3);
    s.stride_y = pick(1, 3);
    s.pad_x = pick(0, 4);  // also windows that lie wholly outside
    s.pad_y = pick(0, 4);
    const Values in = random_values(s.in, i);
    for (int mode : {CLDNN_POOLING_MAX, CLDNN_POOLING_AVERAGE}) {
      Graph graph;
      graph.input("in", in, i % 2 == 0 ? CLDNN_FORMAT_YXFB : CLDNN_FORMAT_BFYX);
      graph.add(pool(graph, mode, s).header);
      expect_near(graph.result("out"), pooling(in, mode, s));
    }
  }
}

TEST(Pooling, RoundsItsOutputSizeUp) {
  Graph graph;
  const PoolingCase s = {
      .in = {1, 1, 6, 6}, .window_x = 3, .window_y = 3, .stride_x = 2, .stride_y = 2};
  graph.input("in", random_values(s.in, 1));
  graph.add(pool(graph, 0, s).header);
  EXPECT_EQ(graph.result("out").dims, (Dims{1, 1, 3, 3}));
}

TEST(Pooling, RefusesWindowsWithoutAKernelWhenBuilt) {
  const auto run = [](auto spoil, int mode) {
    Graph graph;
    const PoolingCase s = {.in = {1, 3, 6, 6}, .window_x = 2, .window_y = 2};
    graph.input("in", random_values(s.in, 1));
    cldnn_pooling_desc desc = pool(graph, mode, s);
    spoil(desc);
    graph.add(desc.header);
    return graph.run();
  };
  const auto nothing = [](auto&) {};
  EXPECT_EQ(run(nothing, 0), Stage::kDone);
  EXPECT_EQ(run(nothing, 2), Stage::kBuild);
  EXPECT_EQ(run([](auto& d) { d.stride.sizes[CLDNN_X] = 0; }, 0), Stage::kBuild);
  EXPECT_EQ(run([](auto& d) { d.stride.sizes[CLDNN_Y] = -5; }, 0), Stage::kBuild);
  EXPECT_EQ(run([](auto& d) { d.size.sizes[CLDNN_Y] = 0; }, 0), Stage::kBuild);
  EXPECT_EQ(run([](auto& d) { d.size.sizes[CLDNN_X] = 2147483647; }, 0), Stage::kBuild);
  EXPECT_EQ(run([](auto& d) { d.input_offset.sizes[CLDNN_X] = 4; }, 0), Stage::kBuild);
  EXPECT_EQ(run([](auto& d) { d.input_offset.sizes[CLDNN_X] = -2147483647; }, 0), Stage::kBuild);
}

TEST(Pooling, AnOffsetThatLeavesNothingIsOutOfResources) {
  Graph graph;
  const PoolingCase s = {.in = {1, 3, 6, 6}, .pad_x = -3};
  graph.input("in", random_values(s.in, 1));
  graph.add(pool(graph, 0, s).header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
  EXPECT_EQ(graph.status(), CLDNN_OUT_OF_RESOURCES);
}

TEST(Pooling, AnOutputTooLargeForTheDeviceIsRefused) {
  Graph graph;
  const PoolingCase s = {.in = {1, 3, 6, 6}, .pad_x = 1 << 27, .pad_y = 1 << 27};
  graph.input("in", random_values(s.in, 1));
  graph.add(pool(graph, 0, s).header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
  EXPECT_EQ(graph.status(), CLDNN_OUT_OF_RESOURCES);
}

}  // namespace
}  // namespace ravu::opencl::test
