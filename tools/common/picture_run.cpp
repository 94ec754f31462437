// The image of the model file is gone before the network runs: it is as large as the weights.
#include "common/picture_run.h"

#include "common/model.h"
#include "common/model_card.h"

namespace ravu::tools {

PictureModel open_picture_model(const PictureOptions& options, const InputFiles& inputs) {
  inputs.check_output(options.sheet);
  set_threads(options.threads);
  const FileImage file = read_model_file(options.model);
  const Tag root = root_tag(file.get());
  PictureModel model;
  model.network = open_model(options.model, root, options.channel_mean);
  const ModelCard card = read_card(options.model, root);
  model.input = obey_card(options.input, card);
  model.labels = labels_by_score(*model.network, card);
  return model;
}

void show(const PictureModel& model, const Picture& picture, std::uint32_t mode) {
  feed(*model.network, to_input(picture, *model.network->input, model.input));
  run(*model.network, mode);
}

}  // namespace ravu::tools
