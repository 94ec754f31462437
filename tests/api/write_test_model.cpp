// Writes the model of ravu_c_test and ravu_cpp_test to the path given.
#include <cstdio>
#include <fstream>

#include "support/models.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: write_test_model PATH\n", stderr);
    return 2;
  }
  const auto bytes = ravu::test::small_classifier().bytes();
  std::ofstream file(argv[1], std::ios::binary);
  file.write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  return file.flush() ? 0 : 1;
}
