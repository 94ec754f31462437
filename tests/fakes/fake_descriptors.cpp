// One function per kind that has fields of its own.
#include "fakes/fake_descriptors.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <iterator>

#include "fakes/FakeCldnn.h"

namespace ravu::test {
namespace {

using cldnn::Kind;

// One address per kind.
std::array<char, cldnn::kKindCount> type_addresses;

struct Fields {
  std::string text;

  Fields& add(const std::string& name, const std::string& value) {
    if (!name.empty()) text += " " + name;
    text += " " + value;
    return *this;
  }
  Fields& add(const std::string& name, double value) {
    char number[32];
    std::snprintf(number, sizeof number, "%g", value);
    return add(name, std::string(number));
  }
  Fields& add(const std::string& name, const cldnn_tensor& tensor) {
    std::string sizes;
    for (int i = 0; i < 4; ++i) sizes += (i == 0 ? "" : "x") + std::to_string(tensor.sizes[i]);
    return add(name, sizes);
  }
  Fields& add(const std::string& name, const cldnn_id_list& ids) {
    std::string list = "[";
    for (size_t i = 0; i < ids.size; ++i) list += (i == 0 ? "" : " ") + std::string(ids.data[i]);
    return add(name, list + "]");
  }
  Fields& add(const std::string& name, const cldnn_float_list& values) {
    Fields list;
    for (size_t i = 0; i < values.size; ++i) list.add("", static_cast<double>(values.data[i]));
    return add(name, "[" + list.text + " ]");
  }
  Fields& add_text(const std::string& name, cldnn_id id) {
    return *id == 0 ? *this : add(name, std::string(id));
  }
  Fields& add_flag(const std::string& name, bool flag) {
    if (flag) text += " " + name;
    return *this;
  }
};

template <class Descriptor>
const Descriptor& as(const cldnn_primitive& header) {
  return reinterpret_cast<const Descriptor&>(header);
}

// Unused sizes of a size tensor are 1; anything else is an error of the engine.
bool unused_sizes_are(const cldnn_tensor& tensor, int value) {
  return std::all_of(std::begin(tensor.sizes) + 4, std::end(tensor.sizes),
                     [&](int size) { return size == value; });
}

Fields of_activation(const cldnn_activation_desc& d) {
  Fields fields;
  return *d.slope_input == 0 ? fields.add("slope", d.negative_slope)
                             : fields.add("slopes", std::string(d.slope_input));
}

Fields of_batch_norm(const cldnn_batch_norm_desc& d) {
  return Fields()
      .add("mean", std::string(d.mean))
      .add("variance", std::string(d.variance))
      .add_flag("global", d.use_global_statistics != 0)
      .add("epsilon", d.epsilon);
}

Fields of_convolution(const cldnn_convolution_desc& d) {
  return Fields()
      .add("offset", d.input_offset)
      .add("stride", d.stride)
      .add("dilation", d.dilation)
      .add("split", d.split)
      .add("weights", d.weights)
      .add("bias", d.bias)
      .add_flag("activated", d.with_activation != 0);
}

Fields of_detection_output(const cldnn_detection_output_desc& d) {
  return Fields()
      .add("classes", d.class_count)
      .add("keep", static_cast<int32_t>(d.keep_top_k))
      .add_flag("shared", d.share_location != 0)
      .add("background", d.background_label)
      .add("nms", d.nms_threshold)
      .add("top", d.top_k)
      .add("eta", d.eta)
      .add("code", d.code_type)
      .add_flag("encoded", d.variance_encoded_in_target != 0)
      .add("threshold", d.confidence_threshold);
}

Fields of_eltwise(const cldnn_eltwise_desc& d) {
  return Fields()
      .add("with", std::string(d.second_input))
      .add("mode", d.mode)
      .add_flag("activated", d.with_activation != 0);
}

Fields of_lrn(const cldnn_lrn_desc& d) {
  return Fields()
      .add("size", d.size)
      .add("k", d.k)
      .add("alpha", d.alpha)
      .add("beta", d.beta)
      .add("region", d.region);
}

Fields of_permute(const cldnn_permute_desc& d) {
  Fields fields;
  for (size_t i = 0; i < d.order.size; ++i) fields.add("", static_cast<double>(d.order.data[i]));
  return fields;
}

Fields of_prior_box(const cldnn_prior_box_desc& d) {
  return Fields()
      .add("image", d.image_size)
      .add("min", d.min_sizes)
      .add("max", d.max_sizes)
      .add("ratios", d.aspect_ratios)
      .add_flag("flip", d.flip != 0)
      .add_flag("clip", d.clip != 0)
      .add("variances", d.variances)
      .add("step_w", d.step_width)
      .add("step_h", d.step_height)
      .add("offset", d.offset);
}

Fields fields_of(Kind kind, const cldnn_primitive& h) {
  Fields fields;
  switch (kind) {
    case Kind::kActivation:
      return of_activation(as<cldnn_activation_desc>(h));
    case Kind::kBatchNorm:
      return of_batch_norm(as<cldnn_batch_norm_desc>(h));
    case Kind::kConcatenation:
      return fields.add("axis", as<cldnn_concatenation_desc>(h).axis);
    case Kind::kConvolution:
      return of_convolution(as<cldnn_convolution_desc>(h));
    case Kind::kCrop:
      return fields.add("size", as<cldnn_crop_desc>(h).reference_size)
          .add("offsets", as<cldnn_crop_desc>(h).offsets);
    case Kind::kDetectionOutput:
      return of_detection_output(as<cldnn_detection_output_desc>(h));
    case Kind::kEltwise:
      return of_eltwise(as<cldnn_eltwise_desc>(h));
    case Kind::kFullyConnected:
      return fields.add("weights", std::string(as<cldnn_fully_connected_desc>(h).weights))
          .add_text("bias", as<cldnn_fully_connected_desc>(h).bias)
          .add_flag("activated", as<cldnn_fully_connected_desc>(h).with_activation != 0);
    case Kind::kLrn:
      return of_lrn(as<cldnn_lrn_desc>(h));
    case Kind::kNormalize:
      return fields.add("scale", std::string(as<cldnn_normalize_desc>(h).scale_input))
          .add_flag("across", as<cldnn_normalize_desc>(h).across_spatial != 0)
          .add("epsilon", as<cldnn_normalize_desc>(h).epsilon);
    case Kind::kPermute:
      return of_permute(as<cldnn_permute_desc>(h));
    case Kind::kPooling:
      return fields.add("mode", as<cldnn_pooling_desc>(h).mode)
          .add("window", as<cldnn_pooling_desc>(h).size)
          .add("stride", as<cldnn_pooling_desc>(h).stride)
          .add("offset", as<cldnn_pooling_desc>(h).input_offset);
    case Kind::kPriorBox:
      return of_prior_box(as<cldnn_prior_box_desc>(h));
    case Kind::kReorder:
      return fields.add("format", as<cldnn_reorder_desc>(h).output_format);
    case Kind::kReshape:
      return fields.add("to", as<cldnn_reshape_desc>(h).output_shape);
    case Kind::kScale:
      return fields.add("by", std::string(as<cldnn_scale_desc>(h).scale_input))
          .add_text("bias", as<cldnn_scale_desc>(h).bias);
    case Kind::kSoftmax:
      return fields.add("dimension", as<cldnn_softmax_desc>(h).dimension);
    case Kind::kData:
    case Kind::kInputLayout:
      return fields;
  }
  return fields;
}

bool pads_nothing(const cldnn_padding& padding) {
  return unused_sizes_are(padding.lower, 0) && unused_sizes_are(padding.upper, 0) &&
         padding.lower.sizes[0] + padding.upper.sizes[0] == 0 && padding.filling_value == 0;
}

}  // namespace

cldnn_type_id type_of(Kind kind) {
  return reinterpret_cast<cldnn_type_id>(&type_addresses[static_cast<std::size_t>(kind)]);
}

Kind kind_of(const cldnn_primitive& descriptor) {
  const auto* address = reinterpret_cast<const char*>(descriptor.type);
  return static_cast<Kind>(address - type_addresses.data());
}

std::string text_of(const cldnn_primitive& descriptor) {
  const Kind kind = kind_of(descriptor);
  std::string text = std::string(cldnn::name_of(kind)) + " " + descriptor.id;
  if (kind == Kind::kInputLayout) {
    return text + " " + text_of(as<cldnn_input_layout_desc>(descriptor).layout);
  }
  if (kind == Kind::kData) return text;
  text += " <-";
  for (size_t i = 0; i < descriptor.input.size; ++i) {
    text += std::string(" ") + descriptor.input.data[i];
  }
  if (!pads_nothing(descriptor.output_padding)) text += " padded";
  return text + ":" + fields_of(kind, descriptor).text;
}

std::string text_of(const cldnn_layout& layout) {
  static const char* const formats[] = {"", "byxf ", "bfyx ", "fyxb "};
  Fields sizes;
  sizes.add("", layout.size);
  std::string text = formats[layout.format] + sizes.text.substr(1);
  if (layout.data_type != CLDNN_FLOAT32) text += " of another type";
  if (!unused_sizes_are(layout.size, 1)) text += " with unused sizes";
  return text;
}

}  // namespace ravu::test
