#pragma once
#include "CommandLine.h"

#include <string>

// pca-inverse: the statistics file must hold exactly 2n² + 3n + 1 doubles for the band count n it
// starts with. The plug-in reads a short file without complaint, so the check is made here.
// Returns the problem, or an empty text when there is none (or nothing to check).
std::string PcaStatsProblem(const Request& request);
