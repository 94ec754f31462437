// What a converted model says about itself: where it comes from, how pictures are fed to it, and
// how well it was verified. It is the JSON text of one root key that the engine does not look at.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/resize.h"
#include "graph/ravuGraph.h"
#include "model/tag_reader.h"

namespace ravu::tools {

inline constexpr const char* kCardKey = "model_card";

// A card that says more is damaged: no network has so many scores.
inline constexpr std::uint32_t kMostLabelOffset = 1'000'000;

struct ModelCard {
  std::string json;  // as it stands in the file; empty: the model has no card
  std::optional<Framing> framing;
  std::uint32_t label_offset = 0;  // the score that the first label belongs to: to kMostLabelOffset
  std::vector<std::pair<std::string, std::string>> lines;  // title and text, for people
};

// The card below a root element. Throws Failure with `path` when it is no JSON object. What it
// does not say, or says in another form, is left as it is above.
ModelCard read_card(const std::string& path, const Tag& root);

// The labels in the order of the scores: those before the card's label offset are empty.
std::vector<char*> labels_by_score(const Network& network, const ModelCard& card);

}  // namespace ravu::tools
