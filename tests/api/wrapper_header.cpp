// The C++ wrapper alone, compiled once per language version.
#include "ravu/ravu.hpp"
