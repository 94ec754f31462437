/* The public header alone, compiled once per language version. */
#include "ravu/ravu.h"
