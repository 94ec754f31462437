// Every number of every descriptor replaced by hostile ones, one or two at a time: whatever comes
// of it, it is a result or a status with a text. The sanitizers look for more.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <random>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

// Where numbers stand in a descriptor: `count` words of four bytes from `offset` on.
struct Numbers {
  size_t offset;
  size_t count;
};

Numbers sizes_at(size_t tensor_offset) {
  return {tensor_offset + 24, CLDNN_TENSOR_SIZES};
}

// Neither small enough to be harmless everywhere nor so large that only memory limits them.
const int32_t kHostile[] = {0,
                            -1,
                            1,
                            2,
                            7,
                            1 << 30,
                            -(1 << 30),
                            std::numeric_limits<int32_t>::max(),
                            std::numeric_limits<int32_t>::min(),
                            0x7fc00000 /* not a number */,
                            0x7f800000 /* infinite */};

class Spoiler {
 public:
  explicit Spoiler(unsigned seed) : generator_(seed) {}

  template <typename Descriptor>
  void spoil(Descriptor& descriptor, std::vector<Numbers> numbers) {
    numbers.push_back(sizes_at(offsetof(cldnn_primitive, output_padding.lower)));
    auto* bytes = reinterpret_cast<unsigned char*>(&descriptor);
    // The padding in one case of eight: it is refused as soon as it is looked at.
    const size_t groups = pick(8) == 0 ? numbers.size() : numbers.size() - 1;
    for (size_t i = 0; i <= pick(2) && groups > 0; ++i) {
      const Numbers& group = numbers[pick(groups)];
      const int32_t value = kHostile[pick(std::size(kHostile))];
      std::memcpy(bytes + group.offset + pick(group.count) * 4, &value, sizeof(value));
    }
  }

 private:
  size_t pick(size_t count) { return generator_() % count; }

  std::mt19937 generator_;
};

using Case = std::function<void(Graph&, Spoiler&)>;

void expect_an_answer(const Case& add) {
  for (unsigned seed = 0; seed < 200; ++seed) {
    Graph graph;
    Spoiler spoiler(seed);
    add(graph, spoiler);
    const Stage stage = graph.run();
    if (stage == Stage::kDone) {
      graph.result("out");
    } else {
      EXPECT_NE(graph.status(), CLDNN_SUCCESS);
      EXPECT_FALSE(graph.text().empty());
    }
  }
}

const Dims kIn = {2, 6, 5, 4};

TEST(Hostile, Activation) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_activation_desc>(cldnn_activation_type_id, "out", {"in"});
    desc.slope_input = "";
    spoiler.spoil(desc, {{offsetof(cldnn_activation_desc, negative_slope), 1}});
    graph.add(desc.header);
  });
}

TEST(Hostile, BatchNorm) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    graph.data("m", random_values({1, 6, 1, 1}, 1));
    auto desc = graph.describe<cldnn_batch_norm_desc>(cldnn_batch_norm_type_id, "out", {"in"});
    desc.mean = desc.variance = "m";
    spoiler.spoil(desc, {{offsetof(cldnn_batch_norm_desc, use_global_statistics), 2}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Concatenation) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1), CLDNN_FORMAT_BFYX);
    auto desc =
        graph.describe<cldnn_concatenation_desc>(cldnn_concatenation_type_id, "out", {"in", "in"});
    desc.axis = CLDNN_CONCATENATION_F;
    spoiler.spoil(desc, {{offsetof(cldnn_concatenation_desc, axis), 1}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Convolution) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    graph.data("w", random_values({7, 6, 3, 2}, 1));
    auto desc = graph.describe<cldnn_convolution_desc>(cldnn_convolution_type_id, "out", {"in"});
    desc.input_offset = tensor(0, 0, -1, -1);
    desc.stride = desc.dilation = tensor(1, 1, 1, 1);
    desc.split = 1;
    desc.weights = graph.ids({"w"});
    spoiler.spoil(desc, {sizes_at(offsetof(cldnn_convolution_desc, input_offset)),
                         sizes_at(offsetof(cldnn_convolution_desc, stride)),
                         sizes_at(offsetof(cldnn_convolution_desc, dilation)),
                         {offsetof(cldnn_convolution_desc, with_activation), 3}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Crop) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_crop_desc>(cldnn_crop_type_id, "out", {"in"});
    desc.reference_size = tensor(1, 3, 2, 2);
    desc.offsets = tensor(1, 1, 1, 1);
    spoiler.spoil(desc, {sizes_at(offsetof(cldnn_crop_desc, reference_size)),
                         sizes_at(offsetof(cldnn_crop_desc, offsets))});
    graph.add(desc.header);
  });
}

