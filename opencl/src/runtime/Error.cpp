// The two ways in which nearly everything fails.
#include "runtime/Error.h"

#include "cldnn/cldnn.h"

namespace ravu::opencl {

void refuse(const std::string& text) {
  throw Error(CLDNN_ERROR, text);
}

void out_of_resources(const std::string& text) {
  throw Error(CLDNN_OUT_OF_RESOURCES, text);
}

}  // namespace ravu::opencl
