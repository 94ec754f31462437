// Any bytes as a model: loaded, set up, run, reshaped, run again, destroyed.
#include "fuzz/model_input.h"
#include "support/exercise.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto model = ravu::test::model_from(data, size);
  if (model) ravu::test::exercise(model.get(), size);
  return 0;
}
