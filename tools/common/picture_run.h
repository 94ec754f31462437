// What the subcommands for image files have in common: one model, and one image after another.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/contact_sheet.h"
#include "common/image_file.h"
#include "common/input_files.h"
#include "common/picture_input.h"
#include "common/printing.h"
#include "graph/ravuGraph.h"

namespace ravu::tools {

struct PictureOptions {
  std::string model;
  std::vector<std::string> images;
  PictureInput input;
  bool channel_mean = false;
  std::uint32_t mode = 0;
  std::uint32_t threads = 0;  // 0: the BLAS library's own default
  bool json = false;
  std::string sheet;  // file of the contact sheet; empty for none
};

struct PictureModel {
  std::unique_ptr<Network> network;
  std::vector<char*> labels;  // the network's, in the order of the scores
  PictureInput input;         // as the user or the model's card wants it
};

// Loads the model, sets the number of threads, and obeys the model's card. Nothing is set up yet.
// Throws Failure, also when the sheet would replace a file that is read: one of `inputs`, which are
// those of the options.
PictureModel open_picture_model(const PictureOptions& options, const InputFiles& inputs);

// Runs the picture through the network, which is set up for the mode.
void show(const PictureModel& model, const Picture& picture, std::uint32_t mode);

// What a subcommand does with each image, by its place among them.
template <class Result>
struct PictureSteps {
  std::function<Result(std::size_t, const Picture&)> look;
  std::function<std::string(const Result&)> text;
  std::function<Tile(const Picture&, const Result&)> tile;
  std::function<std::string(const std::vector<Result>&)> json;
};

// Looks at all images. Text is printed as it comes; JSON is one array, so it waits for the last
// image. An image that cannot be read gets a line on standard error and the others go on. Writes
// the sheet, with tiles of this side. Returns whether all images could be read. Throws Failure.
template <class Result>
bool run_over_pictures(const PictureOptions& options, std::uint32_t tile_side,
                       const PictureSteps<Result>& steps) {
  bool all_read = true;
  std::vector<Result> results;
  std::vector<Tile> tiles;
  for (std::size_t i = 0; i < options.images.size(); ++i) {
    const auto picture = read_or_report(options.images[i]);
    if (!picture) {
      all_read = false;
      continue;
    }
    const Result result = steps.look(i, *picture);
    if (!options.sheet.empty() && tiles.size() < kMaxTiles) {
      tiles.push_back(steps.tile(*picture, result));
    }
    if (options.json) {
      results.push_back(result);
    } else {
      print(steps.text(result));
    }
  }
  if (options.json) print(steps.json(results));
  if (!options.sheet.empty()) write_png(options.sheet, draw_contact_sheet(tiles, tile_side));
  return all_read;
}

}  // namespace ravu::tools
