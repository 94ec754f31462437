// The fully connected product: against double precision, and the same bits for every number of
// threads.
#include <gtest/gtest.h>

#include <cmath>

#include "kernels/kernels.h"
#include "kernels/workers.h"
#include "support/ModelBuilder.h"
#include "support/reference.h"
#include "support/targets.h"

namespace ravu::test {
namespace {

struct Product {
  int batch, features, outputs;
};

// Around the pieces of outputs, the rows and the images that are taken together.
constexpr Product kProducts[] = {{1, 1, 1},    {1, 3, 63}, {1, 4, 64},   {2, 5, 65},
                                 {4, 7, 130},  {5, 9, 1},  {9, 16, 100}, {1, 30, 1025},
                                 {3, 2, 2049}, {1, 0, 5},  {1, 5, 4101}};

std::vector<float> multiply(const Product& p, std::size_t threads) {
  const auto size = [](int n) { return static_cast<std::size_t>(n); };
  kernels::Workers workers;
  workers.set_threads(threads);
  const auto input = random_values(size(p.batch * p.features), 1);
  const auto weights = random_values(size(p.features * p.outputs), 2);
  std::vector<float> output(size(p.batch * p.outputs), std::nanf(""));
  kernels::multiply(weights.data(), input.data(), output.data(), size(p.batch), size(p.features),
                    size(p.outputs), workers);
  return output;
}

TEST(FullyConnectedKernel, AgreesWithDoublePrecisionOnEveryProcessor) {
  for_each_target([] {
    for (const Product& p : kProducts) {
      const auto input = random_values(static_cast<std::size_t>(p.batch * p.features), 1);
      const auto weights = random_values(static_cast<std::size_t>(p.features * p.outputs), 2);
      const auto sums =
          reference::fully_connect(p.batch, p.features, p.outputs, input, weights, {});
      std::size_t where = 0;
      EXPECT_TRUE(reference::close_to(multiply(p, 1), sums, &where))
          << p.batch << " x " << p.features << " x " << p.outputs << " value " << where;
    }
  });
}

TEST(FullyConnectedKernel, EveryNumberOfThreadsGivesTheSameBits) {
  for (const Product& p : kProducts) {
    const std::vector<float> alone = multiply(p, 1);
    for (const std::size_t threads : {2, 3, 4}) {
      EXPECT_EQ(multiply(p, threads), alone) << p.outputs << " outputs, " << threads << " threads";
    }
  }
}

}  // namespace
}  // namespace ravu::test
