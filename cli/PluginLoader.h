#pragma once
#include "OrvAlgo/IOrvAlgo.h"

#include <string>
#include <vector>

using GetAlgoObjFn = OrvAlgo::IOrvAlgo* (*)();

struct LoadedPlugin {
    GetAlgoObjFn create = nullptr; // null when no candidate loaded
    std::string error;             // one "  ..." line per candidate that failed
};

// The first candidate that loads and exports GetAlgoObj. It stays loaded for the life of the
// process: GDAL may still hold objects it made.
LoadedPlugin LoadPlugin(const std::vector<std::string>& candidates);
