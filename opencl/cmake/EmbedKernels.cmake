# Writes OUTPUT, a C++ source with the texts of all KERNELS (a list of .cl files):
#   cmake -DOUTPUT=... -DKERNELS="a.cl;b.cl" -P EmbedKernels.cmake
set(rows "")
foreach(kernel IN LISTS KERNELS)
  get_filename_component(name ${kernel} NAME_WE)
  file(READ ${kernel} text)
  # Compilers limit the length of one literal; adjoining literals are joined.
  string(REPLACE "\n\n" "\n)kernel\"\nR\"kernel(\n" text "${text}")
  string(APPEND rows "    {\"${name}\", R\"kernel(${text})kernel\"},\n")
endforeach()
file(WRITE ${OUTPUT} "// Written by cmake/EmbedKernels.cmake from src/kernels.
#include \"runtime/kernel_sources.h\"

#include <cstring>

#include \"runtime/Error.h\"

namespace ravu::opencl {

namespace {

struct Source {
  const char* name;
  const char* text;
};

const Source kSources[] = {
${rows}};

}  // namespace

const char* kernel_source(const char* name) {
  for (const Source& source : kSources) {
    if (std::strcmp(source.name, name) == 0) return source.text;
  }
  refuse(std::string(\"no kernel source \") + name);
}

}  // namespace ravu::opencl
")
