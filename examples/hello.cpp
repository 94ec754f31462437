// The same as hello.c, over the C++ wrapper: hello MODEL PICTURE.ppm.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <ravu/ravu.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

// The pixels of a binary PPM of size x size, red green blue.
std::vector<std::uint8_t> read_ppm(const std::string& path, std::uint32_t size) {
  std::ifstream file(path, std::ios::binary);
  std::string magic;
  std::uint32_t width = 0, height = 0, greatest = 0;
  file >> magic >> width >> height >> greatest;
  file.get();
  std::vector<std::uint8_t> pixels(std::size_t{size} * size * 3);
  file.read(reinterpret_cast<char*>(pixels.data()), static_cast<std::streamsize>(pixels.size()));
  if (!file || magic != "P6" || width != size || height != size) {
    throw std::runtime_error(path + " is no binary PPM of " + std::to_string(size) + " x " +
                             std::to_string(size) + " pixels");
  }
  return pixels;
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 3) throw std::runtime_error("usage: hello MODEL PICTURE.ppm");
  ravu::Model model(argv[1]);
  const std::uint32_t size = model.input_size();
  model.set_up(RAVU_MODE_CPU);
  model.set_input(read_ppm(argv[2], size), 1, size, size, 3);
  model.forward();

  const ravu::View scores = model.output(0);
  const auto best = std::max_element(scores.begin(), scores.end()) - scores.begin();
  std::printf("%s %.4f\n", model.labels()[best], scores.begin()[best]);
  return 0;
} catch (const std::exception& error) {
  std::cerr << "hello: " << error.what() << "\n";
  return 1;
}
