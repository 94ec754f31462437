// The engine calls.
#include "objects/Engine.h"
#include "api/guard.h"

using namespace ravu::opencl;

cldnn_engine cldnn_create_engine(int32_t type, uint32_t number,
                                 const cldnn_engine_configuration* configuration,
                                 cldnn_status* status) {
  return guarded(status, [&]() -> cldnn_engine { return new Engine(type, number, configuration); });
}

void cldnn_retain_engine(cldnn_engine engine, cldnn_status* status) {
  guarded(status, [&] { checked(engine, "engine").retain(); });
}

void cldnn_release_engine(cldnn_engine engine, cldnn_status* status) {
  guarded(status, [&] { checked(engine, "engine").release(); });
}
