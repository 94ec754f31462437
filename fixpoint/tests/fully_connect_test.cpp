// Fully connected operators against the integer reference, to the bit.
#include <gtest/gtest.h>

#include <random>

#include "operators.h"

namespace ravu::fixpoint::test {
namespace {

using Values = std::vector<float>;

class Product : public Holder {
 public:
  Product(int outputs, int features, const Values& weights, const Values& bias)
      : Holder(function<FullyConnectCreate>(kFullyConnectCreate)(1)), outputs_(outputs) {
    usable_ = function<FullyConnectConfigure>(kFullyConnectConfigure)(
                  *this, outputs, features, weights.data(), bias.empty() ? nullptr : bias.data(),
                  false) &&
              function<FullyConnectFinish>(kFullyConnectFinish)(*this, 64);
  }

  std::optional<Values> run(int batch, const Values& input) const {
    const int features = static_cast<int>(input.size()) / batch;
    Values output(static_cast<std::size_t>(batch * outputs_));
    if (!usable_ ||
        !function<FullyConnectSetInput>(kFullyConnectSetInput)(*this, batch, features, input.data(),
                                                               127) ||
        !function<FullyConnectRun>(kFullyConnectRun)(*this, output.data(), 0.5F)) {
      return std::nullopt;
    }
    return output;
  }

 private:
  int outputs_;
  bool usable_;
};

std::size_t area(int a, int b) {
  return static_cast<std::size_t>(a) * static_cast<std::size_t>(b);
}

TEST(FullyConnected, AgreesWithTheReferenceToTheBitOnRandomSizes) {
  std::mt19937 random(3);
  const auto draw = [&](int low, int high) {
    return std::uniform_int_distribution<int>(low, high)(random);
  };
  for (unsigned i = 0; i < 150; ++i) {
    const int batch = draw(1, 6);
    const int features = draw(1, 300);
    const int outputs = draw(1, 80);
    const Values weights = random_values(area(features, outputs), i);
    const Values bias = draw(0, 1) == 1 ? random_values(area(outputs, 1), i + 1) : Values();
    const Values input =
        random_values(area(batch, features), i + 2, draw(0, 1) == 1 ? 0.0F : -1.0F);
    EXPECT_EQ(Product(outputs, features, weights, bias).run(batch, input),
              fully_connect(batch, features, outputs, weights, bias, input))
        << "case " << i;
  }
}

TEST(FullyConnected, LongRowsOfLargeSumsAreExact) {
  constexpr int kFeatures = 25088;
  for (const float least : {0.9F, -1.0F}) {
    Values weights = random_values(area(kFeatures, 3), 1, 0.8F, 1);
    for (std::size_t i = 0; i < kFeatures; ++i) weights[i] = -weights[i];
    const Values input = random_values(area(2, kFeatures), 2, least, 1);
    EXPECT_EQ(Product(3, kFeatures, weights, {}).run(2, input),
              fully_connect(2, kFeatures, 3, weights, {}, input));
  }
}

TEST(FullyConnected, TheBatchMayChangeAndImagesKeepTheirOwnSteps) {
  const Values weights = random_values(40, 5);
  const Values bias = random_values(4, 6);
  const Product product(4, 10, weights, bias);
  for (const int batch : {1, 5, 2, 1}) {
    Values input = random_values(area(batch, 10), 7);
    for (std::size_t i = 10; i < input.size(); ++i) input[i] *= 0.001F;
    EXPECT_EQ(product.run(batch, input), fully_connect(batch, 10, 4, weights, bias, input));
  }
}

TEST(FullyConnected, ABatchIsOneExecutionOfTheIntegerPrimitive) {
  const Product product(4, 10, random_values(40, 5), {});
  EXPECT_TRUE(product.run(6, random_values(60, 1)));
  EXPECT_EQ(function<Executions>(kExecutions)(product), 1U);
}

TEST(FullyConnected, SumsThatCouldPass32BitsAreRefused) {
  constexpr int kFeatures = 140000;
  const Product product(1, kFeatures, Values(kFeatures, 1.0F), {});
  EXPECT_FALSE(product.run(1, Values(kFeatures, 1.0F)));
}

}  // namespace
}  // namespace ravu::fixpoint::test
