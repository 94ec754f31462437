// The small file that docs/model-format.md shows byte by byte is what its text says it is.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "layers/ReluLayer.h"
#include "support/blobs.h"

namespace ravu::test {
namespace {

// The bytes of the last code block of the page: two columns, at fixed places of each line.
Bytes documented_bytes() {
  std::ifstream page(RAVU_DOCS_FOLDER "/model-format.md");
  Bytes bytes;
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    if (line.rfind("```", 0) == 0) {
      inside = line == "```text";
      continue;
    }
    if (!inside || line.rfind("offset", 0) == 0) continue;
    line.resize(68, ' ');
    for (std::size_t i = 8; i + 2 <= 68; ++i) {
      if (line[i] == ' ') continue;
      bytes.push_back(
          static_cast<std::uint8_t>(std::strtoul(line.substr(i, 2).c_str(), nullptr, 16)));
      ++i;
    }
  }
  return bytes;
}

TEST(DocumentedExample, IsTheModelThatTheTextDescribes) {
  const Bytes bytes = documented_bytes();
  EXPECT_EQ(bytes.size(), 308U);
  const auto result = load(bytes);
  ASSERT_TRUE(result.network) << result.reason;
  EXPECT_EQ(result.network->input->dims, (Dims{1, 2, 2, 1}));
  ASSERT_EQ(result.network->layers.size(), 1U);
  EXPECT_NE(dynamic_cast<ReluLayer*>(result.network->layers[0].get()), nullptr);
  EXPECT_EQ(result.network->outputs[0], result.network->input.get());
}

}  // namespace
}  // namespace ravu::test
