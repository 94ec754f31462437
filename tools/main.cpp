// ravu: the engine from the command line.
//
//   ravu classify MODEL IMAGE...   names what images show
//   ravu detect MODEL IMAGE...     finds objects in images
//   ravu inspect MODEL             shows what a model file holds
//   ravu bench MODEL               measures how fast a model runs
//   ravu devices                   shows what each run mode would use on this machine
//   ravu diff MODEL                shows layer by layer where two run modes or two models part
//   ravu quantise MODEL OUT        stores a model's large tensors in 8 bits
//   ravu convert SOURCE            makes a model of an ONNX or Caffe network (in Python)
//   ravu verify MODEL              repeats the check of a converted model (in Python)
//
// Results go to standard output, everything else to standard error. The exit code is 0, 1 when
// something could not be done, or 2 when the command line is wrong; convert and verify also end
// with 3 and 4 (docs/converting.md). Only this file includes CLI11, which is slow to compile.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <map>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "bench.h"
#include "classify.h"
#include "detect.h"
#include "devices.h"
#include "diff.h"
#include "inspect.h"
#include "python_command.h"
#include "quantise.h"

namespace {

using namespace ravu::tools;

constexpr int kFailed = 1;
constexpr int kMisused = 2;
constexpr std::uint32_t kMostThreads = 1024;
constexpr std::uint32_t kMostRepeats = 1000000;

void add_model(CLI::App& command, std::string& model) {
  command.add_option("MODEL", model, "Model file")->required();
}

constexpr const char* kModes =
    "Run mode: 0 processor, 2 GPU, 3 processor with 8-bit kernels, 4 GPU keeping the weights in "
    "memory";

CLI::IsMember is_mode() {
  return CLI::IsMember({0U, 2U, 3U, 4U});
}

void add_threads(CLI::App& command, std::uint32_t& threads) {
  command
      .add_option("--threads", threads,
                  "Threads of the BLAS library and of the engine (default: the BLAS library's own, "
                  "usually one per processor)")
      ->check(CLI::Range(1U, kMostThreads));
}

void add_mode_and_threads(CLI::App& command, std::uint32_t& mode, std::uint32_t& threads) {
  command.add_option("--mode", mode, kModes)->check(is_mode())->capture_default_str();
  add_threads(command, threads);
}

// How pictures become inputs.
void add_picture_input(CLI::App& command, PictureInput& input, bool& channel_mean) {
  const std::map<std::string, Framing> framings{
      {"squash", Framing::kSquash}, {"crop", Framing::kCrop}, {"letterbox", Framing::kLetterbox}};
  command
      .add_option(
          "--fit", input.framing,
          "How an image fills the network's input: squash it, crop its centre, or letterbox "
          "it with grey borders (default: squash)")
      ->transform(CLI::CheckedTransformer(framings))
      ->each([&](const std::string&) { input.framing_given = true; })
      ->option_text("squash|crop|letterbox");
  command.add_flag("--bgr", input.bgr, "Feed the channels in the order blue, green, red");
  command.add_flag("--channel-mean", channel_mean,
                   "Replace the model's mean image by its average per channel");
}

// What the subcommands for image files share.
void add_pictures(CLI::App& command, PictureOptions& options) {
  command.add_option("IMAGE", options.images, "JPEG or PNG files; they run one after another")
      ->required();
  add_picture_input(command, options.input, options.channel_mean);
}

void add_json(CLI::App& command, bool& json) {
  command.add_flag("--json", json, "Print one JSON value instead of text");
}

void add_classify(CLI::App& app, ClassifyOptions& options) {
  CLI::App& command = *app.add_subcommand("classify", "Name what images show");
  add_model(command, options.model);
  add_pictures(command, options);
  command.add_option("--top", options.top, "How many labels to print for each image")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  add_mode_and_threads(command, options.mode, options.threads);
  add_json(command, options.json);
  command
      .add_option("--sheet", options.sheet,
                  "Also draw the images (at most 500) with their best label and score")
      ->option_text("FILE.png");
  command.footer(
      "Prints one line per label: image, rank, score and label, separated by tabs.\n"
      "An image that cannot be read gets a line on standard error, the others go on.");
}

void add_detect(CLI::App& app, DetectOptions& options) {
  CLI::App& command = *app.add_subcommand("detect", "Find objects in images");
  add_model(command, options.model);
  add_pictures(command, options);
  command.add_option("--threshold", options.threshold, "Least score of what is reported, 0 to 1")
      ->check(CLI::Range(0.0F, 1.0F))
      ->capture_default_str();
  add_mode_and_threads(command, options.mode, options.threads);
  add_json(command, options.json);
  command
      .add_option("--out", options.out,
                  "Also write a copy of each image with boxes and names into this folder, named "
                  "after it: 7.jpg gives 7.png, or 7-2.png if that is an input or another copy")
      ->option_text("FOLDER");
  command
      .add_option("--sheet", options.sheet,
                  "Also draw the images (at most 500) with boxes and names onto one page")
      ->option_text("FILE.png");
  command.footer(
      "Prints one line per object, best first: image, label, score, and the box as left, top,\n"
      "right and bottom in pixels of the image, separated by tabs. What lies outside the image is\n"
      "cut off. An image that cannot be read gets a line on standard error, the others go on.");
}

void add_inspect(CLI::App& app, InspectOptions& options) {
  CLI::App& command = *app.add_subcommand("inspect", "Show what a model file holds");
  add_model(command, options.model);
  command.add_option("--batch", options.batch, "Images in a batch, for shapes and multiply-adds")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  command
      .add_flag("--tags", options.tags,
                "Show the tree of elements instead of the layers; works for damaged models too")
      ->excludes("--batch");
  command
      .add_flag("--plan", options.plan,
                "Also show how run mode 0 computes each layer on this machine")
      ->excludes("--tags");
  add_json(command, options.json);
  command.footer("Multiply-adds are those of convolutions and fully connected layers.");
}

void add_bench(CLI::App& app, BenchOptions& options) {
  CLI::App& command = *app.add_subcommand("bench", "Measure how fast a model runs");
  add_model(command, options.model);
  command.add_option("--warm-up", options.warm_up, "Passes before the measurement")
      ->check(CLI::Range(0U, kMostRepeats))
      ->capture_default_str();
  command.add_option("--repeats", options.repeats, "Passes that are measured")
      ->check(CLI::Range(1U, kMostRepeats))
      ->capture_default_str();
  command.add_option("--batch", options.batch, "Images in a pass")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  add_mode_and_threads(command, options.mode, options.threads);
  command.add_flag("--layers", options.layers,
                   "Also time every layer, in passes of their own with a clock between the layers "
                   "(run modes 0 and 3), and the most that the threads can compute");
  command.add_flag("--reference", options.reference,
                   "Also time the BLAS library's product of two 1024 x 1024 matrices in between");
  command
      .add_flag("--load", options.load,
                "Time loading, set-up and the first two passes instead, beside reading the file")
      ->excludes("--warm-up", "--layers", "--reference");
  add_json(command, options.json);
  command.footer(
      "GF/s are billions of operations a second, two for each multiply-add of convolutions and\n"
      "fully connected layers. The input holds seeded values. Layers that are computed together "
      "with\n"
      "the one before them are marked as fused; Winograd's forms can exceed the peak, since they\n"
      "multiply less often than is counted.");
}

void add_devices(CLI::App& app, DevicesOptions& options) {
  CLI::App& command =
      *app.add_subcommand("devices", "Show what each run mode would use on this machine");
  add_json(command, options.json);
  command.footer(
      "Looks for the libraries and devices as a set-up does and says why those that are not used\n"
      "are passed over. What is missing is no failure: the exit code is 0.");
}

void add_diff(CLI::App& app, DiffOptions& options) {
  CLI::App& command =
      *app.add_subcommand("diff", "Show layer by layer where two run modes or two models part");
  command
      .add_option("FILE", options.files,
                  "One model or two, then perhaps an image (JPEG or PNG); without one, the input "
                  "holds seeded values")
      ->required()
      ->expected(1, 3)
      ->option_text("MODEL [MODEL] [IMAGE]");
  command.add_option("--mode", options.modes, std::string(kModes) + ". Twice for one model")
      ->check(is_mode())
      ->allow_extra_args(false);
  command
      .add_option("--tolerance", options.tolerance,
                  "Greatest error of a layer, in parts of the range of its values")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  add_picture_input(command, options.input, options.channel_mean);
  add_threads(command, options.threads);
  add_json(command, options.json);
  command.footer(
      "  ravu diff MODEL [IMAGE] --mode A --mode B   one model in two run modes\n"
      "  ravu diff MODEL MODEL [IMAGE] [--mode A]    two models; layers are matched by the names\n"
      "                                              of their outputs\n"
      "  ravu diff MODEL SRC ...                     a converted model and its ONNX or Caffe\n"
      "                                              source (in Python; see ravu diff x.onnx -h)\n"
      "The exit code is 1 when a layer is above the tolerance. A layer's error contains those of\n"
      "the layers before it, so the first one above is where to look. On a GPU each layer is run\n"
      "at the end of a network of its own, which takes a set-up for each.");
}

void add_quantise(CLI::App& app, QuantiseOptions& options) {
  CLI::App& command = *app.add_subcommand("quantise", "Store a model's large tensors in 8 bits");
  add_model(command, options.model);
  command
      .add_option("OUT", options.output,
                  "The new model file; MODEL itself, or another existing file, is replaced once "
                  "the new one is complete")
      ->required();
  command
      .add_option("--max-error", options.max_error,
                  "Greatest relative error that a tensor may get from being stored in 8 bits")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str();
  add_json(command, options.json);
  command.footer(
      "Weights and biases of convolutions and fully connected layers are stored in 8 bits, the\n"
      "rest as it is. Prints each tensor's error (the length of the difference divided by the\n"
      "length of the original) and how much the outputs of both models differ on seeded inputs.\n"
      "If an error is above the limit nothing is written and the exit code is 1.");
}

// Whether `ravu diff` has to do with the source of a model.
bool is_diff_with_source(int argc, char** argv) {
  return argc > 1 && std::string_view(argv[1]) == "diff" &&
         std::any_of(argv + 2, argv + argc, is_conversion_source);
}

// A subcommand that is written in Python: its name and description.
using PythonCommand = std::pair<const char*, const char*>;

// All arguments are passed on, --help included.
void add_python_commands(CLI::App& app, const std::vector<PythonCommand>& commands) {
  for (const auto& [name, description] : commands) {
    app.add_subcommand(name, description)->prefix_command()->set_help_flag();
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Run, inspect, measure and shrink neural networks");
  app.name("ravu");
  app.set_version_flag("--version", "ravu " RAVU_VERSION);
  app.require_subcommand(1);
  ClassifyOptions classify;
  DetectOptions detect;
  InspectOptions inspect;
  BenchOptions bench;
  DevicesOptions devices;
  DiffOptions diff;
  QuantiseOptions quantise;
  std::vector<PythonCommand> python_commands{
      {"convert", "Make a model of an ONNX or Caffe network"},
      {"verify", "Repeat the check of a converted model"},
  };
  add_classify(app, classify);
  add_detect(app, detect);
  add_inspect(app, inspect);
  add_bench(app, bench);
  add_devices(app, devices);
  if (is_diff_with_source(argc, argv)) {
    python_commands.emplace_back("diff", "Compare a converted model with its source");
  } else {
    add_diff(app, diff);
  }
  add_quantise(app, quantise);
  add_python_commands(app, python_commands);
  try {
    app.parse(argc, argv);
    if (bench.layers && bench.mode != 0 && bench.mode != 3) {
      throw CLI::ValidationError("--layers", "needs run mode 0 or 3");
    }
    const std::string misuse = diff.files.empty() ? "" : misuse_of(diff);
    if (!misuse.empty()) throw CLI::ValidationError("diff", misuse);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kMisused;
  }
  try {
    if (app.got_subcommand("classify")) return run_classify(classify) ? 0 : kFailed;
    if (app.got_subcommand("detect")) return run_detect(detect) ? 0 : kFailed;
    for (const auto& [name, description] : python_commands) {
      if (!app.got_subcommand(name)) continue;
      return run_python_command(name, app.get_subcommand(name)->remaining());
    }
    if (app.got_subcommand("inspect")) run_inspect(inspect);
    if (app.got_subcommand("bench")) bench.load ? run_load_bench(bench) : run_bench(bench);
    if (app.got_subcommand("devices")) run_devices(devices);
    if (app.got_subcommand("diff")) return run_diff(diff) ? 0 : kFailed;
    if (app.got_subcommand("quantise")) return run_quantise(quantise) ? 0 : kFailed;
  } catch (const std::bad_alloc&) {
    std::fputs("ravu: out of memory\n", stderr);
    return kFailed;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ravu: %s\n", error.what());
    return kFailed;
  }
  return 0;
}
