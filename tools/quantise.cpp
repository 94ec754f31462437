// The new file is made in memory, loaded from there and compared with the original; the disk sees
// it only when it is good. So the model may replace itself.
#include "quantise.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <utility>

#include "common/failure.h"
#include "common/layer_costs.h"
#include "common/printing.h"
#include "json.h"
#include "layers/ConvLayer.h"
#include "layers/FullyConnectLayer.h"
#include "model/network_writer.h"
#include "model/tag_writer.h"

namespace ravu::tools {
namespace {

constexpr const char* kOtherNetwork = "the saved model loads as another network";
constexpr std::size_t kNamedTensors = 8;  // in the line on standard error

struct NamedTensor {
  std::size_t layer;
  std::string key;
  const Blob* blob;
};

// The tensors that a quantised file stores in 8 bits, in the order of the layers.
std::vector<NamedTensor> quantised_tensors(const Network& network) {
  std::vector<NamedTensor> tensors;
  const auto add = [&](std::size_t layer, const std::string& key, const BlobPtr& blob) {
    if (blob) tensors.push_back({layer, key, blob.get()});
  };
  for (std::size_t i = 0; i < network.layers.size(); ++i) {
    const BaseLayer* layer = network.layers[i].get();
    if (const auto* conv = dynamic_cast<const ConvLayer*>(layer)) {
      for (std::size_t set = 0; set < conv->weights.size(); ++set) {
        const bool alone = conv->weights.size() == 1;
        const std::string prefix = alone ? "" : "layers[" + std::to_string(set) + "].";
        add(i, prefix + "kernels", conv->weights[set]);
        add(i, prefix + "bias", conv->biases[set]);
      }
    } else if (const auto* neuron = dynamic_cast<const FullyConnectLayer*>(layer)) {
      add(i, "weight", neuron->weights);
      add(i, "bias", neuron->bias);
    }
  }
  return tensors;
}

std::vector<TensorError> compare_tensors(const Network& original, const Network& quantised,
                                         double max_error) {
  const auto before = quantised_tensors(original);
  const auto after = quantised_tensors(quantised);
  if (before.size() != after.size()) throw Failure(kOtherNetwork);
  std::vector<TensorError> errors;
  for (std::size_t i = 0; i < before.size(); ++i) {
    const BaseLayer& layer = *original.layers[before[i].layer];
    const Blob* output = last_output(layer);
    Difference difference;
    difference.add(*before[i].blob, *after[i].blob);
    errors.push_back({before[i].layer, layer_class(layer), output == nullptr ? "" : output->name,
                      before[i].key, before[i].blob->count, difference.relative(),
                      difference.relative() <= max_error});
  }
  return errors;
}

// What shows how much two networks differ: the outputs, but for a table of detections, whose rows
// change places, the locations and scores that it is made from.
std::vector<const Blob*> compared_blobs(const Network& network) {
  std::vector<const Blob*> blobs;
  for (const Blob* output : network.outputs) {
    if (is_detector(network) && output == last_output(*network.layers.back())) {
      const auto& inputs = network.layers.back()->inputs;
      blobs.insert(blobs.end(), inputs.begin(), inputs.begin() + 2);
    } else if (blobs.empty() || blobs.back() != output) {
      // A Blob is listed once for each layer that writes it.
      blobs.push_back(output);
    }
  }
  return blobs;
}

std::vector<OutputDifference> compare_outputs(Network& original, Network& quantised) {
  set_up(original, /*mode=*/0);
  set_up(quantised, /*mode=*/0);
  const auto wanted = compared_blobs(original);
  const auto got = compared_blobs(quantised);
  if (wanted.size() != got.size()) throw Failure(kOtherNetwork);
  std::vector<Difference> differences(wanted.size());
  for (unsigned seed = 1; seed <= kSeededInputs; ++seed) {
    const auto pixels = seeded_pixels(original.input->count, seed);
    for (Network* network : {&original, &quantised}) {
      feed(*network, pixels);
      run(*network, /*mode=*/0);
    }
    for (std::size_t i = 0; i < wanted.size(); ++i) differences[i].add(*wanted[i], *got[i]);
  }
  std::vector<OutputDifference> outputs;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    outputs.push_back(
        {wanted[i]->name, wanted[i]->count, differences[i].relative(), differences[i].greatest});
  }
  return outputs;
}

std::size_t layer_records(const Tag& root) {
  std::size_t n = 0;
  for (TagWalk walk(get_tag_from_memory(root, "layers")); walk.next();) ++n;
  return n;
}

std::string tensors_text(const QuantiseReport& report) {
  using enum Table::Align;
  Table table({{"layer", kRight},
               {"class"},
               {"output"},
               {"tensor"},
               {"values", kRight},
               {"relative error", kRight},
               {""}});
  for (const TensorError& tensor : report.tensors) {
    table.add_row({std::to_string(tensor.layer), tensor.class_name,
                   tensor.output.empty() ? "-" : printable(tensor.output), tensor.tensor,
                   std::to_string(tensor.values), rounded(tensor.error),
                   tensor.accepted ? "" : "above " + rounded(report.max_error)});
  }
  return table.text();
}

std::string outputs_text(const QuantiseReport& report) {
  using enum Table::Align;
  Table table({{"compared on seeded inputs"},
               {"values", kRight},
               {"relative difference", kRight},
               {"greatest", kRight}});
  for (const OutputDifference& output : report.outputs) {
    table.add_row({printable(output.name), std::to_string(output.values), rounded(output.relative),
                   rounded(output.greatest)});
  }
  return table.text();
}

std::string text_of(const QuantiseReport& report) {
  std::string text = tensors_text(report) + '\n' + outputs_text(report) + '\n';
  if (report.was_quantised) text += "was quantised before: the errors come on top\n";
  for (const std::string& key : report.restored_keys) text += "kept      " + printable(key) + '\n';
  if (report.dropped_records > 0) {
    text += "left out  " + std::to_string(report.dropped_records) +
            (report.dropped_records == 1 ? " layer record" : " layer records") +
            " that the engine does not load\n";
  }
  return text + "bytes     " + std::to_string(report.bytes_before) + " -> " +
         std::to_string(report.bytes_after) + (report.written ? "\n" : " (not written)\n");
}

// One line that names the tensors, as far as a line goes.
std::string complaint(const QuantiseReport& report) {
  std::string names;
  std::size_t n = 0;
  for (const TensorError& tensor : report.tensors) {
    if (tensor.accepted || ++n > kNamedTensors) continue;
    names += (n == 1 ? " " : ", ") + printable(tensor.output) + ' ' + tensor.tensor + " (" +
             rounded(tensor.error) + ')';
  }
  if (n > kNamedTensors) names += " and " + std::to_string(n - kNamedTensors) + " more";
  return report.model + ": errors above " + rounded(report.max_error) +
         ", nothing is written:" + names;
}

}  // namespace

