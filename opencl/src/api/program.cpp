// The program calls.
#include "objects/Program.h"
#include "api/guard.h"

using namespace ravu::opencl;

cldnn_program cldnn_build_program(cldnn_engine engine, cldnn_topology topology,
                                  cldnn_build_option* options, size_t option_count,
                                  cldnn_status* status) {
  return guarded(status, [&]() -> cldnn_program {
    checked(engine, "engine");
    if (options == nullptr && option_count > 0) refuse("the build options are null");
    return new Program(engine, checked(topology, "topology"), {options, option_count});
  });
}

void cldnn_retain_program(cldnn_program program, cldnn_status* status) {
  guarded(status, [&] { checked(program, "program").retain(); });
}

void cldnn_release_program(cldnn_program program, cldnn_status* status) {
  guarded(status, [&] { checked(program, "program").release(); });
}
