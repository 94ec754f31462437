// The parts of reading a descriptor that all kinds share. Everything is copied.
#include "primitives/Primitive.h"

#include "runtime/Error.h"

namespace ravu::opencl {

Primitive::Primitive(const cldnn_primitive& header)
    : id(text_of(header.id, "id")), inputs(ids_of(header.input, "input")) {
  if (id.empty()) refuse("a primitive needs an id");
  if (is_padded(header.output_padding)) refuse(id + ": output padding is not supported");
}

std::string text_of(cldnn_id text, const char* what) {
  if (text == nullptr) refuse(std::string("the ") + what + " text is null");
  return text;
}

std::vector<std::string> ids_of(const cldnn_id_list& list, const char* what) {
  if (list.data == nullptr && list.size > 0) refuse(std::string("the ") + what + " list is null");
  std::vector<std::string> ids;
  for (size_t i = 0; i < list.size; ++i) ids.push_back(text_of(list.data[i], what));
  return ids;
}

std::vector<float> floats_of(const cldnn_float_list& list, const char* what) {
  if (list.data == nullptr && list.size > 0) refuse(std::string("the ") + what + " list is null");
  return {list.data, list.data + list.size};
}

void need_inputs(const Primitive& primitive, size_t wanted) {
  if (primitive.inputs.size() == wanted) return;
  refuse(primitive.id + ": needs " + std::to_string(wanted) + " inputs, got " +
         std::to_string(primitive.inputs.size()));
}

}  // namespace ravu::opencl
