// Damaged models: whatever a file holds, loading it, running what still loads and destroying it
// touches no memory that is not the engine's. The sanitizers judge.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <random>
#include <string>

#include "support/captured.h"
#include "support/exercise.h"
#include "support/small_models.h"

namespace ravu::test {

void PrintTo(const SmallModel& model, std::ostream* out) {
  *out << model.name;
}

namespace {

class DamagedModel : public testing::TestWithParam<SmallModel> {
 protected:
  // Exercises a copy in a buffer of exactly its size.
  static bool exercise_copy(const Bytes& bytes) {
    const auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return exercise(copy.get(), bytes.size());
  }

  // Runs `damage` without its many messages.
  template <class Damage>
  static void quietly(Damage damage) {
    captured_stdout([&] { captured_stderr(damage); });
  }

  // Exercises the model with each byte replaced in turn.
  template <class Change>
  static void damage_each_byte(const Bytes& model, Change change) {
    quietly([&] {
      for (std::size_t i = 0; i < model.size(); ++i) {
        Bytes damaged = model;
        damaged[i] = static_cast<std::uint8_t>(change(model[i]));
        if (damaged[i] != model[i]) exercise_copy(damaged);
      }
    });
  }
};

TEST_P(DamagedModel, LoadsWhenItIsWhole) {
  quietly([] { EXPECT_TRUE(exercise_copy(GetParam().bytes)); });
}

TEST_P(DamagedModel, EveryShorterPrefixIsRefused) {
  const Bytes& model = GetParam().bytes;
  quietly([&] {
    for (std::size_t n = 0; n < model.size(); ++n) {
      EXPECT_FALSE(exercise_copy(Bytes(model.begin(), model.begin() + static_cast<long>(n)))) << n;
    }
  });
}

// The root's length says how long the prefix is, so that the damage lies deeper.
TEST_P(DamagedModel, EveryPrefixWithAMatchingRootIsSurvived) {
  const Bytes& model = GetParam().bytes;
  quietly([&] {
    for (std::size_t n = 8; n < model.size(); ++n) {
      Bytes prefix(model.begin(), model.begin() + static_cast<long>(n));
      for (int i = 0; i < 4; ++i) prefix[4 + i] = static_cast<std::uint8_t>((n - 8) >> (8 * i));
      exercise_copy(prefix);
    }
  });
}

TEST_P(DamagedModel, EveryByteSetToZeroIsSurvived) {
  damage_each_byte(GetParam().bytes, [](int) { return 0; });
}

TEST_P(DamagedModel, EveryByteSetTo255IsSurvived) {
  damage_each_byte(GetParam().bytes, [](int) { return 0xFF; });
}

TEST_P(DamagedModel, EveryByteWithItsHighBitFlippedIsSurvived) {
  damage_each_byte(GetParam().bytes, [](int byte) { return byte ^ 0x80; });
}

TEST_P(DamagedModel, EveryByteIncreasedByOneIsSurvived) {
  damage_each_byte(GetParam().bytes, [](int byte) { return byte + 1; });
}

TEST_P(DamagedModel, SeveralRandomBytesAtOnceAreSurvived) {
  const Bytes& model = GetParam().bytes;
  std::mt19937 random(1);
  quietly([&] {
    for (int round = 0; round < 1000; ++round) {
      Bytes damaged = model;
      for (unsigned i = 0; i <= random() % 4; ++i) {
        damaged[random() % damaged.size()] = static_cast<std::uint8_t>(random());
      }
      exercise_copy(damaged);
    }
  });
}

// Replaces the values of whole integer elements: sizes, counts, flags.
TEST_P(DamagedModel, RandomIntegersAreSurvived) {
  static constexpr std::int32_t kValues[] = {
      0,   1,   2,    3,     5,     8,     16,         -1,         -2,       63,
      255, 256, 4096, 65535, 65536, 46341, 0x3FFFFFFF, 0x7FFFFFFF, INT32_MIN};
  const Bytes& model = GetParam().bytes;
  const Bytes header{1, 0, 0, 0, 4, 0, 0, 0};
  std::vector<std::size_t> places;
  for (auto at = model.begin();; ++at) {
    at = std::search(at, model.end(), header.begin(), header.end());
    if (at == model.end()) break;
    places.push_back(static_cast<std::size_t>(at - model.begin()) + header.size());
  }
  std::mt19937 random(2);
  quietly([&] {
    for (int round = 0; round < 2000; ++round) {
      Bytes damaged = model;
      for (unsigned i = 0; i <= random() % 4; ++i) {
        const auto value = static_cast<std::uint32_t>(kValues[random() % std::size(kValues)]);
        const std::size_t place = places[random() % places.size()];
        for (int b = 0; b < 4; ++b)
          damaged[place + b] = static_cast<std::uint8_t>(value >> (8 * b));
      }
      exercise_copy(damaged);
    }
  });
}

INSTANTIATE_TEST_SUITE_P(Models, DamagedModel, testing::ValuesIn(small_models()),
                         [](const auto& model) { return std::string(model.param.name); });

}  // namespace
}  // namespace ravu::test
