// The results of all subcommands as JSON text, and the card of a model from it. Each is one value
// and ends with a line feed; bytes that are no UTF-8 are replaced, numbers that JSON does not have
// are null.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench.h"
#include "classify.h"
#include "common/model_card.h"
#include "detect.h"
#include "inspect.h"
#include "quantise.h"

namespace ravu::tools {

std::string to_json(const std::vector<Classification>& results);
std::string to_json(const std::vector<ImageDetections>& results);
std::string to_json(const ModelSummary& summary);
std::string to_json(const TagNode& root);
std::string to_json(const BenchReport& report);
std::string to_json(const LoadReport& report);
std::string to_json(const QuantiseReport& report);

// None for text that is no JSON object.
std::optional<ModelCard> card_from_json(const std::string& text);

}  // namespace ravu::tools
