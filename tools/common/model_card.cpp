// json.cpp understands the text; here is what comes before and after.
#include "common/model_card.h"

#include "common/failure.h"
#include "json.h"

namespace ravu::tools {

ModelCard read_card(const std::string& path, const Tag& root) {
  const Tag tag = get_tag_from_memory(root, kCardKey);
  if (!tag) return {};
  const std::string text(tag_text(tag));
  const auto card = card_from_json(text);
  if (!card) throw Failure(path + ": \"" + kCardKey + "\" is no JSON object");
  return *card;
}

std::vector<char*> labels_by_score(const Network& network, const ModelCard& card) {
  static char unnamed[] = "";
  std::vector<char*> labels(card.label_offset, unnamed);
  labels.insert(labels.end(), network.labels.begin(), network.labels.end());
  return labels;
}

}  // namespace ravu::tools
