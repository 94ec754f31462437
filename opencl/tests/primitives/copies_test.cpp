// Concatenation, crop, permute, reorder and reshape: what only moves or renames values.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "support/Graph.h"
#include "support/reference.h"

namespace ravu::opencl::test {
namespace {

const int32_t kFormats[] = {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BYXF, CLDNN_FORMAT_BFYX,
                            CLDNN_FORMAT_FYXB};

Values concatenated(const std::vector<Values>& parts, int32_t format, int axis, Stage* stage) {
  Graph graph;
  std::vector<std::string> names;
  for (const Values& part : parts) {
    names.push_back("in" + std::to_string(names.size()));
    graph.input(names.back().c_str(), part, format);
  }
  auto desc = graph.describe<cldnn_concatenation_desc>(cldnn_concatenation_type_id, "out", {});
  desc.header.input = graph.ids(names);
  desc.axis = axis;
  graph.add(desc.header);
  const Stage reached = graph.run();
  if (stage != nullptr) *stage = reached;
  return reached == Stage::kDone ? graph.result("out") : zeros({});
}

TEST(Concatenation, JoinsFeaturesOfInterleavedMaps) {
  for (int batch = 1; batch <= 3; ++batch) {
    const std::vector<Values> parts = {random_values({batch, 3, 4, 5}, 1),
                                       random_values({batch, 1, 4, 5}, 2),
                                       random_values({batch, 40, 4, 5}, 3)};
    expect_near(concatenated(parts, CLDNN_FORMAT_YXFB, CLDNN_CONCATENATION_F, nullptr),
                concatenate(parts, 'f'), 0);
  }
}

TEST(Concatenation, JoinsAlongEveryAxisOfPlanarMapsForEveryBatch) {
  for (int batch = 1; batch <= 3; ++batch) {
    const std::vector<Values> f = {random_values({batch, 3, 4, 5}, 1),
                                   random_values({batch, 2, 4, 5}, 2)};
    const std::vector<Values> x = {random_values({batch, 3, 4, 5}, 1),
                                   random_values({batch, 3, 4, 7}, 2)};
    const std::vector<Values> y = {random_values({batch, 3, 4, 5}, 1),
                                   random_values({batch, 3, 600, 5}, 2)};
    const auto join = [](const std::vector<Values>& parts, int axis) {
      return concatenated(parts, CLDNN_FORMAT_BFYX, axis, nullptr);
    };
    expect_near(join(f, CLDNN_CONCATENATION_F), concatenate(f, 'f'), 0);
    expect_near(join(x, CLDNN_CONCATENATION_X), concatenate(x, 'x'), 0);
    expect_near(join(y, CLDNN_CONCATENATION_Y), concatenate(y, 'y'), 0);
  }
}

TEST(Concatenation, TakesOneInputAndManyMoreThanALaunchDoes) {
  std::vector<Values> parts = {random_values({2, 3, 4, 5}, 1)};
  expect_near(concatenated(parts, CLDNN_FORMAT_YXFB, CLDNN_CONCATENATION_F, nullptr), parts[0], 0);
  for (unsigned i = 0; i < 19; ++i)
    parts.push_back(random_values({2, 1 + static_cast<int>(i) % 4, 4, 5}, i));
  expect_near(concatenated(parts, CLDNN_FORMAT_YXFB, CLDNN_CONCATENATION_F, nullptr),
              concatenate(parts, 'f'), 0);
}

TEST(Concatenation, RefusesAxesWithoutAKernelWhenBuilt) {
  const std::vector<Values> parts = {random_values({1, 3, 4, 5}, 1)};
  Stage stage = Stage::kDone;
  for (int axis : {0, 2, 3, 4, -1}) {
    concatenated(parts, CLDNN_FORMAT_YXFB, axis, &stage);
    EXPECT_EQ(stage, Stage::kBuild) << axis;
  }
  for (int axis : {0, 4, 2147483647}) {
    concatenated(parts, CLDNN_FORMAT_BFYX, axis, &stage);
    EXPECT_EQ(stage, Stage::kBuild) << axis;
  }
}

TEST(Concatenation, RefusesSizesThatDifferBesideTheAxisWhenAllocated) {
  Stage stage = Stage::kDone;
  concatenated({random_values({1, 3, 4, 5}, 1), random_values({1, 3, 5, 5}, 1)}, CLDNN_FORMAT_YXFB,
               CLDNN_CONCATENATION_F, &stage);
  EXPECT_EQ(stage, Stage::kAllocate);
}

TEST(Crop, TakesTheReferenceSizeFromTheOffsets) {
  for (int32_t format : {CLDNN_FORMAT_YXFB, CLDNN_FORMAT_BFYX}) {
    const Values in = random_values({3, 7, 9, 40}, 1);
    const Dims size = {2, 3, 4, 33};
    const Dims offsets = {1, 2, 5, 6};
    Graph graph;
    graph.input("in", in, format);
    auto desc = graph.describe<cldnn_crop_desc>(cldnn_crop_type_id, "out", {"in"});
    desc.reference_size = tensor(size.b, size.f, size.x, size.y);
    desc.offsets = tensor(offsets.b, offsets.f, offsets.x, offsets.y);
    graph.add(desc.header);
    expect_near(graph.result("out"), crop(in, size, offsets), 0);
  }
}

TEST(Crop, RefusesToReachOutOfItsInputWhenAllocated) {
  for (const cldnn_tensor& offsets :
       {tensor(1, 0, 0, 0), tensor(0, 2, 0, 0), tensor(0, 0, 3, 0), tensor(0, 0, 0, -1),
        tensor(0, 0, 2147483647, 0), tensor(-2147483647, 0, 0, 0)}) {
    Graph graph;
    graph.input("in", random_values({1, 4, 5, 5}, 1));
    auto desc = graph.describe<cldnn_crop_desc>(cldnn_crop_type_id, "out", {"in"});
    desc.reference_size = tensor(1, 3, 3, 3);
    desc.offsets = offsets;
    graph.add(desc.header);
    EXPECT_EQ(graph.run(), Stage::kAllocate);
  }
}

// The four sizes in memory order, slowest first.
std::array<int, 4> axes(const Dims& d, int32_t format) {
  switch (format) {
    case CLDNN_FORMAT_YXFB:
      return {d.y, d.x, d.f, d.b};
    case CLDNN_FORMAT_BYXF:
      return {d.b, d.y, d.x, d.f};
    case CLDNN_FORMAT_BFYX:
      return {d.b, d.f, d.y, d.x};
    default:
      return {d.f, d.y, d.x, d.b};
  }
}

// The memory as a four-dimensional array: output axis i is input axis order[i].
std::vector<float> permuted(const std::vector<float>& in, const std::array<int, 4>& sizes,
                            const std::array<uint16_t, 4>& order) {
  std::array<int, 4> out{};
  for (size_t i = 0; i < 4; ++i) out[i] = sizes[order[i]];
  std::vector<float> result;
  std::array<int, 4> at{};
  for (int i0 = 0; i0 < out[0]; ++i0) {
    for (int i1 = 0; i1 < out[1]; ++i1) {
      for (int i2 = 0; i2 < out[2]; ++i2) {
        for (int i3 = 0; i3 < out[3]; ++i3) {
          at[order[0]] = i0;
          at[order[1]] = i1;
          at[order[2]] = i2;
          at[order[3]] = i3;
          const int index = ((at[0] * sizes[1] + at[1]) * sizes[2] + at[2]) * sizes[3] + at[3];
          result.push_back(in[static_cast<size_t>(index)]);
        }
      }
    }
  }
  return result;
}

TEST(Permute, MovesMemoryAxesAndDeclaresSizesInTensorOrderForAllOrders) {
  const Values in = random_values({2, 3, 4, 5}, 1);
  for (int32_t format : kFormats) {
    std::array<uint16_t, 4> order = {0, 1, 2, 3};
    do {
      Graph graph;
      graph.input("in", in, format);
      auto desc = graph.describe<cldnn_permute_desc>(cldnn_permute_type_id, "out", {"in"});
      desc.order = {order.data(), order.size()};
      graph.add(desc.header);
      const Values out = graph.result("out");
      const std::array<int, 4> sizes = {2, 3, 5, 4};  // b, f, x, y
      EXPECT_EQ(out.dims,
                (Dims{sizes[order[0]], sizes[order[1]], sizes[order[3]], sizes[order[2]]}));
      EXPECT_EQ(to_memory(out, format),
                permuted(to_memory(in, format), axes(in.dims, format), order));
    } while (std::next_permutation(order.begin(), order.end()));
  }
}

TEST(Permute, RefusesListsThatAreNoOrderWhenAdded) {
  const std::vector<std::vector<uint16_t>> lists = {{},           {0, 1, 2},    {0, 1, 2, 3, 4},
                                                    {0, 1, 2, 2}, {0, 1, 2, 4}, {65535, 1, 2, 3}};
  for (const std::vector<uint16_t>& list : lists) {
    Graph graph;
    graph.input("in", random_values({1, 4, 5, 5}, 1));
    auto desc = graph.describe<cldnn_permute_desc>(cldnn_permute_type_id, "out", {"in"});
    desc.order = {list.data(), list.size()};
    graph.add(desc.header);
    EXPECT_EQ(graph.run(), Stage::kAdd);
  }
}

TEST(Reorder, KeepsValuesBetweenAllFormats) {
  const Values in = random_values({2, 19, 4, 5}, 1);
  for (int32_t from : kFormats) {
    for (int32_t to : kFormats) {
      Graph graph;
      graph.input("in", in, from);
      auto desc = graph.describe<cldnn_reorder_desc>(cldnn_reorder_type_id, "out", {"in"});
      desc.output_format = to;
      desc.output_data_type = CLDNN_FLOAT32;
      desc.mean = "";
      graph.add(desc.header);
      expect_near(graph.result("out"), in, 0);
      EXPECT_EQ(graph.result_layout("out").format, to);
    }
  }
}

TEST(Reorder, RefusesWhatItDoesNotDoWhenBuilt) {
  const auto run = [](auto spoil) {
    Graph graph;
    graph.input("in", random_values({1, 4, 5, 5}, 1));
    auto desc = graph.describe<cldnn_reorder_desc>(cldnn_reorder_type_id, "out", {"in"});
    desc.output_format = CLDNN_FORMAT_BFYX;
    desc.output_data_type = CLDNN_FLOAT32;
    desc.mean = "";
    spoil(desc);
    graph.add(desc.header);
    return graph.run();
  };
  EXPECT_EQ(run([](auto& desc) { desc.output_format = 4; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& desc) { desc.output_data_type = CLDNN_FLOAT16; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& desc) { desc.mean = "in"; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& desc) { desc.subtract.size = 1; }), Stage::kBuild);
}

cldnn_reshape_desc reshape(Graph& graph, const cldnn_tensor& shape) {
  auto desc = graph.describe<cldnn_reshape_desc>(cldnn_reshape_type_id, "out", {"in"});
  desc.output_shape = shape;
  return desc;
}

TEST(Reshape, IsAnotherViewOfTheSameMemory) {
  const Values in = random_values({1, 6, 4, 5}, 1);
  Graph graph;
  graph.input("in", in);
  graph.add(reshape(graph, tensor(1, 120, 1, 1)).header);
  const Values out = graph.result("out");
  EXPECT_EQ(out.dims, (Dims{1, 120, 1, 1}));
  EXPECT_EQ(to_memory(out, CLDNN_FORMAT_YXFB), to_memory(in, CLDNN_FORMAT_YXFB));
}

TEST(Reshape, ToTheShapeOfItsInputWorksToo) {
  const Values in = random_values({2, 6, 4, 5}, 1);
  Graph graph;
  graph.input("in", in);
  graph.add(reshape(graph, tensor(2, 6, 5, 4)).header);
  expect_near(graph.result("out"), in, 0);
}

TEST(Reshape, FollowsAnotherInputMemory) {
  Graph graph;
  graph.input("in", random_values({1, 6, 4, 5}, 1));
  graph.add(reshape(graph, tensor(1, 120, 1, 1)).header);
  auto rectified = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, "end", {"out"});
  rectified.negative_slope = 1;
  rectified.slope_input = "";
  graph.add(rectified.header);
  graph.result("end");
  const Values other = random_values({1, 6, 4, 5}, 2);
  cldnn_memory memory = upload(graph.engine(), other, CLDNN_FORMAT_YXFB);
  cldnn_set_network_input(graph.network(), "in", memory, nullptr);
  cldnn_release_memory(memory, nullptr);
  EXPECT_EQ(to_memory(graph.run_again("end"), CLDNN_FORMAT_YXFB),
            to_memory(other, CLDNN_FORMAT_YXFB));
}

TEST(Reshape, RefusesAnotherCountWhenAllocated) {
  Graph graph;
  graph.input("in", random_values({1, 6, 4, 5}, 1));
  graph.add(reshape(graph, tensor(1, 119, 1, 1)).header);
  EXPECT_EQ(graph.run(), Stage::kAllocate);
}

}  // namespace
}  // namespace ravu::opencl::test
