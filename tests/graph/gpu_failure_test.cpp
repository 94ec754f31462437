// What happens when a call of clDNN fails: every single one in turn, and what is refused before a
// call is made.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <map>

#include "fakes/Built.h"
#include "graph/GpuGraph.h"
#include "graph/cpu_backend.h"
#include "support/records.h"
#include "support/small_models.h"

namespace ravu::test {
namespace {

using ::testing::IsEmpty;

using Floats = std::vector<float>;

// The message that begins the error when this call fails.
std::string message_of(const std::string& line) {
  const std::string word = line.substr(0, line.find(' '));
  if (word == "type_id") return line.substr(8) + " type id failed";
  const std::map<std::string, std::string> messages{
      {"create_engine", "failed to create engine"},
      {"create_topology", "failed to create topology"},
      {"add", "primitive add failed"},
      {"build_program", "program creation failed"},
      {"allocate_network", "network allocation failed"},
      {"set_network_input", "set network input failed"},
      {"execute_network", "network execute failed"},
      {"get_network_output_names", "get network output ids failed"},
      {"get_network_output", "get network output failed"},
      {"wait_for_event", "wait event failed"},
      {"allocate_memory", "memory allocation failed"},
      {"lock_memory", "memory lock failed"},
      {"unlock_memory", "memory unlock failed"},
      {"get_memory_layout", "get memory layout failed"},
      {"release_memory", "release memory failed"},
      {"release_engine", "release engine failed"},
      {"release_topology", "retain topology failed"},
      {"release_program", "retain topology failed"},
      {"release_network", "retain topology failed"},
      {"release_event", "retain event failed"}};
  return messages.at(word);
}

ModelBuilder everything_small() {
  ModelBuilder model(4, 2);
  model.set("data_mean", random_tensor({1, 4, 4, 2}, 1));
  model.add_layer(conv_record("data", "c", {.inputs = 2, .kernels = 2}));
  model.add_layer(relu_record("c", "c"));
  model.add_layer(neuron_record("c", "f", 8, 3));
  return model.add_layer(layer("max", {"f"}, {"s"}));
}

// Sets up, runs and releases; the text of the error, if any.
std::string life_of(FakeCldnn& fake, std::unique_ptr<Network>& network) {
  fake.add_output("s", make_layout({1, 1, 3, 1}, CLDNN_FLOAT32), {1, 2, 3});
  try {
    setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
    forward_gpu(*network);
    network->release();
  } catch (const cldnn::error& error) {
    EXPECT_EQ(error.status(), CLDNN_ERROR);
    return error.what();
  }
  return {};
}

TEST(GpuFailure, OfAnyCallIsRaisedWithItsMessageAndLeaksNothing) {
  int calls = 0;
  {
    FakeCldnn fake;
    auto network = network_of(everything_small());
    EXPECT_EQ(life_of(fake, network), "");
    EXPECT_EQ(fake.live, 0);
    calls = fake.calls;
  }
  ASSERT_GT(calls, 40);
  for (int n = 0; n < calls; ++n) {
    FakeCldnn fake;
    fake.fail_at = n;
    auto network = network_of(everything_small());
    const std::string text = life_of(fake, network);
    const std::string& line = fake.transcript[static_cast<std::size_t>(n)];
    EXPECT_EQ(text, message_of(line) + ": the fake refuses") << line;
    network.reset();
    EXPECT_EQ(fake.live, 0) << line;
  }
}

TEST(GpuFailure, LeavesANetworkThatTheProcessorAndAnotherSetUpCanRun) {
  const auto reference = network_of(everything_small());
  setup_cpu(*reference, 0);
  const Floats image = random_values(32, 5);
  fill(*reference->input, image);
  forward_cpu(*reference, 0);
  int calls = 0;
  {
    FakeCldnn fake;
    const auto network = network_of(everything_small());
    setup_gpu(*network, /*release_weights=*/false, FakeCldnn::library());
    calls = fake.calls;
  }
  for (int n = 0; n < calls; ++n) {
    FakeCldnn fake;
    fake.fail_at = n;
    const auto network = network_of(everything_small());
    EXPECT_THROW(setup_gpu(*network, false, FakeCldnn::library()), cldnn::error);
    forward_gpu(*network);
    const bool runs = static_cast<bool>(network->gpu_handles.gpu_network);
    setup_cpu(*network, 0);
    fill(*network->input, image);
    forward_cpu(*network, 0);
    EXPECT_EQ(values_of(result_of(*network)), values_of(result_of(*reference))) << n << runs;
    EXPECT_TRUE(setup_gpu(*network, false, FakeCldnn::library())) << n;
  }
}

TEST(GpuFailure, TheSmallModelsLeaveNoReferenceBehindWhateverTheyAre) {
  for (const SmallModel& model : small_models()) {
    FakeCldnn fake;
    auto network = load(model.bytes).network;
    ASSERT_NE(network, nullptr) << model.name;
    EXPECT_TRUE(setup_gpu(*network, /*release_weights=*/true, FakeCldnn::library())) << model.name;
    network.reset();
    EXPECT_EQ(fake.live, 0) << model.name;
  }
}

TEST(GpuMemory, OfSizeZeroIsRefusedBeforeTheCall) {
  FakeCldnn fake;
  try {
    cldnn::allocate_memory(*FakeCldnn::library(), nullptr,
                           make_layout({1, 0, 1, 1}, CLDNN_FLOAT32));
    ADD_FAILURE() << "nothing was raised";
  } catch (const cldnn::error& error) {
    EXPECT_STREQ(error.what(), "size should be more than 0");
  }
  EXPECT_THAT(fake.transcript, IsEmpty());
}

TEST(GpuMemory, OfMoreElementsThanABlobHasIsRefusedBeforeTheCall) {
  FakeCldnn fake;
  const std::int32_t most = std::numeric_limits<std::int32_t>::max();
  EXPECT_THROW(cldnn::allocate_memory(*FakeCldnn::library(), nullptr,
                                      make_layout({most, most, most, most}, CLDNN_FLOAT32)),
               cldnn::error);
  EXPECT_THAT(fake.transcript, IsEmpty());
}

TEST(GpuMemory, OfAnotherTypeIsNotLocked) {
  FakeCldnn fake;
  const auto library = FakeCldnn::library();
  cldnn::Memory memory = cldnn::allocate_memory(*library, nullptr, make_layout({}, CLDNN_INT8));
  try {
    const cldnn::LockedMemory locked(*library, memory);
    ADD_FAILURE() << "nothing was raised";
  } catch (const cldnn::error& error) {
    EXPECT_STREQ(error.what(), "memory data type alignment do not match");
  }
  EXPECT_THAT(fake.lines({"lock_memory"}), IsEmpty());
}

TEST(GpuRelease, ThatFailsOnTheWayOutOfAnotherFailureEndsTheProcess) {
  EXPECT_DEATH(
      {
        FakeCldnn fake;
        cldnn::Engine engine = cldnn::create_engine(*FakeCldnn::library());
        fake.fail_at = fake.calls;
      },
      "");
}

}  // namespace
}  // namespace ravu::test
