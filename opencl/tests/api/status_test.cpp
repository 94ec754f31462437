// The status protocol: codes, texts, null handles, what each stage refuses.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>

#include "support/Graph.h"

namespace ravu::opencl::test {
namespace {

TEST(Status, IsWrittenOnSuccessAndMayBeNull) {
  cldnn_status status = 77;
  cldnn_topology topology = cldnn_create_topology(&status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  cldnn_retain_topology(topology, nullptr);
  cldnn_release_topology(topology, nullptr);
  status = 77;
  cldnn_release_topology(topology, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
}

TEST(Status, NullHandlesAreRefusedEverywhere) {
  const auto expect_refused = [](auto call) {
    cldnn_status status = CLDNN_SUCCESS;
    call(&status);
    EXPECT_EQ(status, CLDNN_ERROR);
    call(nullptr);
  };
  expect_refused([](cldnn_status* s) { cldnn_retain_engine(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_release_engine(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_add_primitive(nullptr, nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_retain_topology(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_release_topology(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_build_program(nullptr, nullptr, nullptr, 0, s); });
  expect_refused(
      [](cldnn_status* s) { cldnn_build_program(shared_engine(), nullptr, nullptr, 0, s); });
  expect_refused([](cldnn_status* s) { cldnn_retain_program(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_release_program(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_allocate_network(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_retain_network(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_release_network(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_set_network_input(nullptr, "in", nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_execute_network(nullptr, nullptr, 0, s); });
  expect_refused(
      [](cldnn_status* s) { cldnn_get_network_output_names(nullptr, nullptr, 0, nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_get_network_output(nullptr, "out", s); });
  expect_refused([](cldnn_status* s) { cldnn_wait_for_event(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_retain_event(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_release_event(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_allocate_memory(nullptr, layout({}, 0), s); });
  expect_refused([](cldnn_status* s) { cldnn_lock_memory(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_unlock_memory(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_get_memory_layout(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_retain_memory(nullptr, s); });
  expect_refused([](cldnn_status* s) { cldnn_release_memory(nullptr, s); });
}

TEST(LastError, BelongsToTheThreadAndOutlivesSuccess) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_lock_memory(nullptr, &status);
  const std::string here = cldnn_get_last_error_message();
  EXPECT_NE(here.find("memory"), std::string::npos);
  std::thread([&] {
    EXPECT_STREQ(cldnn_get_last_error_message(), "no error has occurred");
    cldnn_wait_for_event(nullptr, nullptr);
  }).join();
  cldnn_release_topology(cldnn_create_topology(&status), &status);
  EXPECT_EQ(cldnn_get_last_error_message(), here);
}

TEST(Engine, UnknownTypesAndNumbersAreDeviceErrors) {
  cldnn_status status = CLDNN_SUCCESS;
  EXPECT_EQ(cldnn_create_engine(1, 0, nullptr, &status), nullptr);
  EXPECT_EQ(status, CLDNN_DEVICE_ERROR);
  EXPECT_EQ(cldnn_create_engine(CLDNN_ENGINE_OPENCL, 1, nullptr, &status), nullptr);
  EXPECT_EQ(status, CLDNN_DEVICE_ERROR);
}

TEST(Engine, TakesNoConfigurationButNoNullTexts) {
  cldnn_status status = CLDNN_SUCCESS;
  cldnn_engine engine = cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, nullptr, &status);
  EXPECT_EQ(status, CLDNN_SUCCESS);
  cldnn_release_engine(engine, &status);
  const cldnn_engine_configuration no_options = {0, 0, nullptr, ""};
  EXPECT_EQ(cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, &no_options, &status), nullptr);
  EXPECT_EQ(status, CLDNN_ERROR);
  const cldnn_engine_configuration no_kernel = {0, 0, "", nullptr};
  EXPECT_EQ(cldnn_create_engine(CLDNN_ENGINE_OPENCL, 0, &no_kernel, &status), nullptr);
  EXPECT_EQ(status, CLDNN_ERROR);
}

TEST(TypeIds, AreDistinctAndStayTheSame) {
  cldnn_type_id (*const functions[])(cldnn_status*) = {cldnn_activation_type_id,
                                                       cldnn_batch_norm_type_id,
                                                       cldnn_concatenation_type_id,
                                                       cldnn_convolution_type_id,
                                                       cldnn_crop_type_id,
                                                       cldnn_data_type_id,
                                                       cldnn_eltwise_type_id,
                                                       cldnn_detection_output_type_id,
                                                       cldnn_fully_connected_type_id,
                                                       cldnn_input_layout_type_id,
                                                       cldnn_lrn_type_id,
                                                       cldnn_normalize_type_id,
                                                       cldnn_permute_type_id,
                                                       cldnn_pooling_type_id,
                                                       cldnn_prior_box_type_id,
                                                       cldnn_proposal_type_id,
                                                       cldnn_reorder_type_id,
                                                       cldnn_reshape_type_id,
                                                       cldnn_scale_type_id,
                                                       cldnn_softmax_type_id};
  std::set<cldnn_type_id> ids;
  for (auto* function : functions) {
    cldnn_status status = 77;
    const cldnn_type_id id = function(&status);
    EXPECT_EQ(status, CLDNN_SUCCESS);
    EXPECT_NE(id, nullptr);
    EXPECT_EQ(function(nullptr), id);
    ids.insert(id);
  }
  EXPECT_EQ(ids.size(), std::size(functions));
}

TEST(Add, RefusesHeadersThatCannotBeUsed) {
  const auto run = [](auto spoil) {
    Graph graph;
    graph.input("in", zeros({1, 2, 2, 2}));
    auto desc = graph.describe<cldnn_softmax_desc>(cldnn_softmax_type_id, "out", {"in"});
    desc.dimension = 1;
    spoil(desc.header);
    graph.add(desc.header);
    EXPECT_EQ(graph.status(), graph.text().empty() ? CLDNN_SUCCESS : CLDNN_ERROR);
    return graph.run();
  };
  EXPECT_EQ(run([](auto&) {}), Stage::kDone);
  EXPECT_EQ(run([](auto& header) { header.type = nullptr; }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) {
              header.type = reinterpret_cast<cldnn_type_id>(&header);  // none of the library's
            }),
            Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.type = cldnn_proposal_type_id(nullptr); }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.id = nullptr; }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.id = ""; }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.id = "in"; }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.input = {nullptr, 1}; }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.input.size = 0; }), Stage::kAdd);
  EXPECT_EQ(run([](auto& header) { header.output_padding.upper.sizes[2] = 1; }), Stage::kAdd);
}

TEST(Build, RefusesInputsThatAreNotThereAndCycles) {
  Graph missing;
  missing.input("in", zeros({1, 2, 2, 2}));
  auto softmax = missing.describe<cldnn_softmax_desc>(cldnn_softmax_type_id, "out", {"nobody"});
  softmax.dimension = 1;
  missing.add(softmax.header);
  EXPECT_EQ(missing.run(), Stage::kBuild);
  EXPECT_NE(missing.text().find("nobody"), std::string::npos);

  Graph circle;
  for (const auto& [id, from] : {std::pair{"a", "b"}, {"b", "c"}, {"c", "a"}}) {
    auto desc = circle.describe<cldnn_softmax_desc>(cldnn_softmax_type_id, id, {from});
    desc.dimension = 1;
    circle.add(desc.header);
  }
  EXPECT_EQ(circle.run(), Stage::kBuild);
}

TEST(Build, RefusesOptionsThatDoNotExist) {
  const auto run = [](int32_t type, const void* data) {
    Graph graph;
    graph.input("in", zeros({1, 2, 2, 2}));
    return graph.run({{type, data}});
  };
  EXPECT_EQ(run(CLDNN_OPTION_FUSING, nullptr), Stage::kDone);
  EXPECT_EQ(run(CLDNN_OPTION_OPTIMIZE_DATA, nullptr), Stage::kDone);
  EXPECT_EQ(run(5, nullptr), Stage::kBuild);
  EXPECT_EQ(run(-1, nullptr), Stage::kBuild);
  EXPECT_EQ(run(CLDNN_OPTION_OUTPUTS, nullptr), Stage::kBuild);
  const cldnn_id names[] = {"nobody"};
  const cldnn_id_list outputs = {names, 1};
  EXPECT_EQ(run(CLDNN_OPTION_OUTPUTS, &outputs), Stage::kBuild);

  cldnn_status status = CLDNN_SUCCESS;
  cldnn_topology topology = cldnn_create_topology(&status);
  EXPECT_EQ(cldnn_build_program(shared_engine(), topology, nullptr, 1, &status), nullptr);
  EXPECT_EQ(status, CLDNN_ERROR);
  cldnn_release_topology(topology, &status);
}

TEST(Build, TakesAChainOfManyThousandPrimitives) {
  Graph graph;
  graph.input("p0", zeros({1, 8, 1, 1}));
  std::vector<std::string> names = {"p0"};
  for (int i = 1; i <= 20000; ++i) names.push_back("p" + std::to_string(i));
  for (size_t i = 1; i < names.size(); ++i) {
    auto desc = graph.describe<cldnn_reshape_desc>(cldnn_reshape_type_id, names[i].c_str(),
                                                   {names[i - 1].c_str()});
    desc.output_shape = tensor(1, 8, 1, 1);
    graph.add(desc.header);
  }
  EXPECT_EQ(graph.run(), Stage::kDone) << graph.text();
}

TEST(Data, RefusesANullMemory) {
  Graph graph;
  auto desc = graph.describe<cldnn_data_desc>(cldnn_data_type_id, "data", {});
  graph.add(desc.header);
  EXPECT_EQ(graph.run(), Stage::kAdd);
}

TEST(InputLayout, RefusesWhatNothingComputesOn) {
  const auto run = [](auto spoil) {
    Graph graph;
    auto desc = graph.describe<cldnn_input_layout_desc>(cldnn_input_layout_type_id, "in", {});
    desc.layout = layout({1, 2, 3, 4}, CLDNN_FORMAT_YXFB);
    spoil(desc.layout);
    graph.add(desc.header);
    return graph.run();
  };
  EXPECT_EQ(run([](auto&) {}), Stage::kExecute);  // no memory is set
  EXPECT_EQ(run([](auto& l) { l.data_type = CLDNN_FLOAT16; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& l) { l.format = 4; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& l) { l.format = -1; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& l) { l.padding.lower.sizes[2] = 1; }), Stage::kBuild);
  EXPECT_EQ(run([](auto& l) { l.size.sizes[5] = 0; }), Stage::kBuild);
}

}  // namespace
}  // namespace ravu::opencl::test
