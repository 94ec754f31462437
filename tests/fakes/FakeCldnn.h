// A clDNN that computes nothing: it writes down every call as a line of text, keeps what it is
// given, counts references, and fails a call when it is told to.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "graph/cldnn_library.h"

namespace ravu::test {

class FakeCldnn {
 public:
  // The functions of library() work on the latest FakeCldnn; there is one at a time.
  FakeCldnn();
  FakeCldnn(const FakeCldnn&) = delete;
  FakeCldnn& operator=(const FakeCldnn&) = delete;
  ~FakeCldnn();

  static cldnn::LibraryPtr library();

  // A result that the network offers after it was executed.
  void add_output(const std::string& name, const cldnn_layout& layout,
                  const std::vector<float>& values);

  // The lines that begin with one of these words; all lines without any.
  std::vector<std::string> lines(const std::vector<std::string>& first_words = {}) const;

  // The lines about primitives of the network's layers: no data, no input layout.
  std::vector<std::string> primitives() const;

  // What was uploaded for the data primitive of this name.
  const std::vector<float>& data(const std::string& name) const;

  // References that were handed out and not given back.
  int live = 0;

  // Fails the call with this number, counted from 0; none when negative.
  int fail_at = -1;
  int calls = 0;

  // The memory that was set as input last, as it was then.
  std::vector<float> input;
  cldnn_layout input_layout{};

  std::vector<std::string> transcript;
  std::map<std::string, std::vector<float>> uploaded;

  struct Result {
    cldnn_layout layout;
    std::vector<float> values;
  };
  std::map<std::string, Result> results;
};

// "1x3x4x5" for batch, feature, x, y; with a format other than yxfb before it.
std::string text_of(const cldnn_layout& layout);

}  // namespace ravu::test
