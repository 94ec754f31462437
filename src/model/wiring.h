// Layers are connected by the names of the Blobs that they read and write.
#pragma once

#include <string_view>

#include "graph/BaseLayer.h"
#include "model/record.h"

namespace ravu {

// Links the Blobs named by "input_layers" to the layer. A name that no Blob has is cut from its end
// until one has it; without any, a warning with the layer's label is printed and the input skipped.
void wire_inputs(const Record& record, const char* label, BaseLayer& layer);

// Links the Blobs named by "output_layers": an existing Blob of that name (the layer works in place
// or shares an output), else a new one of the given shape, without storage. A new one without a
// shape fails the load.
void wire_outputs(const Record& record, const std::optional<Shape>& shape, BaseLayer& layer);

}  // namespace ravu
