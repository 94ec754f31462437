// A topology resolved for an engine: who reads whom, in an order that can be run, with every
// output's shape, and which primitives a product does along the way.
#pragma once

#include <optional>
#include <span>
#include <vector>

#include "objects/Engine.h"
#include "objects/Topology.h"

namespace ravu::opencl {

struct ProgramNode {
  std::shared_ptr<const Primitive> primitive;
  std::vector<size_t> inputs;  // places in the program's nodes, all before this one
  Tensor tensor;
  size_t readers = 0;  // how often other nodes name it
  bool is_output = false;
  // A product and the nodes behind it that its kernel does as well form a chain. The product's
  // kernel runs where the chain's last node stands, since by then all that the chain reads is
  // there.
  std::vector<size_t> followers;      // of the product: the rest of its chain, in order
  std::optional<size_t> chain_start;  // of a follower: the product
  std::optional<size_t> chain_end;    // of all but the last: the node that has the result
};

}  // namespace ravu::opencl

struct cldnn_program_impl final : ravu::opencl::Counted {
  cldnn_program_impl(ravu::opencl::Engine* engine, const ravu::opencl::Topology& topology,
                     std::span<const cldnn_build_option> options);

  ravu::opencl::Ref<ravu::opencl::Engine> engine;
  std::vector<ravu::opencl::ProgramNode> nodes;

  std::vector<ravu::opencl::Tensor> input_tensors(const ravu::opencl::ProgramNode& node) const;

 private:
  void compute_shapes();
  void mark_outputs(const std::vector<std::string>& wanted);
  void find_followers();
  void follow(size_t product);
};

namespace ravu::opencl {
using Program = ::cldnn_program_impl;
}
