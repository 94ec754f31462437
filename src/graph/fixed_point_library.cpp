// One table of ordinals and names; the rest is finding the file.
#include "graph/fixed_point_library.h"

#include "graph/dynamic_library.h"

namespace ravu {
namespace {

#ifdef _WIN32
constexpr const char* kFileName = "ravu_fixpoint.dll";
#else
constexpr const char* kFileName = "libravu_fixpoint.so";
#endif

// Fills the library's functions one by one and keeps the first that is missing.
class Functions {
 public:
  explicit Functions(const std::function<fixpoint::Function(std::uint32_t)>& resolve)
      : resolve_(resolve) {}

  template <class Type>
  void take(Type& function, std::uint32_t ordinal, const char* name) {
    function = reinterpret_cast<Type>(resolve_(ordinal));
    if (function == nullptr && missing_.empty()) {
      missing_ = "the fixed-point library has no function \"" + std::string(name) + "\" (ordinal " +
                 std::to_string(ordinal) + ")";
    }
  }

  const std::string& missing() const { return missing_; }

 private:
  const std::function<fixpoint::Function(std::uint32_t)>& resolve_;
  std::string missing_;
};

FixedPointLibrary without_library(const std::string& problem) {
  FixedPointLibrary none;
  none.problem = problem;
  return none;
}

}  // namespace

FixedPointLibrary resolve_fixed_point_library(
    const std::function<fixpoint::Function(std::uint32_t)>& resolve) {
  FixedPointLibrary l;
  Functions functions(resolve);
  functions.take(l.conv_create, fixpoint::kConvCreate, "convolution: create");
  functions.take(l.conv_run, fixpoint::kConvRun, "convolution: run");
  functions.take(l.conv_set_input, fixpoint::kConvSetInput, "convolution: set input");
  functions.take(l.conv_finish, fixpoint::kConvFinish, "convolution: finish");
  functions.take(l.conv_configure, fixpoint::kConvConfigure, "convolution: configure");
  functions.take(l.fully_connect_create, fixpoint::kFullyConnectCreate, "fully connected: create");
  functions.take(l.fully_connect_run, fixpoint::kFullyConnectRun, "fully connected: run");
  functions.take(l.fully_connect_set_input, fixpoint::kFullyConnectSetInput,
                 "fully connected: set input");
  functions.take(l.fully_connect_finish, fixpoint::kFullyConnectFinish, "fully connected: finish");
  functions.take(l.fully_connect_configure, fixpoint::kFullyConnectConfigure,
                 "fully connected: configure");
  functions.take(l.destroy, fixpoint::kDestroy, "destroy");
  functions.take(l.set_threads, fixpoint::kSetThreads, "set threads");
  functions.take(l.executions, fixpoint::kExecutions, "executions");
  functions.take(l.run_tasks, fixpoint::kRunTasks, "run tasks");
  if (!functions.missing().empty()) return without_library(functions.missing());
  l.problem.clear();
  return l;
}

FixedPointLibrary open_fixed_point_library(const std::string& path) {
  std::string reason;
  const auto file = DynamicLibrary::open(path, reason, DynamicLibrary::Lifetime::kWholeProcess);
  if (!file) return without_library("the fixed-point library cannot be loaded: " + reason);
#ifdef _WIN32
  return resolve_fixed_point_library([&](std::uint32_t ordinal) {
    // The system takes an ordinal where it takes a name.
    const auto name = reinterpret_cast<const char*>(static_cast<std::uintptr_t>(ordinal));
    return reinterpret_cast<fixpoint::Function>(file.function<void()>(name));
  });
#else
  const auto resolver = file.function<fixpoint::Function(std::uint32_t)>(fixpoint::kResolverName);
  if (resolver == nullptr) {
    return without_library(path + " is no fixed-point library: it does not export " +
                           fixpoint::kResolverName);
  }
  return resolve_fixed_point_library(resolver);
#endif
}

FixedPointLibrary load_fixed_point_library() {
  FixedPointLibrary beside = open_fixed_point_library(own_folder() + kFileName);
  return beside ? beside : open_fixed_point_library(kFileName);
}

}  // namespace ravu
