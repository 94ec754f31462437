// Writes every small model of the tests into a folder, as the first corpus of the fuzz targets.
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "support/small_models.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: write_seeds FOLDER\n");
    return 2;
  }
  const std::filesystem::path folder = argv[1];
  std::filesystem::create_directories(folder);
  for (const auto& model : ravu::test::small_models()) {
    std::ofstream file(folder / (std::string(model.name) + ".ravu"), std::ios::binary);
    file.write(reinterpret_cast<const char*>(model.bytes.data()),
               static_cast<std::streamsize>(model.bytes.size()));
    if (!file) return 1;
  }
  return 0;
}
