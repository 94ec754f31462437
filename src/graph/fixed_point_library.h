// The fixed-point kernel library as the engine uses it in run mode 3: found when a network is set
// up for that mode, with words in place of ordinals.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "fixpoint/fixpoint.h"

namespace ravu {

// All functions, or none of them and the reason. The library stays loaded until the process ends,
// since its worker threads do.
struct FixedPointLibrary {
  fixpoint::ConvCreate conv_create = nullptr;
  fixpoint::ConvConfigure conv_configure = nullptr;
  fixpoint::ConvFinish conv_finish = nullptr;
  fixpoint::ConvSetInput conv_set_input = nullptr;
  fixpoint::ConvRun conv_run = nullptr;
  fixpoint::FullyConnectCreate fully_connect_create = nullptr;
  fixpoint::FullyConnectConfigure fully_connect_configure = nullptr;
  fixpoint::FullyConnectFinish fully_connect_finish = nullptr;
  fixpoint::FullyConnectSetInput fully_connect_set_input = nullptr;
  fixpoint::FullyConnectRun fully_connect_run = nullptr;
  fixpoint::Destroy destroy = nullptr;
  fixpoint::SetThreads set_threads = nullptr;
  fixpoint::Executions executions = nullptr;
  fixpoint::RunTasks run_tasks = nullptr;
  std::string problem = "no fixed-point library was looked for";

  explicit operator bool() const { return problem.empty(); }
};

// An operator that is destroyed with its holder.
using FixedPointOperator = std::unique_ptr<fixpoint::Operator, fixpoint::Destroy>;

// What the layers pass to every operator.
inline constexpr float kFixedPointWeightRange = 64.0F;
inline constexpr float kFixedPointInputRange = 127.0F;
inline constexpr float kFixedPointRounding = 0.5F;

// The library whose functions `resolve` finds by their ordinals (null: there is none such).
FixedPointLibrary resolve_fixed_point_library(
    const std::function<fixpoint::Function(std::uint32_t)>& resolve);

// The library in this file; a bare file name is looked for where the system does.
FixedPointLibrary open_fixed_point_library(const std::string& path);

// The library beside the engine, or else where the system looks for libraries.
FixedPointLibrary load_fixed_point_library();

}  // namespace ravu