void Difference::add(const Blob& values, const Blob& others) {
  if (values.data == nullptr || others.data == nullptr) return;
  for (std::uint32_t i = 0; i < std::min(values.count, others.count); ++i) {
    const double difference = double{values.data[i]} - double{others.data[i]};
    squares += difference * difference;
    measure += double{values.data[i]} * double{values.data[i]};
    greatest = std::fmax(greatest, std::abs(difference));
  }
}

double Difference::relative() const {
  constexpr double kLeastDivisor = 1e-30;
  const double divisor = std::sqrt(measure);
  return std::sqrt(squares) / (divisor < kLeastDivisor ? kLeastDivisor : divisor);
}

FileImage restore_root_keys(FileImage root, const Tag& original,
                            std::vector<std::string>& restored) {
  std::set<std::string, std::less<>> present;
  for (TagWalk walk(root_tag(root.get())); walk.next(); walk.next()) {
    present.emplace(tag_text(walk.child));
  }
  std::vector<std::string> missing;
  std::map<std::string, Tag, std::less<>> values;  // of a key that is there twice, the last
  for (TagWalk walk(original); walk.next();) {
    const std::string key(tag_text(walk.child));
    if (!walk.next()) break;
    if (present.count(key) > 0) continue;
    if (values.count(key) == 0) missing.push_back(key);
    values[key] = walk.child;
  }
  for (const std::string& key : missing) {
    root.reset(add(root.release(), key, make_copy(values[key])));
    restored.push_back(key);
  }
  return root;
}

bool run_quantise(const QuantiseOptions& options) {
  const FileImage image = read_model_file(options.model);
  const Tag before = root_tag(image.get());
  const auto original = open_model(options.model, before);

  QuantiseReport report{};
  report.model = options.model;
  report.output = options.output;
  report.max_error = options.max_error;
  report.was_quantised = tag_int(get_tag_from_memory(before, "need_quant")).value_or(0) != 0;
  FileImage saved(write_network(*original, /*quantise=*/true));
  if (saved) saved = restore_root_keys(std::move(saved), before, report.restored_keys);
  if (!saved) throw std::bad_alloc();
  const Tag after = root_tag(saved.get());
  const auto quantised = open_model(options.model + ", quantised", after);

  report.tensors = compare_tensors(*original, *quantised, options.max_error);
  report.outputs = compare_outputs(*original, *quantised);
  report.dropped_records = layer_records(before) - layer_records(after);
  report.bytes_before = element_bytes(image.get());
  report.bytes_after = element_bytes(saved.get());
  const bool accepted = std::all_of(report.tensors.begin(), report.tensors.end(),
                                    [](const TensorError& tensor) { return tensor.accepted; });
  if (accepted) {
    report.written = write_model_file(saved.get(), options.output.c_str());
    if (!report.written) throw Failure("cannot write " + options.output);
  }
  print(options.json ? to_json(report) : text_of(report));
  if (!accepted) std::fprintf(stderr, "ravu: %s\n", complaint(report).c_str());
  return accepted;
}

}  // namespace ravu::tools
