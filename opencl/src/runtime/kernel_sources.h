// The OpenCL C sources of src/kernels, which the build puts into the library.
#pragma once

namespace ravu::opencl {

// The text of src/kernels/NAME.cl. The name is one of ours; another one is an Error.
const char* kernel_source(const char* name);

}  // namespace ravu::opencl
