// ravu_make_model NAME OUT: writes a model file with the shape of a well-known network and seeded
// random weights, for benchmarks.
//
//   vgg16   13 convolutions of 3 x 3, five max poolings, three fully connected layers; 224 x 224 x
//   3
//
// Containers state their length before their content. Weights are too many to keep in memory twice,
// so each container is written with length 0 and gets its length when it is closed.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace {

enum ElementType : std::uint32_t {
  kText = 0,
  kInt = 1,
  kFloatArray = 3,
  kDictionary = 4,
  kList = 5
};

class ModelFile {
 public:
  explicit ModelFile(const char* path) : file_(path, std::ios::binary) {}

  bool good() { return static_cast<bool>(file_.flush()); }

  void text(std::string_view characters) {
    std::string payload(characters);
    payload.resize((characters.size() + 4) / 4 * 4, '\0');
    header(kText, static_cast<std::uint32_t>(payload.size()));
    file_.write(payload.data(), static_cast<std::streamsize>(payload.size()));
  }

  void integer(std::int32_t value) {
    header(kInt, sizeof value);
    put(static_cast<std::uint32_t>(value));
  }

  // Values drawn evenly from -limit .. limit.
  void random_floats(std::uint32_t n, float limit) {
    header(kFloatArray, n * static_cast<std::uint32_t>(sizeof(float)));
    std::vector<float> values(n);
    for (float& value : values) {
      value = limit * (static_cast<float>(random_()) / 2147483648.0F - 1.0F);
    }
    file_.write(reinterpret_cast<const char*>(values.data()),
                static_cast<std::streamsize>(values.size() * sizeof(float)));
  }

  void open(ElementType type) {
    open_.push_back(file_.tellp());
    header(type, 0);
  }

  void close() {
    const std::streamoff start = open_.back();
    open_.pop_back();
    const std::streamoff end = file_.tellp();
    file_.seekp(start + 4);
    put(static_cast<std::uint32_t>(end - start - 8));
    file_.seekp(end);
  }

  void entry(std::string_view key, std::int32_t value) {
    text(key);
    integer(value);
  }

  void entry(std::string_view key, std::string_view value) {
    text(key);
    text(value);
  }

  void open_entry(std::string_view key, ElementType type) {
    text(key);
    open(type);
  }

  void list_entry(std::string_view key, std::string_view only) {
    open_entry(key, kList);
    text(only);
    close();
  }

 private:
  void header(std::uint32_t type, std::uint32_t length) {
    put(type);
    put(length);
  }

  // Little-endian, whatever the machine.
  void put(std::uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) file_.put(static_cast<char>(value >> shift & 0xFF));
  }

  std::ofstream file_;
  std::vector<std::streamoff> open_;  // where the open containers start
  std::mt19937 random_{16};
};

// Writes the layers of one chain; keeps the shape and the name of what the next layer reads.
class Chain {
 public:
  Chain(ModelFile& file, std::int32_t side, std::int32_t channels)
      : file_(file), side_(side), channels_(channels) {}

  // 3 x 3, stride 1, padding 1, then ReLU in place.
  void convolution(std::int32_t outputs) {
    begin("conv", next_name("conv"));
    file_.open_entry("spec", kDictionary);
    file_.entry("num_kernels", outputs);
    file_.entry("stride", 1);
    file_.entry("ksize", 3);
    file_.close();
    file_.entry("padding", 1);
    file_.entry("has_bias", 1);
    tensor("kernels", {outputs, 3, 3, channels_}, weight_limit(9 * channels_));
    tensor("bias", {1, 1, 1, outputs}, kBiasLimit);
    file_.close();
    channels_ = outputs;
    rectify();
  }

  // The maximum of 2 x 2, stride 2.
  void pooling() {
    begin("pool", next_name("pool"));
    file_.entry("psize", 2);
    file_.entry("stride", 2);
    file_.entry("mode", "max");
    file_.close();
    side_ = (side_ - 2 + 1) / 2 + 1;
  }

  void fully_connected(std::int32_t outputs, bool rectified) {
    const std::int32_t features = side_ * side_ * channels_;
    begin("neuron", next_name("fc"));
    file_.open_entry("spec", kDictionary);
    file_.entry("num_output", outputs);
    file_.close();
    tensor("weight", {features, outputs, 1, 1}, weight_limit(features));
    file_.entry("has_bias", 1);
    tensor("bias", {1, 1, 1, outputs}, kBiasLimit);
    file_.close();
    side_ = 1;
    channels_ = outputs;
    if (rectified) rectify();
  }

  void softmax() {
    begin("max", "prob");
    file_.close();
  }

 private:
  static constexpr float kBiasLimit = 0.1F;

  // Keeps the spread of the values through a layer with ReLU. The pixels, up to 255, become values
  // around 1 in the first layer.
  float weight_limit(std::int32_t inputs) {
    const float limit = std::sqrt(6.0F / static_cast<float>(inputs));
    return number_ == 1 ? limit / 128 : limit;
  }

  std::string next_name(const char* kind) { return kind + std::to_string(++number_); }

  void begin(std::string_view keyword, const std::string& output) {
    file_.open(kDictionary);
    file_.entry("class", keyword);
    file_.list_entry("input_layers", last_);
    file_.list_entry("output_layers", output);
    last_ = output;
  }

  void rectify() {
    begin("relu", last_);
    file_.close();
  }

  void tensor(std::string_view key, const std::vector<std::int32_t>& dims, float limit) {
    file_.open_entry(key, kDictionary);
    file_.entry("float_bits", 32);
    file_.open_entry("dims", kList);
    std::uint32_t count = 1;
    for (const std::int32_t dim : dims) {
      file_.integer(dim);
      count *= static_cast<std::uint32_t>(dim);
    }
    file_.close();
    file_.text("data");
    file_.random_floats(count, limit);
    file_.close();
  }

  ModelFile& file_;
  std::int32_t side_;
  std::int32_t channels_;
  std::string last_ = "data";
  int number_ = 0;
};

void write_root(ModelFile& file, std::int32_t side, std::int32_t channels,
                void (*write_layers)(Chain& chain)) {
  file.open(kDictionary);
  file.entry("layout", "BHWC");
  file.entry("input_size", side);
  file.entry("image_size", side);
  file.entry("input_channel_num", channels);
  file.entry("input_name", "data");
  file.open_entry("layers", kList);
  Chain chain(file, side, channels);
  write_layers(chain);
  file.close();
  file.close();
}

void vgg16(Chain& chain) {
  const std::vector<std::vector<std::int32_t>> blocks{
      {64, 64}, {128, 128}, {256, 256, 256}, {512, 512, 512}, {512, 512, 512}};
  for (const auto& block : blocks) {
    for (const std::int32_t outputs : block) chain.convolution(outputs);
    chain.pooling();
  }
  chain.fully_connected(4096, /*rectified=*/true);
  chain.fully_connected(4096, /*rectified=*/true);
  chain.fully_connected(1000, /*rectified=*/false);
  chain.softmax();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || std::strcmp(argv[1], "vgg16") != 0) {
    std::fputs("usage: ravu_make_model vgg16 OUT\n", stderr);
    return 2;
  }
  ModelFile file(argv[2]);
  write_root(file, 224, 3, vgg16);
  if (!file.good()) {
    std::fprintf(stderr, "ravu_make_model: cannot write %s\n", argv[2]);
    return 1;
  }
  return 0;
}
