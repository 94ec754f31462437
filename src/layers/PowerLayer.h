// (scale * x + shift) to the power of `power`, where input and output share storage.
#pragma once

#include "graph/BaseLayer.h"

namespace ravu {

class PowerLayer : public BaseLayer {
 public:
  float power = 1.0F;
  float scale = 1.0F;
  float shift = 0.0F;
  float power_times_scale = 1.0F;  // filled by the record's reader; no computation uses it

  bool Forward(std::uint32_t mode) override;
  void AddPrimitives(cldnn_topology_impl* topology, cldnn_engine_impl* engine,
                     std::uint32_t data_type, Aliases& aliases) override;
  void Reshape() override;
};

Fit fits(const PowerLayer& layer);

}  // namespace ravu
