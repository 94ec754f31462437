// Record "pool".
#include "layers/PoolingLayer.h"
#include "model/records/records.h"

namespace ravu {

LayerPtr read_pooling(const Record& record, const LayerRow& row) {
  auto layer = make_layer<PoolingLayer>(row);
  PoolingLayer& pool = *layer;
  const auto size = [](std::int32_t n) { return static_cast<std::uint32_t>(n); };
  pool.kernel_h = pool.kernel_w = size(need_int(record, "psize"));
  pool.stride_h = pool.stride_w = size(need_int(record, "stride"));
  pool.pad_w = size(get_int(record, "paddingW", 0));
  pool.pad_h = size(get_int(record, "paddingH", 0));
  // Kept: any text but exactly "max" means average.
  pool.mode = need_text(record, "mode") == "max" ? PoolingLayer::kMax : PoolingLayer::kAverage;
  return wire(record, row, std::move(layer),
              [&pool](const Blob& input) { return pooling_shape(pool, input); });
}

std::uint8_t* write_pooling(const BaseLayer& layer, bool) {
  const auto& pool = static_cast<const PoolingLayer&>(layer);
  const auto size = [](std::uint32_t n) { return make_int(static_cast<std::int32_t>(n)); };
  std::uint8_t* record = make_record("pool");
  record = add(record, "psize", size(pool.kernel_h));
  record = add(record, "stride", size(pool.stride_h));
  record = add(record, "paddingW", size(pool.pad_w));
  record = add(record, "paddingH", size(pool.pad_h));
  return add(record, "mode", make_text(pool.mode == PoolingLayer::kMax ? "max" : "avg"));
}

}  // namespace ravu
