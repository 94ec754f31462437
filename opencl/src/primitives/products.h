// What convolution and fully connected share: parameters folded and packed once, then one launch of
// a matrix product whose left side is read from the input.
#pragma once

#include "primitives/Plan.h"

namespace ravu::opencl {

// One value per output feature ("unit"), with everything folded that the followers say. All but the
// addend are temporary.
struct UnitParameters {
  const Slot* factors = nullptr;  // go into the weights
  const Slot* biases = nullptr;
  const Slot* slopes = nullptr;
  const Slot* addend = nullptr;  // null: none
};
// The biases are those of the parts behind one another, or none.
UnitParameters fold_followers(Plan& plan, int64_t units, std::span<const Operand> biases,
                              float slope);

// The arguments of product.cl that describe the work.
struct Product {
  cl_int8 image{};
  cl_int8 window{};
  cl_int8 result{};
  int64_t pixels = 1;  // of the result, images included
  int64_t units = 1;   // of one part
  int64_t parts = 1;
  int64_t terms = 1;          // of one unit
  int64_t border_values = 1;  // that a tap outside the input may read
  // Where the weights of a term and of a unit stand: pack_panels of weights.cl.
  cl_int4 digits{};
  cl_int4 steps{};
};
// Weights: one operand per part.
void plan_product(Plan& plan, const Product& product, std::span<const Operand> weights,
                  const UnitParameters& parameters);

}  // namespace ravu::opencl
