// Does everything to a model that a host could do, for tests with damaged models.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ravu::test {

// Loads a model from memory under a small memory limit. If it loads: sets it up for both processor
// modes, runs it, changes the input's shape, runs it again, releases the weights, runs it a last
// time, and reads every value that a host could read. Returns whether it loaded.
bool exercise(const std::uint8_t* bytes, std::size_t size);

}  // namespace ravu::test