TEST(Hostile, DetectionOutput) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("location", random_values({2, 12, 1, 1}, 1), CLDNN_FORMAT_BFYX);
    graph.input("confidence", random_values({2, 6, 1, 1}, 2), CLDNN_FORMAT_BFYX);
    graph.input("prior", random_values({1, 2, 12, 1}, 3), CLDNN_FORMAT_BFYX);
    auto desc = graph.describe<cldnn_detection_output_desc>(cldnn_detection_output_type_id, "out",
                                                            {"location", "confidence", "prior"});
    desc.class_count = 2;
    desc.keep_top_k = 5;
    desc.share_location = 1;
    spoiler.spoil(desc, {{offsetof(cldnn_detection_output_desc, class_count), 10}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Eltwise) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_eltwise_desc>(cldnn_eltwise_type_id, "out", {"in"});
    desc.second_input = "in";
    spoiler.spoil(desc, {{offsetof(cldnn_eltwise_desc, mode), 3}});
    graph.add(desc.header);
  });
}

TEST(Hostile, FullyConnected) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    graph.data("w", random_values({3, 6, 5, 4}, 1));
    auto desc =
        graph.describe<cldnn_fully_connected_desc>(cldnn_fully_connected_type_id, "out", {"in"});
    desc.weights = "w";
    desc.bias = "";
    spoiler.spoil(desc, {{offsetof(cldnn_fully_connected_desc, with_activation), 2}});
    graph.add(desc.header);
  });
}

TEST(Hostile, InputLayout) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    auto desc = graph.describe<cldnn_input_layout_desc>(cldnn_input_layout_type_id, "out", {});
    desc.layout = layout(kIn, CLDNN_FORMAT_YXFB);
    const size_t at = offsetof(cldnn_input_layout_desc, layout);
    spoiler.spoil(desc, {{at + offsetof(cldnn_layout, data_type), 3},
                         sizes_at(at + offsetof(cldnn_layout, size)),
                         sizes_at(at + offsetof(cldnn_layout, padding.lower)),
                         sizes_at(at + offsetof(cldnn_layout, padding.upper))});
    graph.add(desc.header);
  });
}

TEST(Hostile, Lrn) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_lrn_desc>(cldnn_lrn_type_id, "out", {"in"});
    desc.size = 3;
    spoiler.spoil(desc, {{offsetof(cldnn_lrn_desc, size), 5}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Normalize) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    graph.data("s", along_x({1}));
    auto desc = graph.describe<cldnn_normalize_desc>(cldnn_normalize_type_id, "out", {"in"});
    desc.scale_input = "s";
    spoiler.spoil(desc, {{offsetof(cldnn_normalize_desc, across_spatial), 2}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Pooling) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_pooling_desc>(cldnn_pooling_type_id, "out", {"in"});
    desc.stride = tensor(1, 1, 1, 1);
    desc.size = tensor(1, 1, 2, 2);
    spoiler.spoil(desc, {{offsetof(cldnn_pooling_desc, mode), 1},
                         sizes_at(offsetof(cldnn_pooling_desc, input_offset)),
                         sizes_at(offsetof(cldnn_pooling_desc, stride)),
                         sizes_at(offsetof(cldnn_pooling_desc, size))});
    graph.add(desc.header);
  });
}

TEST(Hostile, PriorBox) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    const float one[] = {1};
    auto desc = graph.describe<cldnn_prior_box_desc>(cldnn_prior_box_type_id, "out", {"in"});
    desc.image_size = tensor(9, 9, 9, 9);
    desc.min_sizes = desc.aspect_ratios = desc.variances = {one, 1};
    spoiler.spoil(desc, {sizes_at(offsetof(cldnn_prior_box_desc, image_size)),
                         {offsetof(cldnn_prior_box_desc, flip), 2},
                         {offsetof(cldnn_prior_box_desc, step_width), 3}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Reorder) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_reorder_desc>(cldnn_reorder_type_id, "out", {"in"});
    desc.output_data_type = CLDNN_FLOAT32;
    desc.mean = "";
    spoiler.spoil(desc, {{offsetof(cldnn_reorder_desc, output_format), 2}});
    graph.add(desc.header);
  });
}

TEST(Hostile, Reshape) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_reshape_desc>(cldnn_reshape_type_id, "out", {"in"});
    desc.output_shape = tensor(2, 120, 1, 1);
    spoiler.spoil(desc, {sizes_at(offsetof(cldnn_reshape_desc, output_shape))});
    graph.add(desc.header);
  });
}

TEST(Hostile, Softmax) {
  expect_an_answer([](Graph& graph, Spoiler& spoiler) {
    graph.input("in", random_values(kIn, 1));
    auto desc = graph.describe<cldnn_softmax_desc>(cldnn_softmax_type_id, "out", {"in"});
    desc.dimension = 1;
    spoiler.spoil(desc, {{offsetof(cldnn_softmax_desc, dimension), 1}});
    graph.add(desc.header);
  });
}

}  // namespace
}  // namespace ravu::opencl::test
