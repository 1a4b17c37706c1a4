#pragma once
#include "CommandLine.h"

#include <string>
#include <utility>
#include <vector>

// Name given to output band `band` (1-based) of a successful run, for bands the plug-in left unnamed.
std::string BandName(const Request& req, int band);

// What the run was, as the items of the output's "TAVTRANSFORM" metadata domain.
std::vector<std::pair<std::string, std::string>> RunMetadata(const Request& req);

// The output file of the request; empty for a statistics-only run.
std::string OutputFile(const Request& req);

// Names the unnamed bands and records the run in the output. Formats that cannot keep either
// simply go without: this never fails the run.
void DescribeOutput(const Request& req);

// After a successful run: describes the output and writes the requested quicklook. The reason
// when the quicklook could not be written (the output itself stays), empty otherwise.
std::string FinishOutput(const Request& req);
