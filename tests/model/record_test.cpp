// Typed access to a record's keys: values, defaults, complaints.
#include "model/record.h"

#include <gtest/gtest.h>

#include "support/blobs.h"

namespace ravu::test {
namespace {

// A record of its own with the state that its getters complain to.
struct Keys {
  explicit Keys(const Dictionary& dictionary) : bytes(dictionary.bytes()) {
    state.network = &network;
    record = {root_tag(bytes.data(), bytes.size()), &state};
  }
  Bytes bytes;
  Network network;
  LoadState state;
  Record record;
};

const Bytes kThreeBytes = raw_bytes({1, 0, 0});
constexpr const char* kMissing = "key: the key is missing";
constexpr const char* kTooShort = "key: the value is too short";

TEST(RecordGetters, ReadWhatIsThere) {
  Keys keys(Dictionary()
                .add("int", -5)
                .add("float", 1.5F)
                .add("text", "max")
                .add("floats", small_floats({1, 2, 3}))
                .add("ints", small_ints({0, -1, 2, 3}))
                .add("record", Dictionary().add("inner", 7).bytes()));
  EXPECT_EQ(need_int(keys.record, "int"), -5);
  EXPECT_EQ(get_int(keys.record, "int", 9), -5);
  EXPECT_EQ(get_float(keys.record, "float", 9.0F), 1.5F);
  EXPECT_EQ(need_text(keys.record, "text"), "max");
  EXPECT_EQ(need_floats(keys.record, "floats"), (std::vector<float>{1, 2, 3}));
  EXPECT_EQ(need_four_ints(keys.record, "ints"), (std::array<std::int32_t, 4>{0, -1, 2, 3}));
  EXPECT_EQ(need_int(need_record(keys.record, "record"), "inner"), 7);
  EXPECT_FALSE(keys.state.failed);
}

TEST(RecordGetters, OptionalKeysHaveTheirDefault) {
  Keys keys{Dictionary()};
  EXPECT_EQ(get_int(keys.record, "key", 9), 9);
  EXPECT_EQ(get_float(keys.record, "key", 9.5F), 9.5F);
  EXPECT_FALSE(keys.state.failed);
}

// Every getter that insists, by the zero that it goes on with.
std::vector<void (*)(const Record&)> needs() {
  return {
      [](const Record& r) { EXPECT_FALSE(need_tag(r, "key")); },
      [](const Record& r) { EXPECT_EQ(need_int(r, "key"), 0); },
      [](const Record& r) { EXPECT_EQ(need_text(r, "key"), ""); },
      [](const Record& r) { EXPECT_TRUE(need_floats(r, "key").empty()); },
      [](const Record& r) { EXPECT_EQ(need_four_ints(r, "key")[3], 0); },
      [](const Record& r) { EXPECT_FALSE(need_tensor(r, "key")); },
      [](const Record& r) { EXPECT_FALSE(need_quantised_tensor(r, "key")); },
      [](const Record& r) { EXPECT_FALSE(need_record(r, "key").dictionary); },
  };
}

TEST(RecordGetters, AMissingRequiredKeyFailsTheLoad) {
  for (const auto need : needs()) {
    Keys keys{Dictionary()};
    need(keys.record);
    EXPECT_TRUE(keys.state.failed);
    EXPECT_EQ(keys.state.reason, kMissing);
  }
}

TEST(RecordGetters, AKeyOfARecordThatIsMissingFailsWithTheFirstReason) {
  Keys keys{Dictionary()};
  EXPECT_EQ(need_int(need_record(keys.record, "outer"), "inner"), 0);
  EXPECT_EQ(keys.state.reason, "outer: the key is missing");
}

TEST(RecordGetters, AValueThatIsTooShortFailsTheLoadThoughTheKeyIsOptional) {
  using Get = void (*)(const Record&);
  for (const Get get : std::initializer_list<Get>{
           [](const Record& r) { EXPECT_EQ(need_int(r, "key"), 0); },
           [](const Record& r) { EXPECT_EQ(get_int(r, "key", 9), 0); },
           [](const Record& r) { EXPECT_EQ(get_float(r, "key", 9.0F), 0.0F); },
       }) {
    Keys keys(Dictionary().add("key", kThreeBytes));
    get(keys.record);
    EXPECT_EQ(keys.state.reason, kTooShort);
  }
}

TEST(RecordGetters, AnArrayOfFourIntsNeedsSixteenBytes) {
  for (const std::vector<std::int32_t>& values :
       {std::vector<std::int32_t>{}, std::vector<std::int32_t>{1, 2, 3}}) {
    Keys keys(Dictionary().add("key", small_ints(values)));
    need_four_ints(keys.record, "key");
    EXPECT_EQ(keys.state.reason, kTooShort);
  }
  Keys more(Dictionary().add("key", small_ints({1, 2, 3, 4, 5})));
  EXPECT_EQ(need_four_ints(more.record, "key"), (std::array<std::int32_t, 4>{1, 2, 3, 4}));
  EXPECT_FALSE(more.state.failed);
}

TEST(RecordGetters, AnArrayWithoutItsChildIsTooShort) {
  Keys keys(Dictionary().add("key", element(4, {})));
  EXPECT_TRUE(need_floats(keys.record, "key").empty());
  EXPECT_EQ(keys.state.reason, kTooShort);
}

TEST(RecordGetters, AnArrayOfFloatsHasAnyLength) {
  Keys keys(Dictionary().add("key", small_floats({})));
  EXPECT_TRUE(need_floats(keys.record, "key").empty());
  EXPECT_FALSE(keys.state.failed);
}

TEST(RecordGetters, TensorsTakeTheNetworksLayout) {
  Keys keys(Dictionary().add("key", tensor({2}, {1, 2})));
  keys.network.layout = kPlanar;
  EXPECT_EQ(need_tensor(keys.record, "key")->layout, kPlanar);
  EXPECT_EQ(need_quantised_tensor(keys.record, "key")->layout, kPlanar);
}

TEST(RecordGetters, OnlyQuantisedTensorsFollowTheModelsFlag) {
  Keys keys(Dictionary().add("key", tensor({2}, {1, 2})));
  keys.state.quantised = true;
  EXPECT_TRUE(need_tensor(keys.record, "key"));
  EXPECT_FALSE(need_quantised_tensor(keys.record, "key"));
  EXPECT_EQ(keys.state.reason,
            "key: the quantised tensor needs one \"mean_f\" and one \"step_f\" for each block");
}

TEST(LoadState, KeepsTheFirstReasonWithItsPlace) {
  LoadState state;
  state.where = "layer 3 (conv)";
  state.fail("stride", "the key is missing");
  state.where = "layer 4 (pool)";
  state.fail("psize", "the key is missing");
  EXPECT_TRUE(state.failed);
  EXPECT_EQ(state.reason, "layer 3 (conv): stride: the key is missing");
}

TEST(LoadState, PlaceAndKeyMayBeEmpty) {
  LoadState rule;
  rule.fail({}, "out of memory");
  EXPECT_EQ(rule.reason, "out of memory");
  LoadState placed;
  placed.where = "layer 0 (relu)";
  placed.fail({}, "relu needs an input");
  EXPECT_EQ(placed.reason, "layer 0 (relu): relu needs an input");
}

}  // namespace
}  // namespace ravu::test
